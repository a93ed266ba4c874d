// The CX test: the compensation values the IC holds (golden), the IC's own
// calibration and autotunes, the values read again, and each value's change
// bounded by its limit. Also dump_cx, which prints the same data.
#include <array>
#include <cstdio>
#include <cstdlib>

#include "chip/inspect/checks.h"
#include "chip/inspect/inspect.h"
#include "chip/inspect/inspect_tests.h"
#include "platform/log.h"

namespace {

constexpr const char *kCxLabels[] = {"MS_TOUCH_LOWPOWER_TOTAL_CX_MAX",
                                     "SS_DETECT_TOTAL_IX_FORCE_MAX", "SS_DETECT_TOTAL_IX_SENSE_MAX",
                                     "SS_TOUCH_ACTIVE_TOTAL_IX_FORCE_MAX",
                                     "SS_TOUCH_ACTIVE_TOTAL_IX_SENSE_MAX"};
constexpr const char *kCxMissing[] = {
    "Couldnt find the label MS_TOUCH_LOWPOWER_TOTAL_CX_MAX in the test limit file",
    "Couldnt find the label SS_DETECT_TOTAL_IX_FORCE_MAX in the test limit file",
    "Couldnt find the label SS_DETECT_TOTAL_IX_SENSE_MAX in the test limit file",
    "Couldnt find the label SS_TOUCH_ACTIVE_TOTAL_IX_FORCE_MAX in the test limit file",
    "Couldnt find the label SS_TOUCH_ACTIVE_TOTAL_IX_SENSE_MAX in the test limit file"};
enum cx_limit { kLpTotalCx, kDetectForce, kDetectSense, kTotalForce, kTotalSense };

constexpr uint32_t kCxFail = 0x80;
constexpr uint32_t kTuneTimeoutMs = 3000;
constexpr std::array<uint8_t, 4> kLpTimerCalibration = {0xA4, 0x08, 0x01, 0x00};
constexpr std::array<uint8_t, 4> kMutualAutotune = {0xA4, 0x03, 0x03, 0x00};
constexpr std::array<uint8_t, 4> kSelfAutotune = {0xA4, 0x03, 0x0C, 0x00};

// Everything one attempt reads; freed when the attempt ends.
struct cx_reads {
  mutual_holder golden_lp; // 0x51 before the autotunes
  ss_holder golden_detect; // 0x53
  ss_holder golden_total;  // 0x52
  mutual_holder new_lp;    // 0x51 after
  ss_holder new_detect;    // 0x53
  ss_holder new_total;     // 0x52
  mutual_holder ms_total;  // 0x50, log only
  ss_holder ss_active;     // 0x12, log only
  ss_holder ss_detect;     // 0x13, log only
  std::array<uint16_t, INSPECT_GRID_SIZE> scratch{};
};

uint32_t read_ms(const char *tag, const char *heading, uint8_t type, mutual_holder &into,
                 const char *failure) {
  log_error(tag, "%s", heading);
  const uint32_t result = read_ms_cx_data(type, &into.f);
  if (result != DIAG_OK) {
    log_error(tag, "%s", failure);
  }
  return result;
}

uint32_t read_ss(const char *tag, const char *heading, uint8_t type, ss_holder &into,
                 const char *failure) {
  log_error(tag, "%s", heading);
  const uint32_t result = read_ss_cx_data(type, &into.ix, &into.cx);
  if (result != DIAG_OK) {
    log_error(tag, "%s", failure);
  }
  return result;
}

// Calibration and autotune: a command the IC does not acknowledge is logged
// and the values are read and judged all the same.
void tune(const char *tag, const char *heading, const std::array<uint8_t, 4> &command,
          const char *failure) {
  log_error(tag, "%s", heading);
  if (send_command(command.data(), command.size(), kTuneTimeoutMs) != 0) {
    log_error(tag, "%s", failure);
  }
}

uint32_t read_before_and_after(const char *tag, cx_reads &r) {
  uint32_t result = read_ms(tag, "Read golden MS LP total CX..", HOST_DATA_MS_LP_TOTAL_CX,
                            r.golden_lp, "Error reading MS LP total CX");
  if (result == DIAG_OK) {
    result = read_ss(tag, "Read golden SS DET total IX & CX..", HOST_DATA_SS_DETECT_TOTAL_CX,
                     r.golden_detect, "Error reading SS DET total IX & CX");
  }
  if (result == DIAG_OK) {
    result = read_ss(tag, "Read golden SS total IX & CX..", HOST_DATA_SS_TOTAL_CX, r.golden_total,
                     "Error reading SS total IX & CX");
  }
  if (result != DIAG_OK) {
    return result;
  }
  tune(tag, "LP Timer Calibration..", kLpTimerCalibration, "LP Timer Calibration failed");
  tune(tag, "Mutual autotune..", kMutualAutotune, "Mutual autotune failed");
  tune(tag, "Self autotune..", kSelfAutotune, "Self autotune failed");
  result = read_ms(tag, "Read MS LP total CX..", HOST_DATA_MS_LP_TOTAL_CX, r.new_lp,
                   "Error reading MS LP total CX");
  if (result == DIAG_OK) {
    result = read_ss(tag, "Read SS DET total IX & CX..", HOST_DATA_SS_DETECT_TOTAL_CX, r.new_detect,
                     "Error reading SS DET total IX & CX");
  }
  if (result == DIAG_OK) {
    result = read_ss(tag, "Read SS total IX & CX..", HOST_DATA_SS_TOTAL_CX, r.new_total,
                     "Error reading SS total IX & CX");
  }
  return result;
}

void print_vector(const char *tag, const char *heading, const int16_t *values, uint8_t count,
                  bool is_force, uint16_t *scratch) {
  NLOG(LOG_LEVEL_INFO, tag, "%s", heading);
  if (is_force) {
    swap_orientation_output(values, scratch, count, 1);
  } else {
    swap_orientation_output(values, scratch, 1, count);
  }
}

// The new values: the mutual frame and the total IX go into the calibration
// buffers, the detect total IX only into the log.
void store_new_values(const char *tag, cx_reads &r) {
  NLOG(LOG_LEVEL_INFO, tag, "Mutual Lowpower Total CX: ");
  swap_orientation_output(r.new_lp.f.data, inspect_calib_grid_data.data(), r.new_lp.f.force_len,
                          r.new_lp.f.sense_len);
  const ss_cx_data &detect = r.new_detect.ix;
  print_vector(tag, "Self Force Detect Total IX: ", detect.force_data, detect.force_len, true,
               r.scratch.data());
  print_vector(tag, "Self Sense Detect Total IX: ", detect.sense_data, detect.sense_len, false,
               r.scratch.data());
  const ss_cx_data &total = r.new_total.ix;
  store_line(tag, inspect_calib_line_data.data(), total.force_data, total.force_len,
             total.sense_data, total.sense_len, "Self Force Total IX: ", "Self Sense Total IX: ");
}

uint32_t read_for_log(const char *tag, cx_reads &r) {
  uint32_t result = read_ms(tag, "Read MS total CX..", HOST_DATA_MS_TOTAL_CX, r.ms_total,
                            "Error reading MS total CX");
  if (result == DIAG_OK) {
    result =
        read_ss(tag, "Read SS IX & CX..", HOST_DATA_SS_CX, r.ss_active, "Error reading SS IX & CX");
  }
  if (result == DIAG_OK) {
    result = read_ss(tag, "Read SS DET IX & CX..", HOST_DATA_SS_DETECT_CX, r.ss_detect,
                     "Error reading SS DET IX & CX");
  }
  return result;
}

void dump_self(const char *tag, const char *kind, const ss_holder &s, uint16_t *scratch) {
  const struct {
    const char *side;
    const char *what;
    const ss_cx_data *data;
  } parts[] = {{"Force", "IX", &s.ix},
               {"Sense", "IX", &s.ix},
               {"Force", "CX", &s.cx},
               {"Sense", "CX", &s.cx}};
  for (const auto &p : parts) {
    const bool force = p.side[0] == 'F';
    NLOG(LOG_LEVEL_INFO, tag, "Self %s %s%s1: %d", p.side, kind, p.what,
         force ? p.data->force_1 : p.data->sense_1);
    char heading[64];
    snprintf(heading, sizeof heading, "Self %s %s%s2: ", p.side, kind, p.what);
    print_vector(tag, heading, force ? p.data->force_data : p.data->sense_data,
                 force ? p.data->force_len : p.data->sense_len, force, scratch);
  }
}

void dump_for_log(const char *tag, cx_reads &r) {
  NLOG(LOG_LEVEL_INFO, tag, "Mutual Total CX: ");
  swap_orientation_output(r.ms_total.f.data, r.scratch.data(), r.ms_total.f.force_len,
                          r.ms_total.f.sense_len);
  dump_self(tag, "", r.ss_active, r.scratch.data());
  dump_self(tag, "Detect ", r.ss_detect, r.scratch.data());
}

void take_change(int16_t *now, const int16_t *golden, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    now[i] = static_cast<int16_t>(std::abs(now[i] - golden[i]));
  }
}

// The change of every value, in place in the new data. The total IX is
// taken over the detect record's channel counts, so every record must hold
// at least that many.
bool take_changes(const char *tag, cx_reads &r) {
  const mutual_frame &lp = r.new_lp.f;
  const ss_cx_data &det = r.new_detect.ix;
  const ss_cx_data *others[] = {&r.golden_detect.ix, &r.new_total.ix, &r.golden_total.ix};
  bool sizes_match =
      lp.force_len == r.golden_lp.f.force_len && lp.sense_len == r.golden_lp.f.sense_len;
  for (const ss_cx_data *o : others) {
    sizes_match = sizes_match && o->force_len >= det.force_len && o->sense_len >= det.sense_len;
  }
  if (!sizes_match) {
    log_error(tag, "Compensation data sizes changed during the test");
    return false;
  }
  take_change(r.new_lp.f.data, r.golden_lp.f.data, r.new_lp.nodes());
  take_change(det.force_data, r.golden_detect.ix.force_data, det.force_len);
  take_change(r.new_total.ix.force_data, r.golden_total.ix.force_data, det.force_len);
  take_change(det.sense_data, r.golden_detect.ix.sense_data, det.sense_len);
  take_change(r.new_total.ix.sense_data, r.golden_total.ix.sense_data, det.sense_len);
  return true;
}

// One self check: walks the limit's own rows x columns over the vector.
bool self_change_fails(const char *tag, const int16_t *values, uint8_t count,
                       const test_limit_data &limit) {
  if (uint32_t{limit.rows} * limit.cols > count) {
    log_error(tag, "Limits %s hold %u x %u values, more than the %u channels", limit.label,
              limit.rows, limit.cols, count);
    return true;
  }
  return check_adj_map(values, limit.rows, limit.cols, limit.data) != 0;
}

void verdict(const char *tag, bool failed, const char *name) {
  log_error(tag, failed ? "%s FAIL" : "%s OK!!", name);
}

// The five checks; each runs and logs its verdict whatever the others gave.
uint32_t check_changes(const char *tag, const cx_reads &r, const limit_set &limits) {
  const mutual_frame &lp = r.new_lp.f;
  bool lp_failed = !limits_cover(tag, limits[kLpTotalCx], lp.force_len, lp.sense_len) ||
                   check_adj_map(lp.data, lp.force_len, lp.sense_len, limits[kLpTotalCx].data) != 0;
  verdict(tag, lp_failed, "Mutual Lowpower Total CX");
  const struct {
    const int16_t *values;
    uint8_t count;
    cx_limit limit;
    const char *name;
  } self_checks[] = {
      {r.new_detect.ix.force_data, r.new_detect.ix.force_len, kDetectForce,
       "Self Force Detect Total IX"},
      {r.new_detect.ix.sense_data, r.new_detect.ix.sense_len, kDetectSense,
       "Self Sense Detect Total IX"},
      {r.new_total.ix.force_data, r.new_total.ix.force_len, kTotalForce, "Self Force Total IX"},
      {r.new_total.ix.sense_data, r.new_total.ix.sense_len, kTotalSense, "Self Sense Total IX"},
  };
  bool any_failed = lp_failed;
  for (const auto &c : self_checks) {
    const bool failed = self_change_fails(tag, c.values, c.count, limits[c.limit]);
    verdict(tag, failed, c.name);
    any_failed = any_failed || failed;
  }
  return any_failed ? kCxFail : INSPECT_TEST_OK;
}

uint32_t cx_attempt(void *context, bool * /*final*/) {
  constexpr const char *tag = "inspect_cx";
  const auto &limits = *static_cast<const limit_set *>(context);
  cx_reads reads;
  uint32_t result = read_before_and_after(tag, reads);
  if (result != DIAG_OK) {
    return result;
  }
  store_new_values(tag, reads);
  result = read_for_log(tag, reads);
  if (result != DIAG_OK) {
    return result;
  }
  dump_for_log(tag, reads);
  if (!take_changes(tag, reads)) {
    return kCxFail;
  }
  return check_changes(tag, reads, limits);
}

} // namespace

uint32_t inspect_cx(const char *limits) {
  log_error(__func__, "IN");
  limit_set records;
  uint32_t result = records.look_up(__func__, limits, kCxLabels, kCxMissing, 5);
  if (result == INSPECT_TEST_OK) {
    result = attempt_with_retry(__func__, "Retry CX test", cx_attempt, &records);
  }
  log_error(__func__, "OUT");
  return result;
}

uint32_t dump_cx(uint16_t *output, uint32_t *count) {
  constexpr const char *tag = "dump_cx";
  log_error(tag, "IN");
  if (output == nullptr || count == nullptr) {
    log_error(tag, "No output for the CX data");
    return DIAG_ERR_DATA;
  }
  mutual_holder lp;
  uint32_t result = read_ms_cx_data(HOST_DATA_MS_LP_TOTAL_CX, &lp.f);
  if (result != DIAG_OK) {
    log_error(tag, "Error reading MS LP Total CX");
    return result;
  }
  *count = lp.nodes();
  NLOG(LOG_LEVEL_INFO, tag, "Mutual Lowpower Total CX: %u * %u", lp.f.force_len, lp.f.sense_len);
  swap_orientation_output(lp.f.data, output, lp.f.force_len, lp.f.sense_len);
  std::array<uint16_t, INSPECT_LINE_SIZE> scratch{};
  const struct {
    uint8_t type;
    const char *failure;
    const char *kind; // "Detect " or ""
  } selves[] = {
      {HOST_DATA_SS_DETECT_TOTAL_CX, "Error reading SS LP Total IX & CX", "Detect "},
      {HOST_DATA_SS_TOTAL_CX, "Error reading SS Total IX & CX", ""},
  };
  for (const auto &s : selves) {
    ss_holder data;
    result = read_ss_cx_data(s.type, &data.ix, &data.cx);
    if (result != DIAG_OK) {
      log_error(tag, "%s", s.failure);
      return result;
    }
    NLOG(LOG_LEVEL_INFO, tag, "Self Force %sTotal IX: %u", s.kind, data.ix.force_len);
    swap_orientation_output(data.ix.force_data, scratch.data(), data.ix.force_len, 1);
    NLOG(LOG_LEVEL_INFO, tag, "Self Sense %sTotal IX: %u", s.kind, data.ix.sense_len);
    swap_orientation_output(data.ix.sense_data, scratch.data(), 1, data.ix.sense_len);
  }
  return DIAG_OK;
}
