/*
 * libafehal: host-side analog front end of the capacitive touch panel.
 *
 * The touch service loads the library and drives it through the kvr_afe_*
 * functions below: a control thread makes every call except
 * kvr_afe_get_frame, which a frame thread calls in a loop.
 *
 * Result convention (u32):
 *   0                      success
 *   4 (KVR_AFE_ERR_STATE)  refused: not allowed in the current state
 *   7 (KVR_AFE_ERR_STATE_OR_ARG)  refused: wrong state or bad argument
 *   other                  a chip-side result passed through unchanged
 * Pointer-returning calls return NULL when refused. Every record the library
 * hands out is static storage owned by the library and overwritten by the
 * next call of the same kind; the caller never frees it.
 */
#ifndef AFEHAL_AFEHAL_H
#define AFEHAL_AFEHAL_H

#include <stdint.h>

#if defined(__GNUC__)
#define KVR_AFE_API __attribute__((visibility("default")))
#else
#define KVR_AFE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Result codes ------------------------------------------------------ */

enum {
  KVR_AFE_OK = 0,                   /* success */
  KVR_AFE_ERR_OPEN = 3,             /* the device node could not be opened */
  KVR_AFE_ERR_STATE = 4,            /* not allowed in this state */
  KVR_AFE_ERR_STATE_OR_ARG = 7,     /* not allowed in this state, or bad argument */
  KVR_AFE_INSPECT_NOT_STARTED = 128 /* kvr_afe_inspect: the IC could not be started */
};

/* kvr_afe_inspect refused in the current state: -95 as a signed value. */
#define KVR_AFE_INSPECT_REFUSED 0xFFFFFFA1u

/* ---- States of gu32AFEStatus (one-hot) --------------------------------- */

enum {
  KVR_STATE_CLOSED = 1,     /* node closed, nothing initialised */
  KVR_STATE_PREWORKING = 2, /* node open, project selected, IC not scanning */
  KVR_STATE_WORKING = 4,    /* IC scanning, frames flowing */
  KVR_STATE_STANDBY = 8     /* screen off */
};

/* ---- Frame status bits (kvr_frame_data.status) ------------------------- */

enum {
  KVR_AFE_STATUS_IDLE = 0x01,                     /* idle scan */
  KVR_AFE_STATUS_ACTIVE = 0x02,                   /* active scan */
  KVR_AFE_STATUS_SHIFT_DONE = 0x04,               /* frequency and/or rate shift completed */
  KVR_AFE_STATUS_CALIBRATION_DONE = 0x08,         /* calibration done; clear with 8 */
  KVR_AFE_STATUS_SOS = 0x40,                      /* empty frame after a recovery reset */
  KVR_AFE_STATUS_RECAL_REQUEST = 0x80,            /* recalibration requested */
  KVR_AFE_STATUS_IDLE_BASELINE_RESET_DONE = 0x100 /* accepted by kvr_afe_clear_status */
};

/* ---- Inspection result mask (kvr_afe_inspect) -------------------------- */

enum {
  INSPECT_FAIL_SETUP = 0x01,   /* reset, chip info or FIFO clear failed */
  INSPECT_FAIL_NOISE = 0x04,   /* noise test failed */
  INSPECT_FAIL_ITO_RAW = 0x08, /* ITO frame outside its limits */
  INSPECT_FAIL_ITO = 0x10,     /* ITO test failed otherwise */
  INSPECT_FAIL_SRAM = 0x40,    /* SRAM test failed */
  INSPECT_FAIL_CX = 0x80       /* CX test failed, or the run could not start */
};

/* ---- Records ----------------------------------------------------------- */

/* One frame. Mutual data: sense-major, F*S values; self data: F force values
 * then S sense values. Values are offset binary (0x8000 = no signal). */
typedef struct kvr_frame_data {
  int64_t timestamp_sec;  /* capture time, seconds (from the driver) */
  int64_t timestamp_usec; /* capture time, microseconds */
  uint32_t frame_index;   /* the IC's frame index */
  uint16_t *mutual;       /* F*S mutual-sense values */
  uint16_t *self;         /* F+S self-sense values */
  uint64_t reserved[2];   /* always zero */
  uint16_t freq_khz;      /* scan frequency in kHz */
  uint16_t rate_hz;       /* scan rate in Hz: 120 or 180 */
  uint32_t status;        /* KVR_AFE_STATUS_* bits */
} kvr_frame_data;

/* Hardware capability, refreshed by kvr_afe_get_hw_cap. */
typedef struct kvr_hw_cap {
  uint16_t force_len;          /* force channels */
  uint16_t sense_len;          /* sense channels */
  uint8_t reserved0;           /* 0 */
  uint8_t reserved1;           /* 0 */
  uint8_t channel_const;       /* 34 */
  uint16_t value_4200;         /* 4200 */
  uint8_t freq_count;          /* number of scan frequencies */
  uint16_t *freq_list;         /* scan frequencies in kHz */
  uint8_t rate_count;          /* number of scan rates (2) */
  uint16_t *rate_list;         /* scan rates in Hz: 120, 180 */
  uint32_t word0;              /* 0 */
  uint32_t word1;              /* 2 */
  uint32_t calibration_enable; /* 0: calibration requests are skipped */
  uint32_t word3;              /* 0 */
  uint32_t word4;              /* 2 */
  uint32_t word5;              /* 1 */
  uint64_t qword0;             /* 0 */
  uint64_t qword1;             /* 0 */
  uint64_t qword2[2];          /* 0 */
} kvr_hw_cap;

/* Identity strings; each field is at most 32 characters and is not
 * terminated when it fills all 32. */
typedef struct kvr_afe_info {
  char vendor_name[32];
  char ic_name[32];
  char version[32];
} kvr_afe_info;

/* Log sink: receives one finished line. Must be safe to call from the frame
 * thread and the control thread at once. */
typedef void (*kvr_afe_log_func)(const char *line);

/* Calibration-data callback pair: stored by the library, never called. */
typedef void (*kvr_afe_calib_data_func)(void);

/* ---- Lifecycle and information ----------------------------------------- */

/* Current state, one of KVR_STATE_*; written only by the lifecycle calls. */
#ifndef AFEHAL_BUILDING_LIBRARY
extern KVR_AFE_API uint32_t gu32AFEStatus;
#endif

/* CLOSED: open /dev/kvr with the default project. 0, 3 node not opened,
 * 4 refused. */
KVR_AFE_API uint32_t kvr_afe_open(void);
/* CLOSED: as kvr_afe_open with the given project (at most 10 characters). */
KVR_AFE_API uint32_t kvr_afe_open_project(const char *project);
/* PREWORKING: close the node. 0 or 4. */
KVR_AFE_API uint32_t kvr_afe_close(void);
/* PREWORKING, WORKING, STANDBY: resume scanning. 0, 4, or a chip result. */
KVR_AFE_API uint32_t kvr_afe_screen_on(void);
/* WORKING: screen off (state STANDBY even when it then fails with 4). */
KVR_AFE_API uint32_t kvr_afe_screen_off(void);
/* PREWORKING, WORKING: update the IC firmware if needed and start scanning.
 * State WORKING afterwards; returns the chip result. */
KVR_AFE_API uint32_t kvr_afe_start(void);
/* WORKING: stop scanning, back to PREWORKING. */
KVR_AFE_API uint32_t kvr_afe_stop(void);
/* WORKING: identity strings (static record), NULL when refused. */
KVR_AFE_API kvr_afe_info *kvr_afe_get_info(void);
/* WORKING: enter or leave the trusted UI; 0 or 7. */
KVR_AFE_API uint32_t kvr_afe_enter_tui(void);
KVR_AFE_API uint32_t kvr_afe_exit_tui(void);
/* Any state: install the log sink. NULL gives 7. */
KVR_AFE_API uint32_t kvr_afe_set_log_callback_func(kvr_afe_log_func cb);
/* Any state: messages up to this level reach the sink (0..5); 6+ gives 7. */
KVR_AFE_API uint32_t kvr_afe_set_log_level(uint8_t level);
/* Interface version 1.19.0: 70400 (major << 16 | minor << 8 | patch). */
KVR_AFE_API uint32_t kvr_afe_hal_spec_version(void);
KVR_AFE_API uint32_t kvr_afe_hal_spec_major_version(void);
KVR_AFE_API uint32_t kvr_afe_hal_spec_minor_version(void);
KVR_AFE_API uint32_t kvr_afe_hal_spec_patch_version(void);

/* ---- Frames ------------------------------------------------------------ */

/* WORKING, STANDBY: run queued commands, then wait for the next frame.
 * Returns the static frame record (valid until the next call), the SOS
 * record (status 0x40) after a recovery reset, or NULL. */
KVR_AFE_API kvr_frame_data *kvr_afe_get_frame(void);

/* ---- Queued commands (carried out by the frame thread) ------------------
 * Each returns 0 when the request was recorded. */

KVR_AFE_API uint32_t kvr_afe_enable_freq_shift(void);  /* WORKING, else 4 */
KVR_AFE_API uint32_t kvr_afe_disable_freq_shift(void); /* WORKING, else 4 */
KVR_AFE_API uint32_t kvr_afe_start_calibration(void);  /* WORKING, else 4 */
KVR_AFE_API uint32_t kvr_afe_start_autotune(void);     /* WORKING, else 4 */
/* WORKING, else 4: acknowledge status bits (8 releases calibration). */
KVR_AFE_API uint32_t kvr_afe_clear_status(uint32_t bits);
KVR_AFE_API uint32_t kvr_afe_set_baseline_update_interval(uint16_t value); /* else 4 */
KVR_AFE_API uint32_t kvr_afe_set_idle_touch_threshold(uint16_t value);     /* else 4 */
KVR_AFE_API uint32_t kvr_afe_reset_idle_baseline(void);                    /* WORKING, else 7 */
KVR_AFE_API uint32_t kvr_afe_enter_idle(void);                             /* WORKING, else 7 */
KVR_AFE_API uint32_t kvr_afe_force_exit_idle(void);                        /* WORKING, else 7 */
KVR_AFE_API uint32_t kvr_afe_force_to_freq_point(uint8_t index);           /* WORKING, else 7 */
KVR_AFE_API uint32_t kvr_afe_force_to_scan_rate(uint8_t index);            /* WORKING, else 7 */
/* Any state: store the calibration-data callback pair. 0. */
KVR_AFE_API uint32_t kvr_afe_set_calib_data_callback_func(kvr_afe_calib_data_func first_func,
                                                          kvr_afe_calib_data_func second_func);

/* ---- Capability and wake-up gesture ------------------------------------ */

/* WORKING: refreshed capability record (static), NULL when refused or when
 * the IC's configuration cannot be read. */
KVR_AFE_API kvr_hw_cap *kvr_afe_get_hw_cap(void);
/* WORKING, STANDBY, else 7: arm a wake-up gesture (keeps scanning when the
 * screen goes off; no firmware update on start while armed). */
KVR_AFE_API uint32_t kvr_afe_enable_wakeup_gesture(uint32_t gesture);
/* WORKING, STANDBY, else 7: disarm the wake-up gesture. */
KVR_AFE_API uint32_t kvr_afe_disable_wakeup_gesture(void);
/* floor(sqrt(x)) for every 32-bit x. */
KVR_AFE_API uint16_t sqrt32(uint32_t x);

/* ---- Deprecated: any state, log one line, return 0 --------------------- */

KVR_AFE_API uint32_t kvr_afe_reset_freq_state(void);
KVR_AFE_API uint32_t kvr_afe_set_freq_point_min_hold_time(uint16_t ms);
KVR_AFE_API uint32_t kvr_afe_set_idle_scan_rate(uint8_t rate);
KVR_AFE_API uint32_t kvr_afe_start_freq_shift(void);
KVR_AFE_API uint32_t kvr_afe_set_wakeup_gesture_scan_rate(uint8_t rate);

/* ---- Factory inspection ------------------------------------------------ */

/* PREWORKING, WORKING: run the whole inspection. INSPECT_FAIL_* mask,
 * 128 when the IC could not be started, KVR_AFE_INSPECT_REFUSED when
 * refused. */
KVR_AFE_API uint32_t kvr_afe_inspect(void);
/* Result buffers of the last inspection (static, any state). Grid buffers
 * hold 3000 entries, line buffers 300. */
KVR_AFE_API uint16_t *kvr_afe_get_inspect_grid_data(void);
KVR_AFE_API uint16_t *kvr_afe_get_inspect_line_data(void);
KVR_AFE_API uint16_t *kvr_afe_get_inspect_noise(void);
KVR_AFE_API uint16_t *kvr_afe_get_inspect_calib_grid_data(void);
KVR_AFE_API uint16_t *kvr_afe_get_inspect_calib_line_data(void);

#ifdef __cplusplus
}
#endif

#endif /* AFEHAL_AFEHAL_H */
