// afehal-tool: the engineer's command-line face of libafehal.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>

#include "afehal/afehal.h"
#include "sim/sim.h"
#include "tools/tool.h"

namespace {

void print_log_line(const char *line) {
  std::fputs(line, stderr);
}

// Opens, starts, reads the identity, stops and closes the library.
int run_demo(bool use_sim, int log_level) {
  if (use_sim) {
    sim::install(sim::clock_mode::virtual_clock);
  }
  kvr_afe_set_log_callback_func(print_log_line);
  kvr_afe_set_log_level(static_cast<uint8_t>(log_level));

  std::printf("libafehal interface version %u.%u.%u\n", kvr_afe_hal_spec_major_version(),
              kvr_afe_hal_spec_minor_version(), kvr_afe_hal_spec_patch_version());
  uint32_t r = kvr_afe_open();
  std::printf("open   -> %u (state %u)\n", r, gu32AFEStatus);
  if (r != 0) {
    return 1;
  }
  r = kvr_afe_start();
  std::printf("start  -> %u (state %u)\n", r, gu32AFEStatus);
  if (const kvr_afe_info *info = kvr_afe_get_info()) {
    std::printf("chip   -> %.32s / %.32s / %.32s\n", info->ic_name, info->vendor_name,
                info->version);
  }
  r = kvr_afe_stop();
  std::printf("stop   -> %u (state %u)\n", r, gu32AFEStatus);
  r = kvr_afe_close();
  std::printf("close  -> %u (state %u)\n", r, gu32AFEStatus);
  if (use_sim) {
    sim::uninstall();
  }
  return 0;
}

// "afehal-tool 1.19.0": the tool is built with the library, so both carry the
// library's interface version.
std::string version_text() {
  return "afehal-tool " + std::to_string(kvr_afe_hal_spec_major_version()) + "." +
         std::to_string(kvr_afe_hal_spec_minor_version()) + "." +
         std::to_string(kvr_afe_hal_spec_patch_version());
}

} // namespace

int main(int argc, char **argv) {
  CLI::App app{"afehal-tool drives libafehal, the analog front end of the capacitive touch panel,\n"
               "on the touch driver's device node /dev/kvr or, with --sim, on a simulated driver,\n"
               "IC and panel: live frames, the firmware image and its update, the factory test\n"
               "limits and the factory inspection.",
               "afehal-tool"};
  app.require_subcommand(1);
  app.set_version_flag("--version", version_text);
  app.footer("Examples:\n"
             "  afehal-tool frames --sim --count 120\n"
             "  afehal-tool fw-info --sim-update\n"
             "  afehal-tool limits panel_limits.csv\n"
             "  afehal-tool inspect --sim --panel ito-open,noisy --report out\n"
             "Each command's own help: afehal-tool COMMAND --help.");

  bool demo_sim = false;
  int demo_level = 3;
  CLI::App *demo = app.add_subcommand(
      "demo", "open, start, print the chip's identity, stop and close the library");
  demo->footer("Walks the library through its lifecycle once and prints each call's result and\n"
               "the state after it: a quick check that the library, the driver and the IC answer.\n"
               "Example:\n  afehal-tool demo --sim --log-level 3");
  demo->add_flag("--sim", demo_sim, "use the simulated driver and panel");
  demo->add_option("--log-level", demo_level, "library log level 0..5")->check(CLI::Range(0, 5));

  tool::frames_options frames_opts;
  std::string frames_clock = "auto";
  CLI::App *frames = app.add_subcommand(
      "frames", "stream frames as a live heatmap with a status line (Ctrl-C stops)");
  frames->footer("Opens and starts the library and draws each frame's mutual data as a heatmap,\n"
                 "with the frame index, scan frequency and rate, frames per second, status bits\n"
                 "and the counts of lost frames, CRC errors, empty calls and SOS frames. Ctrl-C\n"
                 "or --count ends it; the library is then stopped and closed.\n"
                 "Examples:\n"
                 "  afehal-tool frames --sim                 live view of a simulated panel\n"
                 "  afehal-tool frames --sim --count 120     120 frames, then stop\n"
                 "  afehal-tool frames --count 600 --fps     600 frames on /dev/kvr and the rate");
  frames->add_flag("--sim", frames_opts.use_sim,
                   "use the simulated driver and panel, with a moving touch");
  frames->add_option("--count", frames_opts.count, "stop after this many frames (0: never)")
      ->check(CLI::NonNegativeNumber);
  frames->add_flag("--fps", frames_opts.fps, "print the measured frame rate at the end");
  frames
      ->add_option("--clock", frames_clock,
                   "simulator clock: auto (real on a terminal or without --count, virtual for a "
                   "bounded run into a pipe or file), real or virtual")
      ->check(CLI::IsMember({"auto", "real", "virtual"}));
  frames
      ->add_option("--log-level", frames_opts.log_level,
                   "library log level 0..5 (from 1 the frame path logs a status line per frame)")
      ->check(CLI::Range(0, 5));
  frames
      ->add_option("--every", frames_opts.every,
                   "when not on a terminal: print every Nth frame (default 60)")
      ->check(CLI::PositiveNumber);
  frames
      ->add_option("--sim-drop", frames_opts.sim_drop,
                   "simulator: N frames after the first are scanned but never delivered")
      ->check(CLI::NonNegativeNumber);
  frames
      ->add_option("--sim-bad-crc", frames_opts.sim_bad_crc,
                   "simulator: N frames after those arrive with a wrong CRC")
      ->check(CLI::NonNegativeNumber);
  frames_opts.log_level = 0;

  tool::fw_info_options fw_opts;
  std::string fw_clock = "auto";
  int chip_fw = fw_opts.chip_fw;
  CLI::App *fw_info = app.add_subcommand(
      "fw-info", "check and show a firmware image; update a simulated chip with it");
  fw_info->footer(
      "Checks the firmware image built into the library, or FILE, and shows its header,\n"
      "sections, geometry bytes and the flash map the update would write. Exit 2 when\n"
      "FILE is unusable (the reason is printed), 3 when it has warnings.\n"
      "Examples:\n"
      "  afehal-tool fw-info                  the image built into the library\n"
      "  afehal-tool fw-info image.bin        a new image, or why it is unusable\n"
      "  afehal-tool fw-info --sim-update     update a simulated chip, with progress");
  fw_info->add_option("FILE", fw_opts.file, "firmware image file (default: the embedded image)");
  fw_info->add_flag("--sim-update", fw_opts.sim_update,
                    "then update a simulated chip holding older firmware, with progress");
  fw_info
      ->add_option("--chip-fw", chip_fw,
                   "fw version the simulated chip starts with (default 0x0080)")
      ->check(CLI::Range(0, 0xFFFF));
  fw_info
      ->add_option("--clock", fw_clock,
                   "simulator clock for --sim-update: auto (real on a terminal), real or virtual")
      ->check(CLI::IsMember({"auto", "real", "virtual"}));
  fw_info->add_flag("--verbose", fw_opts.verbose, "copy the library's log lines to stderr");

  tool::limits_options limits_opts;
  CLI::App *limits = app.add_subcommand("limits", "check a test-limits file and list its tables");
  limits->footer(
      "Checks the test-limits text built into the library, or FILE, naming the line and\n"
      "field of the first problem, then lists each table with its shape and the range\n"
      "of its values.\n"
      "Examples:\n"
      "  afehal-tool limits                    the limits built into the library\n"
      "  afehal-tool limits panel_limits.csv   check a file before shipping it");
  limits->add_option("FILE", limits_opts.file, "test-limits file (default: the embedded text)");

  tool::inspect_options inspect_opts;
  CLI::App *inspect =
      app.add_subcommand("inspect", "run the factory inspection and show or report its results");
  inspect->footer(
      "Runs the SRAM, ITO, noise and CX tests and shows the stages, the result mask bit\n"
      "by bit, each test's verdict, the failing nodes and the chip's versions; --report\n"
      "writes a PNG heatmap and a CSV per result buffer and summary.json. Exit 0 when\n"
      "every test passed, 2 when one failed, 1 when it could not run.\n"
      "Examples:\n"
      "  afehal-tool inspect --sim --report out              simulated panel, report\n"
      "  afehal-tool inspect --sim --panel ito-open,noisy    a panel with two faults\n"
      "  afehal-tool inspect --report /data/inspect          on /dev/kvr");
  inspect->add_flag("--sim", inspect_opts.use_sim, "use the simulated driver, IC and panel");
  inspect
      ->add_option("--panel", inspect_opts.panel,
                   "simulated faults, combinable (e.g. ito-open,noisy):\n" + tool::sim_panel_help())
      ->delimiter(',');
  inspect->add_option("--report", inspect_opts.report_dir,
                      "write PNG heatmaps, CSV files and summary.json into this directory");
  inspect
      ->add_option("--log-level", inspect_opts.log_level,
                   "library log level 1..5 (above 1 every library line goes to stderr)")
      ->check(CLI::Range(1, 5));

  CLI11_PARSE(app, argc, argv);
  if (demo->parsed()) {
    return run_demo(demo_sim, demo_level);
  }
  if (frames->parsed()) {
    frames_opts.clock = tool::parse_clock(frames_clock);
    return tool::run_frames(frames_opts);
  }
  if (fw_info->parsed()) {
    if (fw_opts.sim_update && !fw_opts.file.empty()) {
      std::fprintf(stderr, "afehal-tool: --sim-update always writes the embedded image; "
                           "give no FILE with it\n");
      return 1;
    }
    fw_opts.chip_fw = static_cast<uint16_t>(chip_fw);
    fw_opts.clock = tool::parse_clock(fw_clock);
    return tool::run_fw_info(fw_opts);
  }
  if (limits->parsed()) {
    return tool::run_limits(limits_opts);
  }
  if (inspect->parsed()) {
    return tool::run_inspect(inspect_opts);
  }
  return 0;
}
