// The state word, the state check every entry point makes, and the
// lifecycle, information, logging and version entry points.
#include <cstring>

#include "afe/afe.h"
#include "chip/chip.h"
#include "platform/ioctrl.h"
#include "platform/log.h"

std::atomic<uint32_t> gu32AFEStatus{KVR_STATE_CLOSED};
std::atomic<uint8_t> wakeup_gesture{0};

namespace {

kvr_afe_info afe_info;

constexpr uint32_t kMaskStartable = MASK_PREWORKING | MASK_WORKING;
constexpr uint32_t kMaskScreenOn = MASK_PREWORKING | MASK_WORKING | MASK_STANDBY;

// Interface version 1.19.0.
constexpr uint32_t kSpecMajor = 1;
constexpr uint32_t kSpecMinor = 19;
constexpr uint32_t kSpecPatch = 0;

void set_state(uint32_t state) {
  gu32AFEStatus.store(state, std::memory_order_release);
}

uint32_t open_with_project(const char *tag, const char *project) {
  NLOG(LOG_LEVEL_ENTRY, tag, "IN");
  if (!afe_state_allows(MASK_CLOSED, tag)) {
    return KVR_AFE_ERR_STATE;
  }
  const uint32_t opened = ioctrl_open();
  if (opened != 0) {
    log_error(tag, "Error opening ioctrl");
    return opened;
  }
  const uint32_t result = vendor_open_project(project);
  set_state(KVR_STATE_PREWORKING);
  NLOG(LOG_LEVEL_ENTRY, tag, "OUT");
  return result;
}

// strncpy semantics: at most 32 characters, the rest zero-filled, and no
// terminator when the source fills the whole field.
void copy_info_field(char (&field)[32], const char *source) {
  const size_t length = strnlen(source, sizeof field);
  memcpy(field, source, length);
  memset(field + length, 0, sizeof field - length);
}

// The whole of the TUI calls: the state check.
uint32_t tui_call(const char *tag) {
  NLOG(LOG_LEVEL_ENTRY, tag, "IN");
  if (!afe_state_allows(MASK_WORKING, tag)) {
    return KVR_AFE_ERR_STATE_OR_ARG;
  }
  NLOG(LOG_LEVEL_ENTRY, tag, "OUT");
  return KVR_AFE_OK;
}

} // namespace

const char *afe_status_to_str(int32_t state) {
  // Indexed by state - 1, so only 1, 2 and 4 land on their own names; 8 and
  // every other value fall back to the last name, which is STANDBY.
  static constexpr const char *kNames[] = {"KVR_STATE_CLOSED", "KVR_STATE_PREWORKING",
                                           "KVR_STATE_STANDBY", "KVR_STATE_WORKING"};
  if (state >= 1 && state <= 4) {
    return kNames[state - 1];
  }
  return "KVR_STATE_STANDBY";
}

bool is_state_not_standby() {
  return gu32AFEStatus.load(std::memory_order_acquire) != KVR_STATE_STANDBY;
}

bool afe_state_allows(uint32_t mask, const char *tag) {
  const uint32_t state = gu32AFEStatus.load(std::memory_order_acquire);
  if ((state & mask) != 0) {
    return true;
  }
  log_error(tag, "API can't be executed in this mode [%s].",
            afe_status_to_str(static_cast<int32_t>(state)));
  return false;
}

extern "C" {

KVR_AFE_API uint32_t kvr_afe_open(void) {
  return open_with_project("kvr_afe_open", nullptr);
}

KVR_AFE_API uint32_t kvr_afe_open_project(const char *project) {
  return open_with_project("kvr_afe_open_project", project);
}

KVR_AFE_API uint32_t kvr_afe_close(void) {
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_close", "IN");
  if (!afe_state_allows(MASK_PREWORKING, "kvr_afe_close")) {
    return KVR_AFE_ERR_STATE;
  }
  vendor_afe_close();
  ioctrl_close();
  set_state(KVR_STATE_CLOSED);
  NLOG(LOG_LEVEL_INFO, "kvr_afe_close", "Close node. AFE is closed.");
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_close", "OUT");
  return KVR_AFE_OK;
}

KVR_AFE_API uint32_t kvr_afe_screen_on(void) {
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_screen_on", "IN");
  if (!afe_state_allows(kMaskScreenOn, "kvr_afe_screen_on")) {
    return KVR_AFE_ERR_STATE;
  }
  ioctrl_clear_frame_buffer();
  const uint32_t result = vendor_afe_screen_on();
  if (ioctrl_set_block(1) != 0) {
    return KVR_AFE_ERR_STATE;
  }
  // The queue is reset before WORKING is published, so the frame thread
  // never runs a command that was queued before the screen went off.
  cmd_init();
  set_state(KVR_STATE_WORKING);
  set_sos_flag(0);
  NLOG(LOG_LEVEL_INFO, "kvr_afe_screen_on", "AFE Resume.");
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_screen_on", "OUT");
  return result;
}

KVR_AFE_API uint32_t kvr_afe_screen_off(void) {
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_screen_off", "IN");
  if (!afe_state_allows(MASK_WORKING, "kvr_afe_screen_off")) {
    return KVR_AFE_ERR_STATE;
  }
  // STANDBY is published before the blocking reads stop, so the frame
  // thread already treats a time-out as expected; it stays so on failure.
  set_state(KVR_STATE_STANDBY);
  if (ioctrl_set_block(0) != 0) {
    return KVR_AFE_ERR_STATE;
  }
  const uint32_t result = vendor_afe_screen_off();
  NLOG(LOG_LEVEL_INFO, "kvr_afe_screen_off", "AFE Suspend.");
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_screen_off", "OUT");
  return result;
}

KVR_AFE_API uint32_t kvr_afe_start(void) {
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_start", "IN");
  if (!afe_state_allows(kMaskStartable, "kvr_afe_start")) {
    return KVR_AFE_ERR_STATE;
  }
  ioctrl_set_block(1);
  ioctrl_clear_frame_buffer();
  // Every start brings the IC's firmware up to date, except while a wake-up
  // gesture is armed.
  if (wakeup_gesture.load() == 0) {
    vendor_afe_upgrade_fw();
  }
  const uint32_t result = vendor_afe_start();
  cmd_init();
  set_state(KVR_STATE_WORKING);
  set_sos_flag(0);
  NLOG(LOG_LEVEL_INFO, "kvr_afe_start", "AFE Start.");
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_start", "OUT");
  return result;
}

KVR_AFE_API uint32_t kvr_afe_stop(void) {
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_stop", "IN");
  if (!afe_state_allows(MASK_WORKING, "kvr_afe_stop")) {
    return KVR_AFE_ERR_STATE;
  }
  const uint32_t result = vendor_afe_stop();
  ioctrl_set_block(0);
  set_state(KVR_STATE_PREWORKING);
  NLOG(LOG_LEVEL_INFO, "kvr_afe_stop", "AFE Stop.");
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_stop", "OUT");
  return result;
}

KVR_AFE_API kvr_afe_info *kvr_afe_get_info(void) {
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_get_info", "IN");
  if (!afe_state_allows(MASK_WORKING, "kvr_afe_get_info")) {
    return nullptr;
  }
  copy_info_field(afe_info.ic_name, vendor_get_ic_name());
  copy_info_field(afe_info.vendor_name, vendor_get_ic_vendor_name());
  copy_info_field(afe_info.version, vendor_get_version());
  NLOG(LOG_LEVEL_INFO, "kvr_afe_get_info", "%.32s/%.32s/%.32s", afe_info.ic_name,
       afe_info.vendor_name, afe_info.version);
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_get_info", "OUT");
  return &afe_info;
}

KVR_AFE_API uint32_t kvr_afe_enter_tui(void) {
  return tui_call("kvr_afe_enter_tui");
}

KVR_AFE_API uint32_t kvr_afe_exit_tui(void) {
  return tui_call("kvr_afe_exit_tui");
}

KVR_AFE_API uint32_t kvr_afe_set_log_callback_func(kvr_afe_log_func cb) {
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_set_log_callback_func", "IN");
  if (cb == nullptr) {
    log_error("kvr_afe_set_log_callback_func", "callback log func is null.");
    return KVR_AFE_ERR_STATE_OR_ARG;
  }
  log_set_callback(cb);
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_set_log_callback_func", "OUT");
  return KVR_AFE_OK;
}

KVR_AFE_API uint32_t kvr_afe_set_log_level(uint8_t level) {
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_set_log_level", "IN");
  if (level >= 6) {
    log_error("kvr_afe_set_log_level", "log level <%d> is out of range.", level);
    return KVR_AFE_ERR_STATE_OR_ARG;
  }
  log_set_level(level);
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_set_log_level", "OUT");
  return KVR_AFE_OK;
}

KVR_AFE_API uint32_t kvr_afe_hal_spec_version(void) {
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_hal_spec_version", "IN_OUT");
  return (kSpecMajor << 16) | (kSpecMinor << 8) | kSpecPatch;
}

KVR_AFE_API uint32_t kvr_afe_hal_spec_major_version(void) {
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_hal_spec_major_version", "IN_OUT");
  return kSpecMajor;
}

KVR_AFE_API uint32_t kvr_afe_hal_spec_minor_version(void) {
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_hal_spec_minor_version", "IN_OUT");
  return kSpecMinor;
}

KVR_AFE_API uint32_t kvr_afe_hal_spec_patch_version(void) {
  NLOG(LOG_LEVEL_ENTRY, "kvr_afe_hal_spec_patch_version", "IN_OUT");
  return kSpecPatch;
}

} // extern "C"

void afe_reset_state() {
  set_state(KVR_STATE_CLOSED);
  wakeup_gesture.store(0);
  memset(&afe_info, 0, sizeof afe_info);
  memset(&frame_data, 0, sizeof frame_data);
  memset(&sos_frame_data, 0, sizeof sos_frame_data);
  cmd_init();
}
