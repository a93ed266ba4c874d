// The chip operations the frame thread runs between frames: idle entry and
// exit, the idle frame interval, status acknowledgement, calibration,
// autotune, the parameter sync hook, and the diagnosis after a frame
// time-out, which escalates to SOS when the time-outs keep coming.
#include "chip/ops/idle_calib.h"

#include <cstdint>

#include "chip/chip.h"
#include "chip/ops/frame_parse.h"
#include "chip/ops/lifecycle.h"
#include "chip/transport/fw_cmd.h"
#include "chip/transport/host_data.h"
#include "chip/transport/reg_access.h"
#include "platform/ioctrl.h"
#include "platform/log.h"
#include "platform/os.h"

calib_data_ops autotune_ops;

namespace {

constexpr uint8_t CMD_ENTER_IDLE[] = {0xA0, 0x03, 0x02};
constexpr uint32_t ENTER_IDLE_TIMEOUT_MS = 100;
constexpr uint8_t CMD_CALIBRATION[] = {0xC0, 0x02};
constexpr uint32_t CALIBRATION_TIMEOUT_MS = 300;
constexpr uint8_t CMD_AUTOTUNE[] = {0xA4, 0x00, 0x03};
constexpr uint32_t AUTOTUNE_TIMEOUT_MS = 5000;
constexpr uint8_t CMD_SAVE_CX[] = {0xA4, 0x05, 0x02};
constexpr uint32_t SAVE_CX_TIMEOUT_MS = 3000;
// Asks the firmware whether it is producing frames; answered by event 43 09.
constexpr uint8_t CMD_FRAME_STATUS[] = {0xC0, 0x07};
constexpr uint32_t FRAME_STATUS_TIMEOUT_MS = 1000;

// Configuration space: the frame rate, and the idle interval in frames.
constexpr uint32_t CFG_FRAME_RATE = 0x0087;
constexpr uint32_t CFG_IDLE_INTERVAL = 0x0042;

constexpr uint32_t CHIP_ID_ADDRESS = 0x20000000;
constexpr uint32_t CHIP_ID_SIZE = 8;
// Frame time-outs in a row after which the IC is reset.
constexpr uint32_t ETIMEOUT_SOS_THRESHOLD = 3;

constexpr uint32_t AUTOTUNE_SETTLE_US = 100 * 1000;

} // namespace

bool vendor_enter_idle() {
  if (fw_write(CMD_ENTER_IDLE, sizeof CMD_ENTER_IDLE, ENTER_IDLE_TIMEOUT_MS) != FW_OK) {
    log_error("vendor_enter_idle", "Entering idle mode failed");
    return false;
  }
  // Idle frames come far apart; the driver must wait longer for them.
  ioctrl_set_timeout(KVR_TIMEOUT_IDLE_MS);
  return true;
}

bool vendor_exit_idle() {
  if (zeno_sense_on() != FW_OK) {
    return false;
  }
  work_parm[WP_AUTO_SHIFT_DISABLED].store(0);
  ioctrl_set_timeout(KVR_TIMEOUT_SCANNING_MS);
  return true;
}

bool vendor_reset_idle_baseline() {
  return true;
}

bool vendor_idle_threshold() {
  return true;
}

bool vendor_idle_update_interval(uint32_t interval) {
  constexpr const char *tag = "vendor_idle_update_interval";
  uint8_t frame_rate = 0;
  if (fw_cfg_read_at(CFG_FRAME_RATE, &frame_rate, 1) != 0) {
    log_error(tag, "Error reading the config data");
    return false;
  }
  NLOG(LOG_LEVEL_INFO, tag, "Frame rate: %02X", frame_rate);
  // The firmware counts the interval in frames of its configured rate.
  const auto frames = static_cast<uint8_t>(frame_rate == 0 ? 0 : (interval * 10) / frame_rate);
  if (fw_cfg_write_at(CFG_IDLE_INTERVAL, &frames, 1) != 0) {
    log_error(tag, "Error reading the config data");
    return false;
  }
  return true;
}

uint32_t vendor_clear_status(uint32_t bits) {
  NLOG(LOG_LEVEL_INFO, "vendor_clear_status", "Clear status %08X", bits);
  // One acknowledgement per call, calibration first.
  if ((bits & KVR_AFE_STATUS_CALIBRATION_DONE) != 0) {
    calibration_done.store(0);
  } else if ((bits & KVR_AFE_STATUS_SHIFT_DONE) != 0) {
    work_parm_request[WP_FREQ_INDEX].store(WORK_PARM_NO_REQUEST);
    work_parm_request[WP_RATE_INDEX].store(WORK_PARM_NO_REQUEST);
  }
  return 0;
}

void vendor_set_calib_data_callback_func(kvr_afe_calib_data_func function,
                                         kvr_afe_calib_data_func context) {
  NLOG(LOG_LEVEL_INFO, "vendor_set_calib_data_callback_func", "only write has been used");
  autotune_ops.function.store(function);
  autotune_ops.context.store(context);
}

bool vendor_calibration() {
  constexpr const char *tag = "vendor_calibration";
  NLOG(LOG_LEVEL_INFO, tag, "Send command for FW to get the MRN raw and calculate offset");
  if (fw_write(CMD_CALIBRATION, sizeof CMD_CALIBRATION, CALIBRATION_TIMEOUT_MS) != FW_OK) {
    log_error(tag, "Unable to get MRN raw and calculate offset");
    return false;
  }
  calibration_done.store(1);
  recal_request.store(0);
  return true;
}

bool vendor_autotune() {
  constexpr const char *tag = "vendor_autotune";
  NLOG(LOG_LEVEL_INFO, tag, "System reset..");
  if (system_reset(RESET_WAIT_READY) != FW_OK) {
    return false;
  }
  log_error(tag, "Autotune..");
  if (fw_write(CMD_AUTOTUNE, sizeof CMD_AUTOTUNE, AUTOTUNE_TIMEOUT_MS) != FW_OK) {
    // The compensation found so far is still worth keeping.
    log_error(tag, "Unable to do autotune... try to save CX anyway");
    if (fw_write(CMD_SAVE_CX, sizeof CMD_SAVE_CX, SAVE_CX_TIMEOUT_MS) != FW_OK) {
      log_error(tag, "Unable to save CX..");
      return false;
    }
  }
  if (read_chip_info(&info) != 0) {
    log_error(tag, "Unable to read the sys info..");
    return false;
  }
  // Scanning resumes; a failure here shows up as missing frames instead.
  if (zeno_sense_on() == FW_OK) {
    work_parm[WP_AUTO_SHIFT_DISABLED].store(0);
  }
  os().usleep(AUTOTUNE_SETTLE_US);
  return true;
}

void vendor_cmds_sync() {
  if (m_need_update_param.load() != 0) {
    m_need_update_param.store(0);
  }
}

uint32_t vendor_print_ic_debug_info() {
  constexpr const char *tag = "vendor_print_ic_debug_info";
  uint8_t id[CHIP_ID_SIZE] = {};
  if (quillon_read_at(CHIP_ID_ADDRESS, id, CHIP_ID_SIZE) != 0) {
    log_error(tag, "SPI is not working!!");
  }
  log_error(tag, "SPI Communication working!! Chip ID: %02X %02X %02X %02X %02X %02X %02X %02X\n",
            id[0], id[1], id[2], id[3], id[4], id[5], id[6], id[7]);

  if (is_fw_alive() == 0) {
    // A dead firmware has already raised the SOS; start counting afresh.
    etimeout_cnt.store(0);
    return 0;
  }

  if (quillon_write(CMD_FRAME_STATUS, sizeof CMD_FRAME_STATUS) != 0) {
    log_error(tag, "Error writing the KVR frame status checking command");
  }
  // The answer (frames produced or not) is logged by the poll itself.
  uint8_t frame_status[EVENT_SIZE] = {};
  fifo_event_poll(frame_status, 0, POLL_FRAME_STATUS, FRAME_STATUS_TIMEOUT_MS);

  if (etimeout_cnt.load() >= ETIMEOUT_SOS_THRESHOLD) {
    log_error(tag, "ETimeout occurred twice.. triggerring SOS!!");
    etimeout_cnt.store(0);
    set_sos_flag(1);
  }

  chip_info scratch{};
  const uint32_t result = read_chip_info(&scratch);
  if (result != 0) {
    log_error(tag, "Couldnt read chip info.. Could be FW issue!!");
  }
  return result;
}

void idle_calib_reset_state() {
  autotune_ops.function.store(nullptr);
  autotune_ops.context.store(nullptr);
  calibration_done.store(0);
  recal_request.store(0);
}
