// The operations the AFE layer asks of the chip-specific layer. The AFE
// layer reaches the chip through these and nothing else.
#pragma once

#include <cstdint>

#include "afehal/afehal.h"
#include "platform/ioctrl.h"

// Lifecycle (chip/ops/lifecycle.cpp).
uint32_t vendor_open_project(const char *project); // NULL: default project
uint32_t vendor_afe_close();
uint32_t vendor_afe_start();     // 0 started, 3 sense-on failed
uint32_t vendor_afe_stop();      // 0 or 3
uint32_t vendor_afe_screen_on(); // 0, or 4 if start failed
uint32_t vendor_afe_screen_off();
const char *vendor_get_ic_name();
const char *vendor_get_ic_vendor_name();
const char *vendor_get_version();
// NULL when the channels or the frequency count cannot be read; a failed
// frequency-list read still gives the record, with no list.
kvr_hw_cap *vendor_update_hw_cap();
uint32_t vendor_afe_enable_wakeup_gesture(uint32_t gesture);
uint32_t vendor_afe_disable_wakeup_gesture();
bool is_enable_idle_mode();
bool is_enable_calibration();
bool is_enable_autotune();
bool is_enable_freq_switch();
void increment_etimeout_cnt();
void set_etimeout_cnt(uint32_t count);

// Firmware update (chip/firmware/fw_update.cpp).
uint32_t vendor_afe_upgrade_fw();

// SOS flag (chip/transport/fw_cmd.cpp).
void set_sos_flag(uint8_t value);

// Frames (chip/ops/frame_parse.cpp).
bool vendor_need_sos(); // true: the IC has just been reset
ioctrl_framedata *vendor_get_ioctrl_framedata();
bool vendor_parse_ioctrl_frame(ioctrl_framedata *req, kvr_frame_data *frame);
bool vendor_loop_get_frame();

// Idle, calibration, autotune, status (chip/ops/idle_calib.cpp).
uint32_t vendor_print_ic_debug_info();
uint32_t vendor_clear_status(uint32_t bits); // bits not yet cleared
bool vendor_enter_idle();
bool vendor_exit_idle();
bool vendor_idle_update_interval(uint32_t interval);
bool vendor_calibration();
bool vendor_autotune();
void vendor_cmds_sync();
void vendor_set_calib_data_callback_func(kvr_afe_calib_data_func function,
                                         kvr_afe_calib_data_func context);

// Frequency and scan rate (chip/ops/freq_rate.cpp).
bool vendor_enable_freq_shift(bool enable);
bool vendor_force_freq_point(uint32_t index);
bool vendor_force_scan_rate(uint32_t index);

// Inspection (chip/inspect/).
uint32_t vendor_afe_inspect();
uint16_t *vendor_afe_get_inspect_grid_data();
uint16_t *vendor_afe_get_inspect_line_data();
uint16_t *vendor_afe_get_inspect_noise();
uint16_t *vendor_afe_get_inspect_calib_grid_data();
uint16_t *vendor_afe_get_inspect_calib_line_data();

// Restores the whole vendor layer's load-time state (tests only).
void vendor_reset_state();
// Per-module parts of vendor_reset_state.
void transport_reset_state();   // chip/transport
void lifecycle_reset_state();   // chip/ops/lifecycle.cpp
void frame_parse_reset_state(); // chip/ops/frame_parse.cpp
void idle_calib_reset_state();  // chip/ops/idle_calib.cpp and freq_rate.cpp
void inspect_reset_state();     // chip/inspect
