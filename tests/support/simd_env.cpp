// AFEHAL_TEST_SIMD=<name> runs a whole suite with the frame CRC and
// conversion on one target: "portable" or a target name as Highway prints it
// (e.g. AVX2, SSE4, EMU128, NEON). An unknown or unrunnable name aborts.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "chip/transport/simd_target.h"

namespace {

bool force_from_environment() {
  const char *wanted = std::getenv("AFEHAL_TEST_SIMD");
  if (wanted == nullptr || *wanted == '\0') {
    return false;
  }
  for (int64_t target : simd::runnable_targets()) {
    if (std::strcmp(simd::target_name(target), wanted) == 0) {
      simd::force_target(target);
      return true;
    }
  }
  std::fprintf(stderr, "AFEHAL_TEST_SIMD=%s: no such target on this machine\n", wanted);
  std::abort();
}

[[maybe_unused]] const bool forced = force_from_environment();

} // namespace
