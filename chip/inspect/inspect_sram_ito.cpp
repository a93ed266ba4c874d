// The SRAM test of the IC's memories and the ITO test of the panel's
// electrodes.
#include <array>

#include "chip/inspect/checks.h"
#include "chip/inspect/inspect.h"
#include "chip/inspect/inspect_tests.h"
#include "chip/transport/host_data.h"
#include "chip/transport/reg_access.h"
#include "platform/log.h"

namespace {

constexpr uint32_t kAutoReleaseAddress = 0x20000126;
constexpr uint32_t kHoldCoreAddress = 0x20000024;
constexpr uint32_t kDramAddress = 0x00100000;
constexpr uint32_t kDramSize = 0x8000;
constexpr uint32_t kFrameMemoryAddress = 0x20010000;
constexpr uint32_t kFrameMemorySize = 0x10000;
constexpr uint8_t kPatternA = 0xA5;
constexpr uint8_t kPatternB = 0x5A;

constexpr std::array<uint8_t, 4> kItoCheck = {0xA4, 0x04, 0xFF, 0x01};
constexpr uint32_t kItoTimeoutMs = 3000;

// Both patterns over one region; the second is not tried after a failure.
uint32_t check_region(uint32_t address, uint32_t size) {
  uint32_t result = check_ram(address, size, kPatternA);
  if (result == CHECK_RAM_OK) {
    result = check_ram(address, size, kPatternB);
  }
  return result;
}

uint32_t sram_steps(const char *tag) {
  const uint8_t one = 0x01;
  if (quillon_write_at(kAutoReleaseAddress, &one, 1) != 0) {
    log_error(tag, "Error disabling m3 auto release..");
    return INSPECT_SRAM_TRANSFER;
  }
  if (quillon_write_at(kHoldCoreAddress, &one, 1) != 0) {
    log_error(tag, "Error in hold m3..");
    return INSPECT_SRAM_TRANSFER;
  }
  uint32_t result = check_region(kDramAddress, kDramSize);
  if (result != CHECK_RAM_OK) {
    log_error(tag, "Error checking DRAM..");
    return result;
  }
  result = check_region(kFrameMemoryAddress, kFrameMemorySize);
  if (result != CHECK_RAM_OK) {
    log_error(tag, "Error checking frame memory");
  }
  return result;
}

constexpr const char *kItoLabels[] = {"MS_RAW_ITO_DATA_MIN", "MS_RAW_ITO_DATA_MAX"};
constexpr const char *kItoMissing[] = {
    "Couldnt find the label MS_RAW_ITO_DATA_MIN in the test limit file",
    "Couldnt find the label MS_RAW_ITO_DATA_MAX in the test limit file"};

// Judges the frame as read (source orientation) against both limits.
uint32_t judge_ito_frame(const char *tag, const mutual_frame &frame, const limit_set &limits) {
  const uint32_t rows = frame.force_len;
  const uint32_t cols = frame.sense_len;
  NLOG(LOG_LEVEL_INFO, tag, "ITO Raw Data: ");
  std::array<uint16_t, INSPECT_GRID_SIZE> scratch{};
  swap_orientation_output(frame.data, scratch.data(), frame.force_len, frame.sense_len);
  // A table smaller than the panel cannot judge it: the limits are as good
  // as missing.
  if (!limits_cover(tag, limits[0], rows, cols) || !limits_cover(tag, limits[1], rows, cols)) {
    return INSPECT_TEST_LIMITS_MISSING;
  }
  log_error(tag, "Performing ITO RAW MIN MAX test..");
  if (check_min_max(frame.data, static_cast<int32_t>(rows), static_cast<int32_t>(cols),
                    limits[0].data, limits[1].data) != 0) {
    log_error(tag, "ITO RAW MIN MAX TEST FAIL");
    return ITO_OUT_OF_LIMITS;
  }
  log_error(tag, "ITO RAW MIN MAX TEST OK!!");
  return 0;
}

uint32_t ito_attempt(void *context, bool * /*final*/) {
  constexpr const char *tag = "inspect_ito";
  const auto &limits = *static_cast<const limit_set *>(context);
  uint32_t result = 0;
  log_error(tag, "ITO Check Command...");
  // The IC measures into its frame memory even when the echo is lost: the
  // frame is read and judged all the same.
  if (send_command(kItoCheck.data(), kItoCheck.size(), kItoTimeoutMs) != 0) {
    result |= ITO_COMMAND_FAILED;
  }
  log_error(tag, "Reading ITO frame from 0x%04X, %d X %d", sys_info.ms_raw_addr, sys_info.force_len,
            sys_info.sense_len);
  mutual_holder frame;
  if (read_ms_frame(&frame.f) != DIAG_OK) {
    log_error(tag, "Error while reading the ITO frame");
    return result | ITO_FRAME_NOT_READ;
  }
  return result | judge_ito_frame(tag, frame.f, limits);
}

} // namespace

uint32_t inspect_sram() {
  log_error(__func__, "IN");
  const uint32_t result = sram_steps(__func__);
  log_error(__func__, "OUT");
  return result;
}

uint32_t inspect_ito(const char *limits) {
  log_error(__func__, "IN");
  limit_set records;
  uint32_t result = records.look_up(__func__, limits, kItoLabels, kItoMissing, 2);
  if (result == INSPECT_TEST_OK) {
    result = attempt_with_retry(__func__, "Retry ITO test", ito_attempt, &records);
  }
  log_error(__func__, "OUT");
  return result;
}
