// Which instruction set the frame path's inner loops (the frame CRC and the
// frame conversion) run on. Each loop is compiled once per target; the best
// target this CPU runs is picked at the first call and kept. The portable
// code (table CRC, scalar conversion) is the reference every target must
// match bit for bit, and what runs where no vector unit helps.
#pragma once

#include <cstdint>
#include <vector>

namespace simd {

// Not a vector target: the portable code.
constexpr int64_t kPortable = 0;

// True while the portable code is forced (tests only).
bool portable_forced();

// Test support: every target compiled in that this CPU can run, best first,
// then kPortable.
std::vector<int64_t> runnable_targets();

// Test support: run only `target` from now on (kPortable included); -1
// returns to the automatic choice.
void force_target(int64_t target);

const char *target_name(int64_t target);

} // namespace simd
