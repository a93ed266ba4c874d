// `afehal-tool inspect`: what one factory inspection gave, gathered from the
// library's result mask, its result buffers and its log lines, and the report
// a factory line keeps (heatmaps, CSV files, a JSON summary).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "chip/inspect/checks.h"

namespace tool {

// Where a failing node sits: a mutual node (force row, sense column as the
// IC scans them) or one self channel.
enum class node_kind { mutual, force_channel, sense_channel };

struct failing_node {
  std::string check; // which comparison failed it, e.g. "ITO raw min/max"
  node_kind kind = node_kind::mutual;
  int force = -1; // force channel (mutual, force_channel)
  int sense = -1; // sense channel (mutual, sense_channel)
  int value = 0;
  std::optional<int> minimum; // only for checks with a lower bound
  int maximum = 0;
};

enum class verdict { not_run, passed, failed };

struct test_outcome {
  verdict result = verdict::not_run;
  int code = 0; // the test's own return code, as the driver logged it
  std::vector<failing_node> nodes;
  int retries = 0;    // second attempts after the firmware stopped answering
  std::string detail; // the test's last error message, if any
};

// Panel geometry and orientation of the result buffers.
struct panel_layout {
  uint32_t force = 0;
  uint32_t sense = 0;
  frame_orientation orientation{false, false, false};

  uint32_t out_rows() const { return orientation.swap ? sense : force; }
  uint32_t out_cols() const { return orientation.swap ? force : sense; }
  // Position of a mutual node in a grid buffer.
  size_t grid_index(uint32_t f, uint32_t s) const;
  // Position of a self channel in a line buffer: the x-line (the channels
  // that number the output's columns) first, then the y-line.
  size_t line_index(node_kind kind, uint32_t channel) const;
  // Length of the x-line, the first part of a line buffer.
  uint32_t x_line() const { return out_cols(); }
};

struct chip_versions {
  uint16_t fw = 0;
  uint16_t cfg = 0;
  uint16_t cfg_id = 0;
  uint16_t cx_cfg = 0;
  uint8_t cx = 0;
  uint8_t afe_cfg = 0;
  uint8_t panel_cfg = 0;
  uint16_t chip0_id = 0;
  uint16_t chip0_ver = 0;
  uint16_t chip1_id = 0;
  uint16_t chip1_ver = 0;
  uint8_t api_first = 0;
  uint8_t api_second = 0;
  uint16_t api_third = 0;
};

// One result buffer, decoded: offset binary for grid and line, signed
// compensation values for the calibration buffers, plain for noise.
struct result_buffer {
  std::string name; // "grid", "line", "noise", "calib_grid", "calib_line"
  bool is_line = false;
  std::vector<int32_t> values; // in output orientation
  std::vector<size_t> marked;  // indexes of failing nodes in values
};

struct inspect_result {
  uint32_t mask = 0;
  bool refused = false;    // kvr_afe_inspect refused in the current state
  bool ran = false;        // the driver started ("Production test starting")
  std::string setup_error; // what stopped the run before its tests
  test_outcome sram, ito, noise, cx;
  // The stored raw frame against the raw-data limits: the run keeps this
  // frame but does not judge it, so the tool does.
  test_outcome raw;
  panel_layout layout;
  chip_versions versions;
  std::string started_utc; // ISO 8601
  double duration_s = 0.0; // on the library's clock
  std::vector<result_buffer> buffers;
};

// Consumes the library's log messages of one run, in order, and fills the
// test outcomes. The driver's and the tests' messages say which test runs,
// its verdict and each node a check failed.
class run_log_reader {
public:
  explicit run_log_reader(inspect_result &result) : result_(result) {}
  void message(std::string_view text);

private:
  enum class stage { before, sram, setup, ito, noise, cx, after };
  void cx_check_verdict(std::string_view name);

  inspect_result &result_;
  stage stage_ = stage::before;
  std::vector<failing_node> pending_; // CX nodes until their check's verdict
};

// Parses a node message of the library's two checks: " node[r,c] = v,
// Exceeding the limit [lo, hi]" or "Node[r,c] = v exceed limit > hi". The
// row and column are the check's own (force, sense for a mutual frame).
std::optional<failing_node> parse_node_message(std::string_view text);

struct inspect_options;
// Runs the inspection (on the simulator when asked, with its faults) and
// gathers what it gave; nullopt when it could not run (reason on stderr).
std::optional<inspect_result> inspect(const inspect_options &options);

// Writes the report into dir (created when missing): one PNG and one CSV per
// result buffer and summary.json. Returns "" or what went wrong.
std::string write_report(const inspect_result &result, const std::string &dir);
// The JSON summary on its own (also used by write_report).
std::string summary_json(const inspect_result &result);

// Text of the mask bits, e.g. "noise test failed".
const char *mask_bit_meaning(uint32_t bit);
constexpr uint32_t kMaskBits[] = {0x01, 0x04, 0x08, 0x10, 0x40, 0x80};

} // namespace tool
