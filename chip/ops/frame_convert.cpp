// The frame conversion, compiled once per target. The vector code converts
// eight values at a time (widen, to float, times the gains, truncate, keep
// the low 16 bits, XOR 0x8000) and transposes the mutual grid in 8 x 8
// blocks: the eight rows of a block are loaded from the bottom up and each
// transposed column is stored to its reversed output row, so both reversals
// cost nothing. Where a side is not a multiple of eight the last block
// overlaps the one before it and writes some outputs twice with the same
// values; nothing outside the grid is read or written.
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

// Eight consecutive raw values and their gains.
HWY_INLINE VU16 convert8(const uint8_t *raw, const float *gain) {
  const hn::Full128<int16_t> di16;
  const hn::Half<decltype(di16)> di16_half;
  const hn::Full128<int32_t> di32;
  const hn::Full128<float> df;
  const hn::Full64<uint16_t> du16_half;
  const DU16 du16;
  const auto v = hn::BitCast(di16, hn::LoadU(hn::Full128<uint8_t>(), raw));
  const auto mask = hn::Set(di32, 0xFFFF);
  const auto lo = hn::PromoteTo(di32, hn::LowerHalf(v));
  const auto hi = hn::PromoteTo(di32, hn::UpperHalf(di16_half, v));
  // Truncation toward zero; only the low 16 bits are kept, exactly.
  const auto plo = hn::ConvertTo(di32, hn::Mul(hn::ConvertTo(df, lo), hn::LoadU(df, gain)));
  const auto phi = hn::ConvertTo(di32, hn::Mul(hn::ConvertTo(df, hi), hn::LoadU(df, gain + 4)));
  const auto low16 = hn::Combine(du16, hn::DemoteTo(du16_half, hn::And(phi, mask)),
                                 hn::DemoteTo(du16_half, hn::And(plo, mask)));
  return hn::Xor(low16, hn::Set(du16, 0x8000));
}

// Rows v[0..7] in, columns out.
HWY_INLINE void transpose8x8(VU16 v[kLanes]) {
  const DU16 d16;
  const hn::Full128<uint32_t> d32;
  const hn::Full128<uint64_t> d64;
  hn::Vec<decltype(d32)> a[kLanes];
  for (uint32_t k = 0; k < kLanes; k += 2) {
    a[k] = hn::BitCast(d32, hn::InterleaveLower(d16, v[k], v[k + 1]));
    a[k + 1] = hn::BitCast(d32, hn::InterleaveUpper(d16, v[k], v[k + 1]));
  }
  hn::Vec<decltype(d64)> b[kLanes];
  for (uint32_t k = 0; k < kLanes; k += 4) {
    b[k] = hn::BitCast(d64, hn::InterleaveLower(d32, a[k], a[k + 2]));
    b[k + 1] = hn::BitCast(d64, hn::InterleaveUpper(d32, a[k], a[k + 2]));
    b[k + 2] = hn::BitCast(d64, hn::InterleaveLower(d32, a[k + 1], a[k + 3]));
    b[k + 3] = hn::BitCast(d64, hn::InterleaveUpper(d32, a[k + 1], a[k + 3]));
  }
  for (uint32_t k = 0; k < 4; ++k) {
    v[2 * k] = hn::BitCast(d16, hn::InterleaveLower(d64, b[k], b[k + 4]));
    v[2 * k + 1] = hn::BitCast(d16, hn::InterleaveUpper(d64, b[k], b[k + 4]));
  }
}

// Output rows of sense columns c0..c0+7, output columns i0..i0+7.
HWY_INLINE void convert_block(const uint8_t *raw, const float *gain, uint32_t force, uint32_t sense,
                              uint32_t i0, uint32_t c0, uint16_t *out) {
  VU16 v[kLanes];
  for (uint32_t k = 0; k < kLanes; ++k) {
    const uint32_t e = (force - 1 - (i0 + k)) * sense + c0;
    v[k] = convert8(raw + 2 * e, gain + e);
  }
  transpose8x8(v);
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
  for (uint32_t i = 0; i < force; i += kLanes) {
    const uint32_t i0 = std::min(i, force - kLanes);
    for (uint32_t c = 0; c < sense; c += kLanes) {
      convert_block(raw, gain, force, sense, i0, std::min(c, sense - kLanes), out);
    }
  }
}

void ConvertReversed(const uint8_t *raw, const float *gain, uint32_t n, uint16_t *out) {
  if (n < kLanes) {
    convert_reversed_scalar(raw, gain, n, out);
    return;
  }
  for (uint32_t j = 0; j < n; j += kLanes) {
    const uint32_t j0 = std::min(j, n - kLanes);
    const uint32_t base = n - j0 - kLanes;
    hn::StoreU(hn::Reverse(DU16(), convert8(raw + 2 * base, gain + base)), DU16(), out + j0);
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
