// The deferred command queue. The control thread only records a request (a
// pending flag and, where needed, a parameter); the frame thread carries the
// pending commands out between two frames (kvr_afe_get_frame), in table
// order, and keeps a command pending when the chip side reports a failure.
//
// Flags and parameters are written by the control thread and read and
// cleared by the frame thread without a lock, so every shared word is an
// atomic of its own width.
#include <array>
#include <atomic>
#include <cstdint>

#include "afe/afe.h"
#include "chip/chip.h"
#include "platform/export.h"
#include "platform/log.h"

// Command indices; the index is also the execution order of a full pass.
enum CMD_EXCUTE_ORDER : uint32_t {
  CMD_CLEAR_STATUS = 0,
  CMD_EXIT_IDLE = 1,
  CMD_CALIBRATION = 2,
  CMD_AUTOTUNE = 3,
  CMD_ENABLE_FREQ_SHIFT = 4,
  CMD_DISABLE_FREQ_SHIFT = 5,
  CMD_FORCE_FREQ_POINT = 6,
  CMD_FORCE_SCAN_RATE = 7,
  CMD_IDLE_THRESHOLD = 8,
  CMD_IDLE_UPDATE_INTERVAL = 9,
  CMD_IDLE_RESET_BASELINE = 10,
  CMD_ENTER_IDLE = 11,
  CMD_MAX = 12
};
static_assert(sizeof(enum CMD_EXCUTE_ORDER) == sizeof(uint32_t));

// Exported with the interface; nothing reads or writes it. (The braced
// linkage block makes this a definition.)
extern "C" {
__attribute__((visibility("default"))) enum CMD_EXCUTE_ORDER CMD_EXCUTE_ORDER = CMD_CLEAR_STATUS;
}

using cmd_callback = void (*)();

// Parameters of the queued commands.
struct cmd_parm {
  // 1 once the caller cleared status 0x100, 0 after entering idle.
  std::atomic<uint8_t> idle_baseline_reset_cleared;
  // 1 from a successful calibration until the caller clears status 8.
  std::atomic<uint8_t> calibration_handling;
  // 1 from an accepted autotune request until its callback has run.
  std::atomic<uint8_t> autotune_handling;
  // Status bits still to be cleared (accumulated).
  std::atomic<uint32_t> clear_status_bits;
  std::atomic<uint32_t> freq_point;
  std::atomic<uint32_t> scan_rate;
  std::atomic<uint32_t> idle_threshold;
  std::atomic<uint32_t> idle_update_interval;
};

AFEHAL_EXPORT void callback_clear_status();
AFEHAL_EXPORT void callback_exit_idle();
AFEHAL_EXPORT void callback_calibration();
AFEHAL_EXPORT void callback_autotune();
AFEHAL_EXPORT void callback_enable_freq_shift();
AFEHAL_EXPORT void callback_disable_freq_shift();
AFEHAL_EXPORT void callback_force_freq_point();
AFEHAL_EXPORT void callback_force_scan_rate();
AFEHAL_EXPORT void callback_idle_threshold();
AFEHAL_EXPORT void callback_idle_update_interval();
AFEHAL_EXPORT void callback_idle_reset_baseline();
AFEHAL_EXPORT void callback_enter_idle();

namespace {

// The callbacks in index order: what cmd_init installs into m_cmds.
constexpr std::array<cmd_callback, CMD_MAX> kCallbacks = {
    callback_clear_status,        callback_exit_idle,
    callback_calibration,         callback_autotune,
    callback_enable_freq_shift,   callback_disable_freq_shift,
    callback_force_freq_point,    callback_force_scan_rate,
    callback_idle_threshold,      callback_idle_update_interval,
    callback_idle_reset_baseline, callback_enter_idle};

} // namespace

// Empty until the first cmd_init (start or screen-on); a pass skips an
// empty slot.
std::atomic<cmd_callback> m_cmds[CMD_MAX];
std::atomic<uint8_t> m_cmd_flag[CMD_MAX];
std::atomic<uint8_t> m_need_redo;
cmd_parm m_parm;

namespace {

void set_flag(uint32_t index) {
  m_cmd_flag[index].store(1);
}

// Runs command index if it is pending; it stays pending when its callback
// asked for a redo.
void run_command(uint32_t index) {
  if (m_cmd_flag[index].load() == 0) {
    return;
  }
  m_need_redo.store(0);
  if (cmd_callback callback = m_cmds[index].load()) {
    callback();
  }
  if (m_need_redo.load() == 0) {
    m_cmd_flag[index].store(0);
  }
}

void zero_flags_and_parameters() {
  for (auto &flag : m_cmd_flag) {
    flag.store(0);
  }
  m_parm.idle_baseline_reset_cleared.store(0);
  m_parm.calibration_handling.store(0);
  m_parm.autotune_handling.store(0);
  m_parm.clear_status_bits.store(0);
  m_parm.freq_point.store(0);
  m_parm.scan_rate.store(0);
  m_parm.idle_threshold.store(0);
  m_parm.idle_update_interval.store(0);
}

void redo() {
  m_need_redo.store(1);
}

} // namespace

// ---- Table, reset, handler --------------------------------------------------

void cmd_reset_flag() {
  NLOG(LOG_LEVEL_INFO, "cmd_reset_flag", "Reset all command flags and parameters to 0");
  zero_flags_and_parameters();
}

void cmd_init() {
  for (uint32_t i = 0; i < CMD_MAX; ++i) {
    m_cmds[i].store(kCallbacks[i]);
  }
  cmd_reset_flag();
}

void cmd_handler(int32_t index) {
  if (index < 0) {
    // Each flag is read just before its turn: a command queued by the
    // control thread during the pass still runs in this pass if its turn has
    // not come yet.
    for (uint32_t i = 0; i < CMD_MAX; ++i) {
      run_command(i);
    }
    vendor_cmds_sync();
  } else if (index < static_cast<int32_t>(CMD_MAX)) {
    run_command(static_cast<uint32_t>(index));
  }
}

// ---- Queuing -------------------------------------------------------------------

AFEHAL_EXPORT void cmd_add_clear_status(uint32_t bits) {
  if (bits == KVR_AFE_STATUS_CALIBRATION_DONE) {
    NLOG(LOG_LEVEL_INFO, __func__, "KVR_AFE_STATUS_CALIBRATION_DONE");
    m_parm.calibration_handling.store(0);
  } else if (bits == KVR_AFE_STATUS_IDLE_BASELINE_RESET_DONE) {
    NLOG(LOG_LEVEL_INFO, __func__, "KVR_AFE_STATUS_IDLE_BASELINE_RESET_DONE");
    m_parm.idle_baseline_reset_cleared.store(1);
  } else {
    // Combined values (0x108) land here and do not release a calibration.
    NLOG(LOG_LEVEL_INFO, __func__, "Clear status %d", static_cast<int32_t>(bits));
  }
  m_parm.clear_status_bits.fetch_or(bits);
  set_flag(CMD_CLEAR_STATUS);
}

AFEHAL_EXPORT void cmd_add_exit_idle() {
  set_flag(CMD_EXIT_IDLE);
  // Leaving idle cancels an idle entry that has not run yet.
  m_cmd_flag[CMD_ENTER_IDLE].store(0);
}

AFEHAL_EXPORT void cmd_add_calibration() {
  if (m_parm.calibration_handling.load() != 0) {
    return;
  }
  set_flag(CMD_CALIBRATION);
  NLOG(LOG_LEVEL_INFO, __func__, "Add calibration to command");
}

AFEHAL_EXPORT void cmd_add_autotune() {
  if (m_parm.autotune_handling.load() != 0) {
    return;
  }
  set_flag(CMD_AUTOTUNE);
  m_parm.autotune_handling.store(1);
  NLOG(LOG_LEVEL_INFO, __func__, "Add autotune to command");
}

AFEHAL_EXPORT void cmd_add_enable_freq_shift() {
  set_flag(CMD_ENABLE_FREQ_SHIFT);
}

AFEHAL_EXPORT void cmd_add_disable_freq_shift() {
  set_flag(CMD_DISABLE_FREQ_SHIFT);
}

AFEHAL_EXPORT void cmd_add_force_freq_point(uint32_t index) {
  m_parm.freq_point.store(index);
  set_flag(CMD_FORCE_FREQ_POINT);
}

AFEHAL_EXPORT void cmd_add_force_scan_rate(uint32_t index) {
  m_parm.scan_rate.store(index);
  set_flag(CMD_FORCE_SCAN_RATE);
}

AFEHAL_EXPORT void cmd_add_idle_threshold(uint32_t value) {
  const uint32_t existing = m_parm.idle_threshold.load();
  NLOG(LOG_LEVEL_INFO, __func__, "expec: %d existing: %d", static_cast<int32_t>(value),
       static_cast<int32_t>(existing));
  if (value == existing) {
    NLOG(LOG_LEVEL_INFO, __func__, "skip setting");
    return;
  }
  m_parm.idle_threshold.store(value);
  set_flag(CMD_IDLE_THRESHOLD);
}

AFEHAL_EXPORT void cmd_add_idle_update_interval(uint32_t value) {
  const uint32_t existing = m_parm.idle_update_interval.load();
  NLOG(LOG_LEVEL_INFO, __func__, "expec: %d existing: %d", static_cast<int32_t>(value),
       static_cast<int32_t>(existing));
  if (value == existing) {
    NLOG(LOG_LEVEL_INFO, __func__, "skip setting");
    return;
  }
  m_parm.idle_update_interval.store(value);
  set_flag(CMD_IDLE_UPDATE_INTERVAL);
}

AFEHAL_EXPORT void cmd_add_idle_reset_baseline() {
  set_flag(CMD_IDLE_RESET_BASELINE);
}

AFEHAL_EXPORT void cmd_add_enter_idle() {
  // A pending exit is left alone: it comes first in the pass.
  set_flag(CMD_ENTER_IDLE);
}

// ---- Callbacks (frame thread) ----------------------------------------------------

void callback_clear_status() {
  const uint32_t remaining = vendor_clear_status(m_parm.clear_status_bits.load());
  m_parm.clear_status_bits.store(remaining);
  if (remaining != 0) {
    redo();
  }
}

void callback_exit_idle() {
  if (!is_enable_idle_mode()) {
    NLOG(LOG_LEVEL_INFO, __func__, "skip setting");
    return;
  }
  if (!vendor_exit_idle()) {
    redo();
  }
}

void callback_calibration() {
  if (!is_enable_calibration()) {
    NLOG(LOG_LEVEL_INFO, __func__, "skip setting");
    return;
  }
  // A calibration supersedes everything else that is pending, and the
  // stored parameters no longer describe the chip: the rest of this pass
  // finds nothing to do.
  cmd_reset_flag();
  log_error(__func__, "IC is running in normalize");
  if (vendor_calibration()) {
    m_parm.calibration_handling.store(1);
    NLOG(LOG_LEVEL_INFO, __func__, "Calibration success, set calibration_handling = true");
  } else {
    set_flag(CMD_CALIBRATION);
    redo();
    log_error(__func__, "Calibration failed, redo");
  }
}

void callback_autotune() {
  if (is_enable_autotune()) {
    if (!vendor_autotune()) {
      // autotune_handling stays set: no new request until this one is done.
      redo();
      return;
    }
  } else {
    NLOG(LOG_LEVEL_INFO, __func__, "skip autotune");
  }
  m_parm.autotune_handling.store(0);
}

void callback_enable_freq_shift() {
  if (!is_enable_freq_switch()) {
    NLOG(LOG_LEVEL_INFO, __func__, "skip setting");
    return;
  }
  if (!vendor_enable_freq_shift(true)) {
    redo();
  }
}

void callback_disable_freq_shift() {
  if (!is_enable_freq_switch()) {
    NLOG(LOG_LEVEL_INFO, __func__, "skip setting");
    return;
  }
  if (!vendor_enable_freq_shift(false)) {
    redo();
  }
}

void callback_force_freq_point() {
  if (!is_enable_freq_switch()) {
    NLOG(LOG_LEVEL_INFO, __func__, "skip setting");
    return;
  }
  if (!vendor_force_freq_point(m_parm.freq_point.load())) {
    log_error(__func__, "Set frequency failed, redo");
    redo();
  }
}

void callback_force_scan_rate() {
  if (!is_enable_freq_switch()) {
    NLOG(LOG_LEVEL_INFO, __func__, "skip setting");
    return;
  }
  if (!vendor_force_scan_rate(m_parm.scan_rate.load())) {
    log_error(__func__, "Set scan rate failed, redo");
    redo();
  }
}

// This IC has no idle touch threshold: the value is only recorded.
void callback_idle_threshold() {}

void callback_idle_update_interval() {
  if (!is_enable_idle_mode()) {
    NLOG(LOG_LEVEL_INFO, __func__, "skip setting");
    return;
  }
  if (!vendor_idle_update_interval(m_parm.idle_update_interval.load())) {
    redo();
  }
}

// This IC resets its idle baseline by itself.
void callback_idle_reset_baseline() {}

void callback_enter_idle() {
  if (!is_enable_idle_mode()) {
    NLOG(LOG_LEVEL_INFO, __func__, "skip setting");
    return;
  }
  if (vendor_enter_idle()) {
    m_parm.idle_baseline_reset_cleared.store(0);
  } else {
    redo();
  }
}

// ---- Entry points (control thread) ---------------------------------------------

namespace {

// The common front of the queued entry points: "IN", then the WORKING check.
bool queued_call_allowed(const char *tag) {
  NLOG(LOG_LEVEL_ENTRY, tag, "IN");
  return afe_state_allows(MASK_WORKING, tag);
}

} // namespace

uint32_t kvr_afe_enable_freq_shift() {
  if (!queued_call_allowed(__func__)) {
    return KVR_AFE_ERR_STATE;
  }
  cmd_add_enable_freq_shift();
  return KVR_AFE_OK;
}

uint32_t kvr_afe_disable_freq_shift() {
  if (!queued_call_allowed(__func__)) {
    return KVR_AFE_ERR_STATE;
  }
  cmd_add_disable_freq_shift();
  return KVR_AFE_OK;
}

uint32_t kvr_afe_start_calibration() {
  NLOG(LOG_LEVEL_INFO, __func__, "Send start calibration command");
  if (!queued_call_allowed(__func__)) {
    return KVR_AFE_ERR_STATE;
  }
  cmd_add_calibration();
  return KVR_AFE_OK;
}

uint32_t kvr_afe_start_autotune() {
  NLOG(LOG_LEVEL_INFO, __func__, "Send start autotune command");
  if (!queued_call_allowed(__func__)) {
    return KVR_AFE_ERR_STATE;
  }
  cmd_add_autotune();
  return KVR_AFE_OK;
}

uint32_t kvr_afe_clear_status(uint32_t bits) {
  if (!queued_call_allowed(__func__)) {
    return KVR_AFE_ERR_STATE;
  }
  cmd_add_clear_status(bits);
  return KVR_AFE_OK;
}

uint32_t kvr_afe_set_baseline_update_interval(uint16_t value) {
  if (!queued_call_allowed(__func__)) {
    return KVR_AFE_ERR_STATE;
  }
  cmd_add_idle_update_interval(value);
  return KVR_AFE_OK;
}

uint32_t kvr_afe_set_idle_touch_threshold(uint16_t value) {
  if (!queued_call_allowed(__func__)) {
    return KVR_AFE_ERR_STATE;
  }
  cmd_add_idle_threshold(value);
  return KVR_AFE_OK;
}

// The idle and forcing calls refuse with 7 where the others refuse with 4;
// callers rely on the distinction, so it stays.

uint32_t kvr_afe_reset_idle_baseline() {
  NLOG(LOG_LEVEL_INFO, __func__, "Send reset idle baseline command");
  if (!queued_call_allowed(__func__)) {
    return KVR_AFE_ERR_STATE_OR_ARG;
  }
  cmd_add_idle_reset_baseline();
  return KVR_AFE_OK;
}

uint32_t kvr_afe_enter_idle() {
  NLOG(LOG_LEVEL_INFO, __func__, "Send enter idle command");
  if (!queued_call_allowed(__func__)) {
    return KVR_AFE_ERR_STATE_OR_ARG;
  }
  cmd_add_enter_idle();
  return KVR_AFE_OK;
}

uint32_t kvr_afe_force_exit_idle() {
  NLOG(LOG_LEVEL_INFO, __func__, "Send force exit idle command");
  if (!queued_call_allowed(__func__)) {
    return KVR_AFE_ERR_STATE_OR_ARG;
  }
  cmd_add_exit_idle();
  return KVR_AFE_OK;
}

uint32_t kvr_afe_force_to_freq_point(uint8_t index) {
  NLOG(LOG_LEVEL_INFO, __func__, "Send force freq point command %d", index);
  if (!queued_call_allowed(__func__)) {
    return KVR_AFE_ERR_STATE_OR_ARG;
  }
  cmd_add_force_freq_point(index);
  return KVR_AFE_OK;
}

uint32_t kvr_afe_force_to_scan_rate(uint8_t index) {
  NLOG(LOG_LEVEL_INFO, __func__, "Send force scan rate command %d", index);
  if (!queued_call_allowed(__func__)) {
    return KVR_AFE_ERR_STATE_OR_ARG;
  }
  cmd_add_force_scan_rate(index);
  return KVR_AFE_OK;
}

uint32_t kvr_afe_set_calib_data_callback_func(kvr_afe_calib_data_func first_func,
                                              kvr_afe_calib_data_func second_func) {
  NLOG(LOG_LEVEL_ENTRY, __func__, "only write has been used");
  vendor_set_calib_data_callback_func(first_func, second_func);
  return KVR_AFE_OK;
}
