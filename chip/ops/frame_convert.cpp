// The frame conversion, compiled once per target. The vector code converts
// the mutual grid in wire order, a full vector at a time (widen, to float,
// times the gains, truncate, keep the low 16 bits, XOR 0x8000), then
// transposes it in 8 x 8 blocks: the eight rows of a block are loaded from
// the bottom up and each transposed column is stored to its reversed output
// row, so both reversals cost nothing. The self lists are converted the same
// way and reversed eight values at a time in the register. Where a side is not a multiple of eight
// the last block overlaps the one before it and writes some outputs twice with the same values;
// nothing outside the grid is read or written.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "chip/ops/frame_convert.cpp"
#include "chip/transport/simd_config.h"
// clang-format off
#include "hwy/foreach_target.h" // IWYU pragma: keep
#include "hwy/highway.h"
// clang-format on

#include <algorithm>
#include <bit>
#include <cstring>

#include "chip/ops/frame_convert.h"
#include "chip/ops/frame_parse.h"
#include "chip/transport/simd_target.h"

#if HWY_ONCE
namespace {
int16_t read_i16(const uint8_t *p) {
  return static_cast<int16_t>(p[0] | (p[1] << 8));
}
} // namespace

// The gain is applied in wire order first, a contiguous pass, and the result
// is then scattered into the output orientation.
void convert_mutual_scalar(const uint8_t *raw, const float *gain, uint32_t force, uint32_t sense,
                           uint16_t *out) {
  static_assert(std::endian::native == std::endian::little, "frames are little-endian");
  const uint32_t nodes = force * sense;
  int16_t values[FRAME_MUTUAL_CAPACITY];
  uint16_t converted[FRAME_MUTUAL_CAPACITY];
  std::memcpy(values, raw, sizeof(int16_t) * nodes);
  for (uint32_t e = 0; e < nodes; ++e) {
    converted[e] = to_output(gain[e], values[e]);
  }
  for (uint32_t o = 0; o < sense; ++o) {
    const uint32_t column = sense - 1 - o;
    uint16_t *row = out + o * force;
    for (uint32_t i = 0; i < force; ++i) {
      row[i] = converted[(force - 1 - i) * sense + column];
    }
  }
}

void convert_reversed_scalar(const uint8_t *raw, const float *gain, uint32_t n, uint16_t *out) {
  for (uint32_t j = 0; j < n; ++j) {
    const uint32_t r = n - 1 - j;
    out[j] = to_output(gain[r], read_i16(raw + 2 * r));
  }
}
#endif // HWY_ONCE

HWY_BEFORE_NAMESPACE();
namespace frame_convert {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

#if HWY_TARGET != HWY_SCALAR
constexpr uint32_t kLanes = 8;
using DU16 = hn::Full128<uint16_t>;
using VU16 = hn::Vec<DU16>;

// Rows v[0..7] in, columns out. The fixed loops here are unrolled so that
// the eight vectors stay in registers.
HWY_INLINE void transpose8x8(VU16 v[kLanes]) {
  const DU16 d16;
  const hn::Full128<uint32_t> d32;
  const hn::Full128<uint64_t> d64;
  hn::Vec<decltype(d32)> a[kLanes];
#pragma GCC unroll 8
  for (uint32_t k = 0; k < kLanes; k += 2) {
    a[k] = hn::BitCast(d32, hn::InterleaveLower(d16, v[k], v[k + 1]));
    a[k + 1] = hn::BitCast(d32, hn::InterleaveUpper(d16, v[k], v[k + 1]));
  }
  hn::Vec<decltype(d64)> b[kLanes];
#pragma GCC unroll 8
  for (uint32_t k = 0; k < kLanes; k += 4) {
    b[k] = hn::BitCast(d64, hn::InterleaveLower(d32, a[k], a[k + 2]));
    b[k + 1] = hn::BitCast(d64, hn::InterleaveUpper(d32, a[k], a[k + 2]));
    b[k + 2] = hn::BitCast(d64, hn::InterleaveLower(d32, a[k + 1], a[k + 3]));
    b[k + 3] = hn::BitCast(d64, hn::InterleaveUpper(d32, a[k + 1], a[k + 3]));
  }
#pragma GCC unroll 8
  for (uint32_t k = 0; k < 4; ++k) {
    v[2 * k] = hn::BitCast(d16, hn::InterleaveLower(d64, b[k], b[k + 4]));
    v[2 * k + 1] = hn::BitCast(d16, hn::InterleaveUpper(d64, b[k], b[k + 4]));
  }
}

// converted[e] for e in 0..n-1 in wire order, as many values at a time as
// the target's widest vector holds; a last partial vector overlaps the one
// before it.
HWY_INLINE void convert_wire_order(const uint8_t *raw, const float *gain, uint32_t n,
                                   uint16_t *converted) {
  const hn::ScalableTag<int32_t> d32;
  const hn::Rebind<int16_t, decltype(d32)> d16;
  const hn::Rebind<uint16_t, decltype(d32)> du16;
  const hn::Rebind<float, decltype(d32)> df;
  const hn::RebindToUnsigned<decltype(d32)> du32;
  const uint32_t lanes = static_cast<uint32_t>(hn::Lanes(d32));
  if (n < lanes) {
    for (uint32_t e = 0; e < n; ++e) {
      converted[e] = to_output(gain[e], static_cast<int16_t>(raw[2 * e] | (raw[2 * e + 1] << 8)));
    }
    return;
  }
  const auto zero_signal = hn::Set(du16, 0x8000);
  for (uint32_t i = 0; i < n; i += lanes) {
    const uint32_t e = std::min(i, n - lanes);
    const auto v = hn::PromoteTo(d32, hn::LoadU(d16, reinterpret_cast<const int16_t *>(raw) + e));
    // Truncation toward zero; the low 16 bits are kept exactly.
    const auto product = hn::ConvertTo(d32, hn::Mul(hn::ConvertTo(df, v), hn::LoadU(df, gain + e)));
    const auto low16 = hn::TruncateTo(du16, hn::BitCast(du32, product));
    hn::StoreU(hn::Xor(low16, zero_signal), du16, converted + e);
  }
}

// Output rows of sense columns c0..c0+7, output columns i0..i0+7, from the
// values converted in wire order.
HWY_INLINE void transpose_block(const uint16_t *converted, uint32_t force, uint32_t sense,
                                uint32_t i0, uint32_t c0, uint16_t *out) {
  VU16 v[kLanes];
#pragma GCC unroll 8
  for (uint32_t k = 0; k < kLanes; ++k) {
    v[k] = hn::LoadU(DU16(), converted + (force - 1 - (i0 + k)) * sense + c0);
  }
  transpose8x8(v);
#pragma GCC unroll 8
  for (uint32_t j = 0; j < kLanes; ++j) {
    hn::StoreU(v[j], DU16(), out + (sense - 1 - (c0 + j)) * force + i0);
  }
}

void ConvertMutual(const uint8_t *raw, const float *gain, uint32_t force, uint32_t sense,
                   uint16_t *out) {
  if (force < kLanes || sense < kLanes) {
    convert_mutual_scalar(raw, gain, force, sense, out);
    return;
  }
  HWY_ALIGN uint16_t converted[FRAME_MUTUAL_CAPACITY];
  convert_wire_order(raw, gain, force * sense, converted);
  for (uint32_t i = 0; i < force; i += kLanes) {
    const uint32_t i0 = std::min(i, force - kLanes);
    for (uint32_t c = 0; c < sense; c += kLanes) {
      transpose_block(converted, force, sense, i0, std::min(c, sense - kLanes), out);
    }
  }
}

// Converted in wire order a chunk at a time, then reversed eight values at a
// time in the register; a short last chunk or block overlaps the one before.
void ConvertReversed(const uint8_t *raw, const float *gain, uint32_t n, uint16_t *out) {
  if (n < kLanes) {
    convert_reversed_scalar(raw, gain, n, out);
    return;
  }
  constexpr uint32_t kChunk = 256;
  HWY_ALIGN uint16_t converted[kChunk];
  for (uint32_t j = 0; j < n; j += kChunk) {
    const uint32_t j0 = std::min(j, n - kLanes);
    const uint32_t take = std::min(kChunk, n - j0);
    const uint32_t base = n - j0 - take;
    convert_wire_order(raw + 2 * base, gain + base, take, converted);
    for (uint32_t b = 0; b < take; b += kLanes) {
      const uint32_t b0 = std::min(b, take - kLanes);
      const VU16 v = hn::LoadU(DU16(), converted + take - b0 - kLanes);
      hn::StoreU(hn::Reverse(DU16(), v), DU16(), out + j0 + b0);
    }
  }
}
#else
void ConvertMutual(const uint8_t *raw, const float *gain, uint32_t force, uint32_t sense,
                   uint16_t *out) {
  convert_mutual_scalar(raw, gain, force, sense, out);
}

void ConvertReversed(const uint8_t *raw, const float *gain, uint32_t n, uint16_t *out) {
  convert_reversed_scalar(raw, gain, n, out);
}
#endif // HWY_TARGET != HWY_SCALAR

} // namespace HWY_NAMESPACE
} // namespace frame_convert
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace frame_convert {
HWY_EXPORT(ConvertMutual);
HWY_EXPORT(ConvertReversed);
} // namespace frame_convert

void convert_mutual(const uint8_t *raw, const float *gain, uint32_t force, uint32_t sense,
                    uint16_t *out) {
  if (simd::portable_forced()) {
    convert_mutual_scalar(raw, gain, force, sense, out);
    return;
  }
  using namespace frame_convert;
  HWY_DYNAMIC_DISPATCH(ConvertMutual)(raw, gain, force, sense, out);
}

void convert_reversed(const uint8_t *raw, const float *gain, uint32_t n, uint16_t *out) {
  if (simd::portable_forced()) {
    convert_reversed_scalar(raw, gain, n, out);
    return;
  }
  using namespace frame_convert;
  HWY_DYNAMIC_DISPATCH(ConvertReversed)(raw, gain, n, out);
}
#endif // HWY_ONCE
