// `afehal-tool inspect`: runs the factory inspection on /dev/kvr or on the
// simulated panel, shows its stages as the library logs them, then the
// verdict bit by bit, the failing nodes of each test and the chip's
// versions, and optionally writes the report a factory line keeps.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "afehal/afehal.h"
#include "chip/inspect/test_limits.h"
#include "chip/transport/host_data.h"
#include "platform/os.h"
#include "tools/inspect.h"
#include "tools/tool.h"

namespace tool {

namespace {

constexpr int kExitPassed = 0;
constexpr int kExitError = 1;
constexpr int kExitFailed = 2;

// Result buffers' room, as the library allocates them.
constexpr uint32_t kGridCapacity = 3000;
constexpr uint32_t kLineCapacity = 300;
// Failing nodes listed per test on the terminal; the report holds them all.
constexpr size_t kNodesShown = 20;

// ---- Simulated panels ------------------------------------------------------------

struct sim_fault {
  const char *name;
  const char *description;
  // The library message at which the fault is armed, so that it hits one
  // step of the run; nullptr: armed before the run.
  const char *arm_at;
  void (*apply)();
};

const sim_fault kSimFaults[] = {
    {"healthy", "no fault", nullptr, [] {}},
    {"sram", "a DRAM bit stuck at 0", nullptr, [] { sim::stuck_bit(0x00100040, 0x01, false); }},
    {"ito-open", "sense electrode 5 open", nullptr,
     [] { sim::ito_open(sim::electrode::sense, 5); }},
    {"ito-short", "force electrode 2 shorted", nullptr,
     [] { sim::ito_short(sim::electrode::force, 2); }},
    {"ito-cmd", "the ITO command is never acknowledged", nullptr,
     [] {
       sim::drop_echoes_of({0xA4, 0x04, 0xFF, 0x01}, 100);
     }},
    {"noisy", "node (force 4, sense 10) swings by 400 counts", nullptr,
     [] { sim::noisy_node(4, 10, 400); }},
    {"cx-drift", "mutual node (force 2, sense 32) drifts by 31000 in the autotune", nullptr,
     [] { sim::drift_after_autotune(sim::comp_set::ms_lp_total, 2 * 34 + 32, 31000); }},
    {"ix-drift", "force channel 7's total IX drifts by 31000 in the self autotune", nullptr,
     [] { sim::drift_after_autotune(sim::comp_set::ss_force, 7, 31000); }},
    {"setup", "the chip-info block never loads after the SRAM test", "SRAM test passed",
     [] { sim::block_never_loads(HOST_DATA_CHIP_INFO); }},
    {"fw-dies", "the firmware stops answering in the noise test (reset and retried)",
     "ITO test passed", [] { sim::firmware_stops_after(2); }},
};

const sim_fault *find_fault(const std::string &name) {
  for (const sim_fault &fault : kSimFaults) {
    if (name == fault.name) {
      return &fault;
    }
  }
  return nullptr;
}

// ---- The log sink of one run -----------------------------------------------------

enum class phase { run, after };

struct run_context {
  run_log_reader *reader = nullptr;
  std::vector<const sim_fault *> armed; // faults waiting for their message
  std::vector<std::string> captured;    // messages after the run
  phase at = phase::run;
  bool echo_all = false; // every line to stderr (log level above 1)
};

run_context *g_run = nullptr;

bool is_hex_dump(std::string_view text) {
  if (text.empty()) {
    return false;
  }
  for (size_t i = 0; i < text.size(); ++i) {
    const char ch = text[i];
    const bool hex = (ch >= '0' && ch <= '9') || (ch >= 'A' && ch <= 'F');
    if (i % 3 == 2 ? ch != ' ' : !hex) {
      return false;
    }
  }
  return true;
}

// The stages of the run; entry and exit marks, command bytes, dumps and node
// lines (summarised afterwards) are left out.
bool is_stage_line(std::string_view text) {
  return text != "IN" && text != "OUT" && text != "FW is alive" &&
         text.substr(0, 17) != "Write FW command:" && text != "Sync Frame Header Data:" &&
         !is_hex_dump(text) && !parse_node_message(text);
}

void inspect_log_sink(const char *line) {
  if (g_run == nullptr) {
    return;
  }
  const std::string_view text = log_message(line);
  if (g_run->echo_all) {
    std::fputs(line, stderr);
  }
  if (g_run->at == phase::after) {
    g_run->captured.emplace_back(text);
    return;
  }
  if (log_line_level(line) == 1) {
    g_run->reader->message(text);
    if (!g_run->echo_all && is_stage_line(text)) {
      std::printf("  | %.*s\n", static_cast<int>(text.size()), text.data());
      std::fflush(stdout);
    }
  }
  auto &armed = g_run->armed;
  for (auto it = armed.begin(); it != armed.end();) {
    if (text == (*it)->arm_at) {
      (*it)->apply();
      it = armed.erase(it);
    } else {
      ++it;
    }
  }
}

// ---- Gathering the results -------------------------------------------------------

double library_seconds() {
  timespec ts{};
  os().clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

std::string utc_now() {
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm tm{};
  gmtime_r(&now, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

// The chip-info record the run read (step 8), or the one the start read when
// the run stopped before that.
const chip_info &run_chip_info() {
  return sys_info.force_len != 0 ? sys_info : info;
}

chip_versions versions_of(const chip_info &ci) {
  chip_versions v;
  v.fw = ci.fw_ver;
  v.cfg = ci.cfg_ver;
  v.cfg_id = ci.cfg_id;
  v.cx_cfg = ci.cx_cfg_ver;
  v.cx = ci.cx_ver;
  v.afe_cfg = ci.afe_ver_cfg;
  v.panel_cfg = ci.panel_cfg;
  v.chip0_id = ci.chip0_id;
  v.chip0_ver = ci.chip0_ver;
  v.chip1_id = ci.chip1_id;
  v.chip1_ver = ci.chip1_ver;
  v.api_first = ci.api_ver_first;
  v.api_second = ci.api_ver_second;
  v.api_third = ci.api_ver_third;
  return v;
}

int32_t offset_binary(uint16_t v) {
  return static_cast<int16_t>(v ^ 0x8000);
}
int32_t signed_value(uint16_t v) {
  return static_cast<int16_t>(v);
}
int32_t plain_value(uint16_t v) {
  return v;
}

result_buffer decode(const char *name, const uint16_t *data, size_t count, bool is_line,
                     int32_t (*decode_one)(uint16_t)) {
  result_buffer buffer{name, is_line, {}, {}};
  buffer.values.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    buffer.values.push_back(decode_one(data[i]));
  }
  return buffer;
}

void mark(result_buffer &buffer, size_t index) {
  if (index < buffer.values.size() &&
      std::find(buffer.marked.begin(), buffer.marked.end(), index) == buffer.marked.end()) {
    buffer.marked.push_back(index);
  }
}

// The stored raw frame against the raw-data limits with the library's own
// check; its node messages come back through the sink.
void check_raw_frame(inspect_result &result, run_context &context) {
  const panel_layout &layout = result.layout;
  const result_buffer &grid = result.buffers[0];
  std::vector<int16_t> frame(static_cast<size_t>(layout.force) * layout.sense);
  for (uint32_t f = 0; f < layout.force; ++f) {
    for (uint32_t s = 0; s < layout.sense; ++s) {
      frame[f * layout.sense + s] = static_cast<int16_t>(grid.values[layout.grid_index(f, s)]);
    }
  }
  test_limit_data minimum = new_test_limit_data();
  test_limit_data maximum = new_test_limit_data();
  const bool found = search_test_limit_entry("MS_RAW_DATA_EACH_MIN", limit_file_data,
                                             limit_file_size, &minimum) == TEST_LIMIT_OK &&
                     search_test_limit_entry("MS_RAW_DATA_EACH_MAX", limit_file_data,
                                             limit_file_size, &maximum) == TEST_LIMIT_OK &&
                     test_limit_covers(&minimum, layout.force, layout.sense) &&
                     test_limit_covers(&maximum, layout.force, layout.sense);
  if (found) {
    context.captured.clear();
    const uint32_t failures =
        check_min_max(frame.data(), static_cast<int32_t>(layout.force),
                      static_cast<int32_t>(layout.sense), minimum.data, maximum.data);
    for (const std::string &text : context.captured) {
      if (auto node = parse_node_message(text)) {
        node->check = "raw min/max";
        result.raw.nodes.push_back(*node);
      }
    }
    result.raw.result = failures == 0 ? verdict::passed : verdict::failed;
    result.raw.code = static_cast<int>(failures);
  } else {
    result.raw.detail = "the raw-data limits do not cover the panel";
  }
  clean_test_limit_data(&minimum);
  clean_test_limit_data(&maximum);
}

// Copies and decodes the five buffers and marks the failing nodes in them.
void collect_buffers(inspect_result &result) {
  const panel_layout &layout = result.layout;
  const size_t nodes = static_cast<size_t>(layout.force) * layout.sense;
  const size_t channels = static_cast<size_t>(layout.force) + layout.sense;
  result.buffers.push_back(
      decode("grid", kvr_afe_get_inspect_grid_data(), nodes, false, offset_binary));
  result.buffers.push_back(
      decode("line", kvr_afe_get_inspect_line_data(), channels, true, offset_binary));
  result.buffers.push_back(decode("noise", kvr_afe_get_inspect_noise(), nodes, false, plain_value));
  result.buffers.push_back(
      decode("calib_grid", kvr_afe_get_inspect_calib_grid_data(), nodes, false, signed_value));
  result.buffers.push_back(
      decode("calib_line", kvr_afe_get_inspect_calib_line_data(), channels, true, signed_value));
}

void mark_failures(inspect_result &result) {
  const panel_layout &layout = result.layout;
  auto in_panel = [&](const failing_node &n) {
    return n.kind == node_kind::mutual
               ? n.force >= 0 && n.sense >= 0 && static_cast<uint32_t>(n.force) < layout.force &&
                     static_cast<uint32_t>(n.sense) < layout.sense
           : n.kind == node_kind::force_channel
               ? n.force >= 0 && static_cast<uint32_t>(n.force) < layout.force
               : n.sense >= 0 && static_cast<uint32_t>(n.sense) < layout.sense;
  };
  for (const failing_node &n : result.raw.nodes) {
    if (in_panel(n)) {
      mark(result.buffers[0], layout.grid_index(n.force, n.sense));
    }
  }
  for (const failing_node &n : result.noise.nodes) {
    if (in_panel(n)) {
      mark(result.buffers[2], layout.grid_index(n.force, n.sense));
    }
  }
  for (const failing_node &n : result.cx.nodes) {
    if (!in_panel(n)) {
      continue;
    }
    if (n.kind == node_kind::mutual) {
      mark(result.buffers[3], layout.grid_index(n.force, n.sense));
    } else if (n.check.find("Detect") == std::string::npos) {
      // The calibration line holds the total IX; the detect IX is in no buffer.
      const int channel = n.kind == node_kind::force_channel ? n.force : n.sense;
      mark(result.buffers[4], layout.line_index(n.kind, static_cast<uint32_t>(channel)));
    }
  }
}

// ---- Printing ------------------------------------------------------------------------

const char *verdict_name(const test_outcome &t) {
  switch (t.result) {
  case verdict::passed:
    return "passed";
  case verdict::failed:
    return "FAILED";
  case verdict::not_run:
    break;
  }
  return "not run";
}

std::string node_text(const failing_node &n) {
  char where[48];
  if (n.kind == node_kind::mutual) {
    std::snprintf(where, sizeof where, "force %2d, sense %2d", n.force, n.sense);
  } else if (n.kind == node_kind::force_channel) {
    std::snprintf(where, sizeof where, "force channel %2d", n.force);
  } else {
    std::snprintf(where, sizeof where, "sense channel %2d", n.sense);
  }
  char limit[48];
  if (n.minimum) {
    std::snprintf(limit, sizeof limit, "outside [%d, %d]", *n.minimum, n.maximum);
  } else {
    std::snprintf(limit, sizeof limit, "> limit %d", n.maximum);
  }
  char line[200];
  std::snprintf(line, sizeof line, "%-36s %-20s = %6d  %s", n.check.c_str(), where, n.value, limit);
  return line;
}

void print_test(const char *name, const test_outcome &t) {
  std::printf("  %-6s %s", name, verdict_name(t));
  if (t.result == verdict::failed) {
    std::printf(" (code %d)", t.code);
  }
  if (t.retries > 0) {
    std::printf(", retried %d time%s after the firmware stopped answering", t.retries,
                t.retries == 1 ? "" : "s");
  }
  if (!t.nodes.empty()) {
    std::printf(", %zu failing node%s", t.nodes.size(), t.nodes.size() == 1 ? "" : "s");
  }
  std::printf("\n");
  if (!t.detail.empty() && t.result != verdict::passed) {
    std::printf("           %s\n", t.detail.c_str());
  }
  for (size_t i = 0; i < std::min(t.nodes.size(), kNodesShown); ++i) {
    std::printf("           %s\n", node_text(t.nodes[i]).c_str());
  }
  if (t.nodes.size() > kNodesShown) {
    std::printf("           ... and %zu more\n", t.nodes.size() - kNodesShown);
  }
}

void print_mask(const inspect_result &r) {
  std::printf("\nresult 0x%02X (%s)\n", r.mask, r.mask == 0 ? "every test passed" : "FAILED");
  for (uint32_t bit : kMaskBits) {
    std::printf("  0x%02X %-58s %s\n", bit, mask_bit_meaning(bit),
                (r.mask & bit) != 0 ? "SET" : "-");
  }
  const bool earlier_failed = r.ito.result == verdict::failed || r.noise.result == verdict::failed;
  if ((r.mask & INSPECT_FAIL_CX) != 0 && r.cx.result == verdict::failed && earlier_failed) {
    std::printf("  a CX failure replaces the ITO and noise bits; their own verdicts follow\n");
  }
  if ((r.mask & INSPECT_FAIL_CX) != 0 && r.ran && r.cx.result != verdict::failed) {
    std::printf("  0x80 without a CX verdict: the run could not start its tests\n");
  }
  if (!r.setup_error.empty()) {
    std::printf("  stopped by: %s\n", r.setup_error.c_str());
  }
}

void print_chip(const inspect_result &r) {
  const chip_versions &v = r.versions;
  const panel_layout &l = r.layout;
  std::printf("\nchip\n");
  std::printf("  firmware 0x%04X, config 0x%04X (id 0x%04X), cx config 0x%04X, cx 0x%02X, "
              "afe config 0x%02X, panel config 0x%02X\n",
              v.fw, v.cfg, v.cfg_id, v.cx_cfg, v.cx, v.afe_cfg, v.panel_cfg);
  std::printf("  chip0 id 0x%04X version 0x%04X, chip1 id 0x%04X version 0x%04X, api %u.%u.%u\n",
              v.chip0_id, v.chip0_ver, v.chip1_id, v.chip1_ver, v.api_first, v.api_second,
              v.api_third);
  std::printf("  panel %u force x %u sense; buffers in output orientation: %u rows x %u columns "
              "(swap %s, force reversed %s, sense reversed %s)\n",
              l.force, l.sense, l.out_rows(), l.out_cols(), l.orientation.swap ? "on" : "off",
              l.orientation.force_reverse ? "on" : "off",
              l.orientation.sense_reverse ? "on" : "off");
}

void print_result(const inspect_result &r) {
  print_mask(r);
  std::printf("\ntests\n");
  print_test("SRAM", r.sram);
  print_test("ITO", r.ito);
  print_test("noise", r.noise);
  print_test("CX", r.cx);
  std::printf("  stored raw frame against MS_RAW_DATA_EACH_MIN/MAX (not part of the result):\n");
  print_test("raw", r.raw);
  print_chip(r);
  std::printf("\nrun took %.2f s on the library's clock\n", r.duration_s);
}

// Opens the library and runs the inspection; fills result.
int run_and_gather(const inspect_options &options, run_context &context, inspect_result &result) {
  const uint32_t opened = kvr_afe_open();
  if (opened != KVR_AFE_OK) {
    std::fprintf(stderr, "afehal-tool: kvr_afe_open failed with %u%s\n", opened,
                 opened == KVR_AFE_ERR_OPEN ? " (the device node could not be opened)" : "");
    return kExitError;
  }
  std::printf("inspecting %s\n", options.use_sim ? "the simulated panel" : "/dev/kvr");
  result.started_utc = utc_now();
  const double start = library_seconds();
  result.mask = kvr_afe_inspect();
  result.duration_s = library_seconds() - start;
  context.at = phase::after;
  if (result.mask == KVR_AFE_INSPECT_REFUSED) {
    std::fprintf(stderr, "afehal-tool: the inspection was refused in state %u\n",
                 static_cast<uint32_t>(gu32AFEStatus));
    return kExitError;
  }
  if (!result.ran) {
    std::fprintf(stderr, "afehal-tool: the IC could not be started (result %u)\n", result.mask);
    return kExitError;
  }
  const chip_info &ci = run_chip_info();
  result.versions = versions_of(ci);
  result.layout.force = ci.force_len;
  result.layout.sense = ci.force_len == 0 ? 0 : ci.sense_len;
  result.layout.orientation = current_frame_orientation();
  const uint32_t nodes = result.layout.force * result.layout.sense;
  if (nodes > kGridCapacity || result.layout.force + result.layout.sense > kLineCapacity) {
    std::fprintf(stderr,
                 "afehal-tool: the chip reports %u x %u channels, more than the result "
                 "buffers hold\n",
                 result.layout.force, result.layout.sense);
    return kExitError;
  }
  collect_buffers(result);
  if (result.noise.result != verdict::not_run) {
    check_raw_frame(result, context); // the noise test stored its first frame
  }
  mark_failures(result);
  return kExitPassed;
}

void close_library() {
  if (gu32AFEStatus == KVR_STATE_WORKING) {
    kvr_afe_stop();
  }
  if (gu32AFEStatus == KVR_STATE_PREWORKING) {
    kvr_afe_close();
  }
}

} // namespace

size_t panel_layout::grid_index(uint32_t f, uint32_t s) const {
  const uint32_t fo = orientation.force_reverse ? force - 1 - f : f;
  const uint32_t so = orientation.sense_reverse ? sense - 1 - s : s;
  return orientation.swap ? static_cast<size_t>(so) * force + fo
                          : static_cast<size_t>(fo) * sense + so;
}

size_t panel_layout::line_index(node_kind kind, uint32_t channel) const {
  if (kind == node_kind::force_channel) {
    const uint32_t at = orientation.force_reverse ? force - 1 - channel : channel;
    return orientation.swap ? at : sense + at;
  }
  const uint32_t at = orientation.sense_reverse ? sense - 1 - channel : channel;
  return orientation.swap ? force + at : at;
}

std::string sim_panel_help() {
  std::string text;
  for (const sim_fault &fault : kSimFaults) {
    text += std::string("  ") + fault.name + ": " + fault.description + "\n";
  }
  return text;
}

std::optional<inspect_result> inspect(const inspect_options &options) {
  std::vector<const sim_fault *> faults;
  for (const std::string &name : options.panel) {
    const sim_fault *fault = find_fault(name);
    if (fault == nullptr) {
      std::fprintf(stderr, "afehal-tool: unknown simulated panel \"%s\"; known:\n%s", name.c_str(),
                   sim_panel_help().c_str());
      return std::nullopt;
    }
    faults.push_back(fault);
  }
  std::optional<sim_session> session;
  run_context context;
  if (options.use_sim) {
    session.emplace(sim::clock_mode::virtual_clock);
    for (const sim_fault *fault : faults) {
      if (fault->arm_at == nullptr) {
        fault->apply();
      } else {
        context.armed.push_back(fault);
      }
    }
  }
  inspect_result result;
  run_log_reader reader(result);
  context.reader = &reader;
  context.echo_all = options.log_level > 1;
  g_run = &context;
  kvr_afe_set_log_callback_func(inspect_log_sink);
  kvr_afe_set_log_level(static_cast<uint8_t>(options.log_level));
  const int status = run_and_gather(options, context, result);
  close_library();
  kvr_afe_set_log_level(0);
  g_run = nullptr;
  if (status != kExitPassed) {
    return std::nullopt;
  }
  return result;
}

int run_inspect(const inspect_options &options) {
  if (!options.use_sim && !options.panel.empty()) {
    std::fprintf(stderr, "afehal-tool: --panel needs --sim\n");
    return kExitError;
  }
  const std::optional<inspect_result> result = inspect(options);
  if (!result) {
    return kExitError;
  }
  print_result(*result);
  if (!options.report_dir.empty()) {
    const std::string problem = write_report(*result, options.report_dir);
    if (!problem.empty()) {
      std::fprintf(stderr, "afehal-tool: %s\n", problem.c_str());
      return kExitError;
    }
    std::printf("report written to %s\n", options.report_dir.c_str());
  }
  return result->mask == 0 ? kExitPassed : kExitFailed;
}

} // namespace tool
