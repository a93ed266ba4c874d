// The inspection entry points: the state rule and the driver's frame-wait
// time-out around the run; the run itself and its buffers are the chip
// side's.
#include "afe/afe.h"
#include "chip/chip.h"
#include "platform/ioctrl.h"
#include "platform/log.h"

uint32_t kvr_afe_inspect() {
  NLOG(LOG_LEVEL_ENTRY, __func__, "IN");
  if (!afe_state_allows(MASK_PREWORKING | MASK_WORKING, __func__)) {
    return KVR_AFE_INSPECT_REFUSED;
  }
  if (gu32AFEStatus.load() == KVR_STATE_PREWORKING) {
    // The IC is started for the run but the state stays PREWORKING: an
    // inspection never enters WORKING.
    NLOG(LOG_LEVEL_INFO, __func__, "Inspect is preworking status");
    if (vendor_afe_start() != 0) {
      return KVR_AFE_INSPECT_NOT_STARTED;
    }
  }
  // The diagnostic scans need a long frame wait; afterwards the normal one
  // applies whatever was set before.
  ioctrl_set_timeout(KVR_TIMEOUT_INSPECT_MS);
  const uint32_t result = vendor_afe_inspect();
  ioctrl_set_timeout(KVR_TIMEOUT_SCANNING_MS);
  // Logged as an error so that the verdict is always visible.
  log_error(__func__, "Inspect = %08X", result);
  NLOG(LOG_LEVEL_ENTRY, __func__, "OUT");
  return result;
}

namespace {

uint16_t *inspect_getter(const char *tag, uint16_t *(*vendor_getter)(), const char *text) {
  NLOG(LOG_LEVEL_ENTRY, tag, "IN");
  uint16_t *buffer = vendor_getter();
  log_error(tag, "%s", text);
  NLOG(LOG_LEVEL_ENTRY, tag, "OUT");
  return buffer;
}

} // namespace

uint16_t *kvr_afe_get_inspect_grid_data() {
  return inspect_getter(__func__, vendor_afe_get_inspect_grid_data, "Get inspect_grid_data.");
}

uint16_t *kvr_afe_get_inspect_line_data() {
  return inspect_getter(__func__, vendor_afe_get_inspect_line_data, "Get inspect_line_data.");
}

uint16_t *kvr_afe_get_inspect_noise() {
  return inspect_getter(__func__, vendor_afe_get_inspect_noise, "Get inspect_noise.");
}

uint16_t *kvr_afe_get_inspect_calib_grid_data() {
  return inspect_getter(__func__, vendor_afe_get_inspect_calib_grid_data,
                        "Get inspect_calib_grid_data.");
}

uint16_t *kvr_afe_get_inspect_calib_line_data() {
  return inspect_getter(__func__, vendor_afe_get_inspect_calib_line_data,
                        "Get inspect_calib_line_data.");
}
