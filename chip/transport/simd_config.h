// Included before Highway by every file compiled per target, so that all of
// them agree on the set of targets.
//
// On AArch64 the 128-bit NEON target is the one the frame path wants: a
// 16-byte CRC block is one PMULL pair and a row of the 16 x 34 grid is two
// NEON vectors. The SVE targets are left out: they would add nothing for
// blocks of this size, and their carry-less multiply needs an optional
// extension that the little cores of a phone may lack.
#pragma once

// x86 CPUs with VPCLMULQDQ (AVX3_DL) fold four CRC blocks per instruction.
#ifndef HWY_WANT_AVX3_DL
#define HWY_WANT_AVX3_DL
#endif

#ifndef HWY_DISABLED_TARGETS
#define HWY_DISABLED_TARGETS (HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128)
#endif
