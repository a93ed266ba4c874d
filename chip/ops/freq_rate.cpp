// Pinning the scan frequency and choosing the scan rate. A request is sent
// to the firmware and recorded in work_parm_request; the frames confirm it
// later (shift tracking in the frame parser) and the service acknowledges it
// by clearing status 0x04.
#include <cstdint>

#include "chip/chip.h"
#include "chip/ops/lifecycle.h"
#include "chip/transport/fw_cmd.h"
#include "platform/log.h"

namespace {

constexpr uint8_t CMD_FORCE_FREQ[] = {0xA0, 0x03};
constexpr uint8_t FORCE_FREQ_BASE = 0x04; // frequency point i is sent as 4 + i
constexpr uint32_t FORCE_FREQ_TIMEOUT_MS = 100;
constexpr uint8_t CMD_FORCE_RATE[] = {0xC0, 0x00};
constexpr uint32_t FORCE_RATE_TIMEOUT_MS = 50;

} // namespace

bool vendor_enable_freq_shift(bool /*enable*/) {
  // Nothing to send: automatic shift comes back with the next sense-on.
  return true;
}

bool vendor_force_freq_point(uint32_t index) {
  constexpr const char *tag = "vendor_force_freq_point";
  const uint8_t current = work_parm[WP_FREQ_INDEX].load();
  const uint8_t requested = work_parm_request[WP_FREQ_INDEX].load();
  const bool auto_shift_disabled = work_parm[WP_AUTO_SHIFT_DISABLED].load() != 0;
  const uint8_t count = cap_freq_count();
  log_error(tag,
            "current: %02X set: %02X expec: %02X, total %d frequencies, auto frequency shift is %s",
            current, requested, index, count, auto_shift_disabled ? "disabled" : "enabled");

  // While automatic shift is on, even the current point is sent again: the
  // command is what pins it.
  const bool due =
      ((index != current && index != requested) || !auto_shift_disabled) && index < count;
  if (!due) {
    log_error(tag, "skip setting force freq point");
    return true;
  }
  const uint8_t cmd[] = {CMD_FORCE_FREQ[0], CMD_FORCE_FREQ[1],
                         static_cast<uint8_t>(FORCE_FREQ_BASE + index)};
  if (fw_write(cmd, sizeof cmd, FORCE_FREQ_TIMEOUT_MS) != FW_OK) {
    log_error(tag, "Error setting force freq point %d", static_cast<int>(index));
    return false;
  }
  work_parm_request[WP_FREQ_INDEX].store(static_cast<uint8_t>(index));
  work_parm[WP_AUTO_SHIFT_DISABLED].store(1);
  return true;
}

bool vendor_force_scan_rate(uint32_t index) {
  constexpr const char *tag = "vendor_force_scan_rate";
  const auto rate = static_cast<uint8_t>(index);
  const uint8_t current = work_parm[WP_RATE_INDEX].load();
  const uint8_t requested = work_parm_request[WP_RATE_INDEX].load();
  log_error(tag, "current: %02X set: %02X expec: %02X", current, requested, rate);

  // Unlike the frequency, a rate that is already current is never re-sent.
  if (rate == current || rate == requested || rate >= cap_rate_count()) {
    log_error(tag, "skip setting force scan rate");
    return true;
  }
  const uint8_t cmd[] = {CMD_FORCE_RATE[0], CMD_FORCE_RATE[1], rate};
  if (fw_write(cmd, sizeof cmd, FORCE_RATE_TIMEOUT_MS) != FW_OK) {
    log_error(tag, "Error setting force scan rate");
    return false;
  }
  work_parm_request[WP_RATE_INDEX].store(rate);
  return true;
}
