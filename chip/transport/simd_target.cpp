#include "chip/transport/simd_target.h"

#include <atomic>

#include "chip/transport/simd_config.h"
#include "hwy/highway.h"
#include "hwy/targets.h"

namespace simd {

namespace {
std::atomic<bool> portable{false};
} // namespace

bool portable_forced() {
  return portable.load(std::memory_order_relaxed);
}

std::vector<int64_t> runnable_targets() {
  std::vector<int64_t> targets = hwy::SupportedAndGeneratedTargets();
  targets.push_back(kPortable);
  return targets;
}

void force_target(int64_t target) {
  portable.store(target == kPortable, std::memory_order_relaxed);
  hwy::SetSupportedTargetsForTest(target > 0 ? target : 0);
  // The dispatch tables read the chosen target on every call.
  hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

const char *target_name(int64_t target) {
  return target == kPortable ? "portable" : hwy::TargetName(target);
}

} // namespace simd
