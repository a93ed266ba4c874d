// Pieces shared by the afehal-tool subcommands.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sim/sim.h"

namespace tool {

// ---- Terminal and signals ---------------------------------------------------

// stdout is an interactive terminal.
bool stdout_is_terminal();
// ANSI colour on stdout: a terminal and NO_COLOR unset (or empty).
bool colour_wanted();
// Installs a SIGINT/SIGTERM handler that only raises the stop flag.
void install_stop_handler();
bool stop_requested();

// ---- Clock choice for the simulated panel --------------------------------------

enum class clock_choice { automatic, real, virtual_time };
// "auto", "real" or "virtual".
clock_choice parse_clock(const std::string &text);
// automatic: the real clock when someone watches (a terminal) or the run is
// unbounded, the virtual clock for a bounded run into a pipe or file, which
// then takes a fraction of a second and is reproducible.
sim::clock_mode resolve_clock(clock_choice choice, bool bounded);
const char *clock_name(sim::clock_mode mode);

// The simulator installed for the lifetime of the object.
class sim_session {
public:
  explicit sim_session(sim::clock_mode mode) { sim::install(mode); }
  ~sim_session() { sim::uninstall(); }
  sim_session(const sim_session &) = delete;
  sim_session &operator=(const sim_session &) = delete;
};

// ---- Library log lines ------------------------------------------------------------

// The message of a line "[level][frame ms][T:now ms][tag] message\n" without
// the prefix and the newline; the whole line when it has no such prefix.
std::string_view log_message(std::string_view line);
// The level of such a line, or 0 when it has none.
int log_line_level(std::string_view line);

// ---- Heatmap ------------------------------------------------------------------

struct heatmap_style {
  bool colour = false;
  // Signal (value - 0x8000) shown at full scale; at least this much, or the
  // frame's own peak when larger.
  int32_t min_full_scale = 256;
};
// Mutual data is sense-major: rows o = 0..sense-1, each holding force values
// i = 0..force-1 at index o * force + i. A header line, then one text line
// per row, two characters per cell; values are offset binary (0x8000 = no
// signal).
std::string render_heatmap(std::span<const uint16_t> mutual, uint32_t force, uint32_t sense,
                           const heatmap_style &style);
// Names of the set status bits, e.g. "ACTIVE|SHIFT"; "-" when none.
std::string status_names(uint32_t status);

// ---- Subcommands --------------------------------------------------------------

struct frames_options {
  bool use_sim = false;
  int64_t count = 0; // 0: until interrupted
  bool fps = false;
  clock_choice clock = clock_choice::automatic;
  int log_level = 1;
  int64_t every = 0;   // frames between two heatmaps when not on a terminal; 0: default
  int sim_drop = 0;    // simulated frames the IC scans but never delivers
  int sim_bad_crc = 0; // simulated frames delivered with a wrong CRC
};
int run_frames(const frames_options &options);

struct fw_info_options {
  std::string file; // empty: the embedded image
  bool sim_update = false;
  uint16_t chip_fw = 0x0080; // fw version the simulated chip starts with
  clock_choice clock = clock_choice::automatic;
  bool verbose = false;
};
int run_fw_info(const fw_info_options &options);
// Starts the library on the simulated chip holding older firmware and shows
// the update's progress and the versions before and after.
int run_sim_update(const fw_info_options &options);

struct limits_options {
  std::string file; // empty: the embedded limits text
};
// Checks the limits file (line and field of the first problem) and lists
// its tables with their shapes and value ranges.
int run_limits(const limits_options &options);

struct inspect_options {
  bool use_sim = false;
  std::vector<std::string> panel; // simulated faults, combined (--sim only)
  std::string report_dir;         // empty: no report
  int log_level = 1;              // the stages are read from the level-1 lines
};
// Runs the factory inspection, prints the verdict, the failing nodes and the
// chip's versions, and writes the report when asked. 0 every test passed,
// 2 something failed, 1 the inspection could not run or the report could not
// be written.
int run_inspect(const inspect_options &options);
// One line per simulated panel: its name and what is wrong with it.
std::string sim_panel_help();

} // namespace tool
