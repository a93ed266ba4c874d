// afehal-tool: the engineer's command-line face of libafehal.
#include <CLI/CLI.hpp>

#include <cstdio>

#include "afehal/afehal.h"
#include "sim/sim.h"

namespace {

void print_log_line(const char *line) { std::fputs(line, stderr); }

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

} // namespace

int main(int argc, char **argv) {
  CLI::App app{"afehal-tool: drive libafehal on /dev/kvr or on the simulated panel"};
  app.require_subcommand(1);

  bool demo_sim = false;
  int demo_level = 3;
  CLI::App *demo = app.add_subcommand("demo", "open, start, stop and close the library");
  demo->add_flag("--sim", demo_sim, "use the simulated driver and panel");
  demo->add_option("--log-level", demo_level, "library log level 0..5")->check(CLI::Range(0, 5));

  CLI11_PARSE(app, argc, argv);
  if (demo->parsed()) {
    return run_demo(demo_sim, demo_level);
  }
  return 0;
}
