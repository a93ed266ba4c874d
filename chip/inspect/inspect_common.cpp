// What the inspection tests share: the attempt-and-retry rule, the limits
// look-up, the mode commands and the writing of frames into the result
// buffers.
#include <array>

#include "chip/inspect/checks.h"
#include "chip/inspect/inspect.h"
#include "chip/inspect/inspect_tests.h"
#include "chip/ops/lifecycle.h"
#include "chip/transport/fw_cmd.h"
#include "platform/log.h"

namespace {

constexpr uint32_t kModeTimeoutMs = 100;
constexpr std::array<uint8_t, 3> kFactoryMode = {0xC0, 0x01, 0x02};
constexpr std::array<uint8_t, 3> kScanLock = {0xA0, 0x03, 0x00};

} // namespace

limit_set::~limit_set() {
  for (auto &record : records_) {
    clean_test_limit_data(&record);
  }
}

uint32_t limit_set::look_up(const char *tag, const char *limits, const char *const *labels,
                            const char *const *missing_messages, size_t count) {
  for (size_t i = 0; i < count && i < kMax; ++i) {
    if (parse_limits_file(limits, limit_file_size, labels[i], &records_[i]) != TEST_LIMIT_OK) {
      log_error(tag, "%s", missing_messages[i]);
      return INSPECT_TEST_LIMITS_MISSING;
    }
  }
  return INSPECT_TEST_OK;
}

uint32_t attempt_with_retry(const char *tag, const char *retry_message, inspect_attempt_fn attempt,
                            void *context) {
  for (int round = 1;; ++round) {
    bool final = false;
    const uint32_t result = attempt(context, &final);
    if (final) {
      return result;
    }
    // Asked after every attempt: a dead firmware is only ever found here.
    const bool alive = is_fw_alive() != 0;
    if (round == 2 || result == INSPECT_TEST_OK || alive) {
      return result;
    }
    if (system_reset(RESET_WAIT_READY) != FW_OK) {
      log_error(tag, "Error while system resetting");
      return INSPECT_TEST_STEP_FAILED;
    }
    log_error(tag, "%s", retry_message);
  }
}

bool limits_cover(const char *tag, const test_limit_data &limits, uint32_t rows, uint32_t cols) {
  if (test_limit_covers(&limits, rows, cols)) {
    return true;
  }
  log_error(tag, "Limits %s hold %u x %u values, fewer than %u x %u", limits.label, limits.rows,
            limits.cols, rows, cols);
  return false;
}

void store_line(const char *tag, uint16_t *dest, const int16_t *force, uint8_t force_len,
                const int16_t *sense, uint8_t sense_len, const char *force_heading,
                const char *sense_heading) {
  // The x-line (the channels numbering the output's columns) comes first.
  if (is_frame_swap()) {
    NLOG(LOG_LEVEL_INFO, tag, "%s", force_heading);
    swap_orientation_output(force, dest, force_len, 1);
    NLOG(LOG_LEVEL_INFO, tag, "%s", sense_heading);
    swap_orientation_output(sense, dest + force_len, 1, sense_len);
  } else {
    NLOG(LOG_LEVEL_INFO, tag, "%s", sense_heading);
    swap_orientation_output(sense, dest, 1, sense_len);
    NLOG(LOG_LEVEL_INFO, tag, "%s", force_heading);
    swap_orientation_output(force, dest + sense_len, force_len, 1);
  }
}

void store_raw_frame(const char *tag, const mutual_frame &ms, const self_frame &ss) {
  const uint32_t nodes = uint32_t{ms.force_len} * ms.sense_len;
  const uint32_t channels = uint32_t{ss.force_len} + ss.sense_len;
  // The readers refuse larger frames; this keeps the buffers safe whatever
  // they hand over.
  if (nodes > INSPECT_GRID_SIZE || channels > INSPECT_LINE_SIZE) {
    log_error(tag, "Impossible frame size %u nodes, %u channels", nodes, channels);
    return;
  }
  NLOG(LOG_LEVEL_INFO, tag, "Mutual Raw Data: ");
  swap_orientation_output(ms.data, inspect_grid_data.data(), ms.force_len, ms.sense_len);
  for (uint32_t i = 0; i < nodes; ++i) {
    inspect_grid_data[i] ^= INSPECT_DEFAULT_VALUE;
  }
  store_line(tag, inspect_line_data.data(), ss.force_data, ss.force_len, ss.sense_data,
             ss.sense_len, "Self Force Data: ", "Self Sense Data: ");
  for (uint32_t i = 0; i < channels; ++i) {
    inspect_line_data[i] ^= INSPECT_DEFAULT_VALUE;
  }
}

uint32_t send_command(const uint8_t *command, int32_t length, uint32_t timeout_ms) {
  return fw_write(command, length, timeout_ms);
}

uint32_t enter_factory_mode() {
  return send_command(kFactoryMode.data(), kFactoryMode.size(), kModeTimeoutMs);
}

uint32_t lock_scan() {
  return send_command(kScanLock.data(), kScanLock.size(), kModeTimeoutMs);
}
