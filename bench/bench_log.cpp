// The cost of a log call the level filters out: the frame path makes
// several per frame.
#include <benchmark/benchmark.h>

#include "platform/log.h"

namespace {

void discard_line(const char *line) {
  benchmark::DoNotOptimize(line);
}

// A sink is installed and the level (1) is below the message's (4).
void BM_NlogDisabledByLevel(benchmark::State &state) {
  log_callback.store(discard_line);
  log_level.store(1);
  int i = 0;
  for (auto _ : state) {
    NLOG(LOG_LEVEL_TRACE, "bench", "Frame %d checksum OK", i++);
  }
  log_callback.store(nullptr);
}
BENCHMARK(BM_NlogDisabledByLevel);

// No sink installed (the library's state until the service sets one).
void BM_NlogNoSink(benchmark::State &state) {
  log_callback.store(nullptr);
  log_level.store(5);
  int i = 0;
  for (auto _ : state) {
    NLOG(LOG_LEVEL_TRACE, "bench", "Frame %d checksum OK", i++);
  }
  log_level.store(1);
}
BENCHMARK(BM_NlogNoSink);

// For scale: a message that passes, formatted and handed to a sink that
// drops it.
void BM_NlogEnabled(benchmark::State &state) {
  log_callback.store(discard_line);
  log_level.store(5);
  int i = 0;
  for (auto _ : state) {
    NLOG(LOG_LEVEL_TRACE, "bench", "Frame %d checksum OK", i++);
  }
  log_callback.store(nullptr);
  log_level.store(1);
}
BENCHMARK(BM_NlogEnabled);

} // namespace
