// What every fuzz target shares: the library runs on the simulator with a
// fresh state for each input, every log line is formatted (so the format
// strings see the fuzzed values) and dropped, and whatever the library
// allocated must be freed again by the end of the input.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "afe/afe.h"
#include "chip/chip.h"
#include "platform/ioctrl.h"
#include "platform/log.h"
#include "sim/sim.h"

namespace fuzz {

// The log sink: lines are dropped, or printed when FUZZ_LOG is set in the
// environment (for reading a crash input).
inline void drop_line(const char *line) {
  static const bool print = std::getenv("FUZZ_LOG") != nullptr;
  if (print) {
    std::fputs(line, stderr);
  }
}

// A broken invariant: a report libFuzzer saves as a crash input.
[[noreturn]] inline void fail(const char *what) {
  std::fprintf(stderr, "fuzz invariant broken: %s\n", what);
  std::abort();
}

inline void check(bool ok, const char *what) {
  if (!ok) {
    fail(what);
  }
}

// The library as it stands after loading, on a fresh simulated driver, IC
// and panel (fresh_chip) or only with the recordings cleared (for targets
// that never reach the chip).
inline void begin_input(bool fresh_chip) {
  static const bool installed = [] {
    sim::install(sim::clock_mode::virtual_clock);
    return true;
  }();
  (void)installed;
  if (fresh_chip) {
    sim::reset();
  } else {
    sim::clear_recording();
  }
  afe_reset_state();
  ioctrl_reset_state();
  vendor_reset_state();
  log_callback.store(drop_line);
  log_level.store(LOG_LEVEL_ENTRY);
}

// Nothing the library allocated through the OS seam may still be held.
inline void expect_heap_empty() {
  check(sim::heap_live_blocks() == 0, "heap blocks still held after the input");
}

} // namespace fuzz
