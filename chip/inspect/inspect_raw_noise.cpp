// The raw-data test and the noise test: both scan the untouched panel in
// factory mode with the scan locked and read sync frames.
#include <array>
#include <cstring>

#include "chip/inspect/checks.h"
#include "chip/inspect/inspect.h"
#include "chip/inspect/inspect_tests.h"
#include "chip/transport/host_data.h"
#include "platform/log.h"

namespace {

constexpr const char *kRawLabels[] = {"MS_RAW_DATA_EACH_MIN", "MS_RAW_DATA_EACH_MAX"};
// Either label missing is reported by the minimum's message.
constexpr const char *kRawMissing[] = {
    "Couldnt find the label MS_RAW_DATA_EACH_MIN in the test limit file",
    "Couldnt find the label MS_RAW_DATA_EACH_MIN in the test limit file"};
constexpr const char *kNoiseLabels[] = {"MS_RAW_NOISE_DATA_DELTA"};
constexpr const char *kNoiseMissing[] = {
    "Couldnt find the label MS_RAW_NOISE_DATA_DELTA in the test limit file"};

// The frame the noise test reports in its messages: it measures at whatever
// frequency the IC scans.
constexpr int kNoiseFreq = 0;

// Factory mode with the scan locked, as both tests measure. *measure is set
// when the panel can be measured. Without factory mode there is nothing to
// measure, which both tests have always reported as a pass (0); a failed
// scan lock fails the test.
uint32_t start_factory_scan(const char *tag, bool *measure) {
  *measure = false;
  if (enter_factory_mode() != 0) {
    log_error(tag, "Error enabling factory mode");
    return INSPECT_TEST_OK;
  }
  if (lock_scan() != 0) {
    log_error(tag, "Error writing scan lock mode");
    return INSPECT_TEST_STEP_FAILED;
  }
  *measure = true;
  return INSPECT_TEST_OK;
}

// Asks the IC for a fresh sync frame; logs the failure.
bool request_sync_frame(const char *tag) {
  if (request_host_data(HOST_DATA_SYNC_FRAME, SYNC_FRAME_TIMEOUT_MS) != 0) {
    log_error(tag, "Error requesting new frame");
    return false;
  }
  return true;
}

uint32_t raw_attempt(void *context, bool *final) {
  constexpr const char *tag = "inspect_raw_data";
  const auto &limits = *static_cast<const limit_set *>(context);
  *final = true;
  bool measure = false;
  if (const uint32_t result = start_factory_scan(tag, &measure); !measure) {
    return result;
  }
  if (!request_sync_frame(tag)) {
    return INSPECT_TEST_STEP_FAILED;
  }
  *final = false;
  mutual_holder ms;
  self_holder ss;
  if (read_sync_frame(&ms.f, &ss.f, 1, 1) != DIAG_OK) {
    log_error(tag, "Error reading sync frame");
    return INSPECT_TEST_STEP_FAILED;
  }
  store_raw_frame(tag, ms.f, ss.f);
  const uint32_t rows = ms.f.force_len;
  const uint32_t cols = ms.f.sense_len;
  if (!limits_cover(tag, limits[0], rows, cols) || !limits_cover(tag, limits[1], rows, cols)) {
    return INSPECT_TEST_LIMITS_MISSING;
  }
  if (check_min_max(ms.f.data, static_cast<int32_t>(rows), static_cast<int32_t>(cols),
                    limits[0].data, limits[1].data) != 0) {
    log_error(tag, "MUTUAL RAW MIN MAX TEST FAIL");
    return INSPECT_TEST_RAW_OUT_OF_LIMITS;
  }
  log_error(tag, "MUTUAL RAW MIN MAX TEST OK");
  return INSPECT_TEST_OK;
}

// Each node's extremes over the frames of one noise attempt.
struct noise_fold {
  std::array<int16_t, INSPECT_GRID_SIZE> maximum{};
  std::array<int16_t, INSPECT_GRID_SIZE> minimum{};
  std::array<uint16_t, INSPECT_GRID_SIZE> delta{};
  uint8_t rows = 0;
  uint8_t cols = 0;
};

// The first frame: it fills the grid and line buffers and starts both
// extremes.
uint32_t read_first_noise_frame(const char *tag, noise_fold &fold) {
  if (!request_sync_frame(tag)) {
    return INSPECT_TEST_STEP_FAILED;
  }
  mutual_holder ms;
  self_holder ss;
  if (read_sync_frame(&ms.f, &ss.f, 1, 1) != DIAG_OK) {
    log_error(tag, "Error reading sync frame");
    return INSPECT_TEST_STEP_FAILED;
  }
  store_raw_frame(tag, ms.f, ss.f);
  const uint32_t nodes = ms.nodes();
  std::memcpy(fold.maximum.data(), ms.f.data, nodes * sizeof(int16_t));
  std::memcpy(fold.minimum.data(), ms.f.data, nodes * sizeof(int16_t));
  fold.rows = ms.f.force_len;
  fold.cols = ms.f.sense_len;
  return INSPECT_TEST_OK;
}

// One later frame, folded into the extremes and freed at once.
uint32_t fold_noise_frame(const char *tag, noise_fold &fold) {
  if (!request_sync_frame(tag)) {
    return INSPECT_TEST_STEP_FAILED;
  }
  mutual_holder ms;
  if (read_sync_frame(&ms.f, nullptr, 1, 0) != DIAG_OK) {
    log_error(tag, "Error reading sync frame");
    return INSPECT_TEST_STEP_FAILED;
  }
  const uint32_t nodes = ms.nodes();
  for (uint32_t i = 0; i < nodes; ++i) {
    const int16_t v = ms.f.data[i];
    if (v > fold.maximum[i]) {
      fold.maximum[i] = v;
    } else if (v < fold.minimum[i]) {
      fold.minimum[i] = v;
    }
  }
  fold.rows = ms.f.force_len;
  fold.cols = ms.f.sense_len;
  return INSPECT_TEST_OK;
}

uint32_t judge_noise(const char *tag, noise_fold &fold, const test_limit_data &limit) {
  const uint32_t nodes = uint32_t{fold.rows} * fold.cols;
  for (uint32_t i = 0; i < nodes; ++i) {
    fold.delta[i] = static_cast<uint16_t>(fold.maximum[i] - fold.minimum[i]);
  }
  // The delta is handed around as 16-bit words; judged as signed below.
  int16_t signed_delta[INSPECT_GRID_SIZE];
  std::memcpy(signed_delta, fold.delta.data(), nodes * sizeof(int16_t));
  NLOG(LOG_LEVEL_INFO, tag, "Freq %d Mutual Noise Delta: ", kNoiseFreq);
  swap_orientation_output(signed_delta, inspect_noise_data.data(), fold.rows, fold.cols);
  if (!limits_cover(tag, limit, fold.rows, fold.cols)) {
    return INSPECT_TEST_LIMITS_MISSING;
  }
  if (check_adj_map(signed_delta, fold.rows, fold.cols, limit.data) != 0) {
    log_error(tag, "Freq %d noise data test FAIL", kNoiseFreq);
    return INSPECT_TEST_NOISE_OVER_LIMIT;
  }
  log_error(tag, "Freq %d noise data test OK!!", kNoiseFreq);
  return INSPECT_TEST_OK;
}

uint32_t noise_attempt(void *context, bool * /*final*/) {
  constexpr const char *tag = "inspect_noise";
  const auto &limits = *static_cast<const limit_set *>(context);
  bool measure = false;
  if (const uint32_t result = start_factory_scan(tag, &measure); !measure) {
    return result;
  }
  noise_fold fold;
  uint32_t result = read_first_noise_frame(tag, fold);
  for (uint32_t frame = 1; frame < NOISE_FRAMES && result == INSPECT_TEST_OK; ++frame) {
    result = fold_noise_frame(tag, fold);
  }
  if (result != INSPECT_TEST_OK) {
    return result;
  }
  return judge_noise(tag, fold, limits[0]);
}

} // namespace

uint32_t inspect_raw_data(const char *limits) {
  log_error(__func__, "IN");
  limit_set records;
  uint32_t result = records.look_up(__func__, limits, kRawLabels, kRawMissing, 2);
  if (result == INSPECT_TEST_OK) {
    result = attempt_with_retry(__func__, "Retry raw data test", raw_attempt, &records);
  }
  NLOG(LOG_LEVEL_INFO, __func__, "OUT");
  return result;
}

uint32_t inspect_noise(const char *limits) {
  log_error(__func__, "IN");
  limit_set records;
  uint32_t result = records.look_up(__func__, limits, kNoiseLabels, kNoiseMissing, 1);
  if (result == INSPECT_TEST_OK) {
    result = attempt_with_retry(__func__, "Retry noise test", noise_attempt, &records);
  }
  log_error(__func__, "OUT");
  return result;
}
