// The frame CRC by carry-less multiplication, compiled once per target.
//
// The CRC feeds each little-endian word most significant bit first, so a
// 16-byte block w0 w1 w2 w3 is the 128-bit polynomial w0 x^96 + w1 x^64 +
// w2 x^32 + w3: its four 32-bit lanes reversed, with no byte swap. Four
// accumulators fold the blocks 64 bytes apart (x^512), are then folded into
// one, the rest of the blocks join one at a time, and the final 128 bits are
// reduced to the 32-bit CRC state through 96 and 64 bits and a Barrett
// reduction. The constants come from scripts/gen_crc_constants.py. Where
// the CPU multiplies four blocks per instruction (AVX3_DL), long inputs are
// folded a 64-byte vector at a time first.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "chip/transport/frame_crc_clmul.cpp"
#include "chip/transport/simd_config.h"
// clang-format off
#include "hwy/foreach_target.h" // IWYU pragma: keep
#include "hwy/highway.h"
// clang-format on

#include "chip/transport/frame_crc_constants.h"
#include "chip/transport/frame_crc_paths.h"

#if HWY_ARCH_ARM_A64
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

HWY_BEFORE_NAMESPACE();
namespace frame_crc {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Targets with a carry-less multiply instruction: PCLMULQDQ from SSE4 on,
// PMULL on AArch64 NEON. The others would emulate it, slower than the tables.
#undef AFEHAL_NATIVE_CLMUL
#if (HWY_ARCH_X86 && HWY_TARGET != HWY_SSSE3 && HWY_TARGET != HWY_EMU128 &&                        \
     HWY_TARGET != HWY_SCALAR) ||                                                                  \
    (HWY_ARCH_ARM_A64 && HWY_TARGET == HWY_NEON)
#define AFEHAL_NATIVE_CLMUL 1
#else
#define AFEHAL_NATIVE_CLMUL 0
#endif

#if AFEHAL_NATIVE_CLMUL
using D = hn::Full128<uint64_t>;
using V = hn::Vec<D>;

// Whether this CPU has the instruction: x86 targets from SSE4 on require it;
// on AArch64 it is the optional PMULL of the crypto extension.
bool cpu_has_clmul() {
#if HWY_ARCH_ARM_A64
  static const bool has = (getauxval(AT_HWCAP) & HWCAP_PMULL) != 0;
  return has;
#else
  return true;
#endif
}

HWY_INLINE V load_block(const uint8_t *p) {
  const hn::Full128<uint8_t> d8;
  const hn::Full128<uint32_t> d32;
  return hn::BitCast(D(), hn::Shuffle0123(hn::BitCast(d32, hn::LoadU(d8, p))));
}

// acc x^d + next, with k = {x^d mod P, x^(d+64) mod P}.
HWY_INLINE V fold(V acc, V k, V next) {
  return hn::Xor(hn::Xor(hn::CLMulLower(acc, k), hn::CLMulUpper(acc, k)), next);
}

// The CRC state of a message congruent to `a`: a x^32 mod P.
HWY_INLINE uint32_t reduce(V a) {
  const D d;
  const V zero = hn::Zero(d);
  // a x^32 = hi x^96 + lo x^32: 96 bits.
  const V lo_x32 = hn::ShiftLeftBytes<4>(d, hn::InterleaveLower(d, a, zero));
  const V v96 = hn::Xor(hn::CLMulUpper(a, hn::Load(d, crc_fold::kReduce96)), lo_x32);
  // The top 32 bits times x^64 mod P, plus the low 64 bits.
  const V v64 = hn::Xor(hn::CLMulUpper(v96, hn::Load(d, crc_fold::kReduce64)),
                        hn::InterleaveLower(d, v96, zero));
  // Barrett: quotient floor(v64 / P) from mu, then v64 - quotient x P.
  const V t1 = hn::CLMulLower(hn::ShiftRight<32>(v64), hn::Load(d, crc_fold::kBarrettMu));
  const V t2 = hn::CLMulLower(hn::ShiftRight<32>(t1), hn::Load(d, crc_fold::kBarrettPoly));
  return static_cast<uint32_t>(hn::GetLane(hn::Xor(v64, t2)));
}

#if HWY_TARGET == HWY_AVX3_DL
// VPCLMULQDQ multiplies the four 128-bit blocks of a 512-bit vector at once:
// four accumulators of four blocks each fold 256 bytes apart, then one
// vector folds 64 bytes at a time, and its four blocks are folded onto one.
using DW = hn::Full512<uint64_t>;
using VW = hn::Vec<DW>;

HWY_INLINE VW load_wide(const uint8_t *p) {
  const hn::Full512<uint8_t> d8;
  const hn::Full512<uint32_t> d32;
  return hn::BitCast(DW(), hn::Shuffle0123(hn::BitCast(d32, hn::LoadU(d8, p))));
}

HWY_INLINE VW fold_wide(VW acc, VW k, VW next) {
  return hn::Xor(hn::Xor(hn::CLMulLower(acc, k), hn::CLMulUpper(acc, k)), next);
}

// Consumes the blocks while at least four are left; at least 16 on entry.
HWY_INLINE V fold_wide_blocks(const uint8_t *&p, uint32_t &blocks) {
  const DW d;
  VW a0 = load_wide(p);
  VW a1 = load_wide(p + 64);
  VW a2 = load_wide(p + 128);
  VW a3 = load_wide(p + 192);
  p += 256;
  blocks -= 16;
  const VW k2048 = hn::LoadDup128(d, crc_fold::kFold2048);
  for (; blocks >= 16; blocks -= 16, p += 256) {
    a0 = fold_wide(a0, k2048, load_wide(p));
    a1 = fold_wide(a1, k2048, load_wide(p + 64));
    a2 = fold_wide(a2, k2048, load_wide(p + 128));
    a3 = fold_wide(a3, k2048, load_wide(p + 192));
  }
  const VW k512 = hn::LoadDup128(d, crc_fold::kFold512);
  VW acc = fold_wide(a2, k512, a3);
  acc = hn::Xor(acc, fold_wide(a1, hn::LoadDup128(d, crc_fold::kFold1024), hn::Zero(d)));
  acc = hn::Xor(acc, fold_wide(a0, hn::LoadDup128(d, crc_fold::kFold1536), hn::Zero(d)));
  for (; blocks >= 4; blocks -= 4, p += 64) {
    acc = fold_wide(acc, k512, load_wide(p));
  }
  const VW blocks4 = fold_wide(acc, hn::Load(d, crc_fold::kCombine4), hn::Zero(d));
  const hn::Full256<uint64_t> d256;
  const auto half = hn::Xor(hn::LowerHalf(d256, blocks4), hn::UpperHalf(d256, blocks4));
  return hn::Xor(hn::LowerHalf(D(), half), hn::UpperHalf(D(), half));
}
#endif // HWY_TARGET == HWY_AVX3_DL

uint32_t fold_all(const uint8_t *p, uint32_t blocks) {
  const D d;
  V acc;
#if HWY_TARGET == HWY_AVX3_DL
  if (blocks >= 16) {
    acc = fold_wide_blocks(p, blocks);
    const V k128 = hn::Load(d, crc_fold::kFold128);
    for (; blocks > 0; --blocks, p += 16) {
      acc = fold(acc, k128, load_block(p));
    }
    return reduce(acc);
  }
#endif
  if (blocks >= 4) {
    V a0 = load_block(p);
    V a1 = load_block(p + 16);
    V a2 = load_block(p + 32);
    V a3 = load_block(p + 48);
    p += 64;
    blocks -= 4;
    const V k512 = hn::Load(d, crc_fold::kFold512);
    for (; blocks >= 4; blocks -= 4, p += 64) {
      a0 = fold(a0, k512, load_block(p));
      a1 = fold(a1, k512, load_block(p + 16));
      a2 = fold(a2, k512, load_block(p + 32));
      a3 = fold(a3, k512, load_block(p + 48));
    }
    acc = fold(a2, hn::Load(d, crc_fold::kFold128), a3);
    acc = hn::Xor(acc, fold(a1, hn::Load(d, crc_fold::kFold256), hn::Zero(d)));
    acc = hn::Xor(acc, fold(a0, hn::Load(d, crc_fold::kFold384), hn::Zero(d)));
  } else {
    acc = load_block(p);
    p += 16;
    blocks -= 1;
  }
  const V k128 = hn::Load(d, crc_fold::kFold128);
  for (; blocks > 0; --blocks, p += 16) {
    acc = fold(acc, k128, load_block(p));
  }
  return reduce(acc);
}
#endif // AFEHAL_NATIVE_CLMUL

uint32_t FoldBlocks(const uint8_t *p, uint32_t blocks) {
#if AFEHAL_NATIVE_CLMUL
  if (cpu_has_clmul()) {
    return fold_all(p, blocks);
  }
#endif
  return crc_by_table(0, p, blocks * CRC_BLOCK_BYTES);
}

} // namespace HWY_NAMESPACE
} // namespace frame_crc
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace frame_crc {
HWY_EXPORT(FoldBlocks);

uint32_t dispatch(const uint8_t *p, uint32_t blocks) {
  return HWY_DYNAMIC_DISPATCH(FoldBlocks)(p, blocks);
}
} // namespace frame_crc

uint32_t crc_fold_blocks(const uint8_t *p, uint32_t blocks) {
  return frame_crc::dispatch(p, blocks);
}
#endif // HWY_ONCE
