// The frame conversion on every instruction-set target this machine runs,
// forced in turn, against the scalar reference: every raw value under every
// gain the panel's tables hold, and random grids of every shape up to the
// panel's 16 x 34. Inputs end exactly at the end of their heap blocks and
// outputs fill theirs, so a stray read or write stops the sanitized build.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "chip/ops/frame_convert.h"
#include "chip/ops/frame_parse.h"
#include "chip/transport/simd_target.h"

namespace {

template <typename T> std::unique_ptr<T[]> exact(size_t n) {
  return std::unique_ptr<T[]>(new T[n]);
}

class ConvertPaths : public ::testing::Test {
protected:
  void TearDown() override { simd::force_target(-1); }
};

TEST_F(ConvertPaths, EveryRawValueUnderEveryGainOnEveryTarget) {
  std::set<float> gains(gain_ms, gain_ms + PANEL_FORCE * PANEL_SENSE);
  gains.insert(gain_ss_force, gain_ss_force + PANEL_FORCE);
  gains.insert(gain_ss_sense, gain_ss_sense + PANEL_SENSE);
  constexpr uint32_t kValues = 65536;
  auto raw = exact<uint8_t>(2 * kValues);
  for (uint32_t v = 0; v < kValues; ++v) {
    raw[2 * v] = static_cast<uint8_t>(v);
    raw[2 * v + 1] = static_cast<uint8_t>(v >> 8);
  }
  auto gain = exact<float>(kValues);
  auto expected = exact<uint16_t>(kValues);
  auto got = exact<uint16_t>(kValues);
  const std::vector<int64_t> targets = simd::runnable_targets();
  for (float g : gains) {
    std::fill(gain.get(), gain.get() + kValues, g);
    convert_reversed_scalar(raw.get(), gain.get(), kValues, expected.get());
    // out[j] holds raw value 65535 - j: raw 0 reads 0x8000 at any gain, raw
    // -100 at unit gain 0x7F9C.
    ASSERT_EQ(expected[kValues - 1], 0x8000u);
    if (g == 1.0f) {
      ASSERT_EQ(expected[99], 0x7F9Cu);
    }
    for (int64_t target : targets) {
      simd::force_target(target);
      convert_reversed(raw.get(), gain.get(), kValues, got.get());
      ASSERT_TRUE(std::equal(got.get(), got.get() + kValues, expected.get()))
          << simd::target_name(target) << ", gain " << g;
    }
  }
}

TEST_F(ConvertPaths, RandomGridsAndListsOfEveryShapeOnEveryTarget) {
  std::mt19937 rng(11);
  const std::vector<int64_t> targets = simd::runnable_targets();
  for (uint32_t force = 1; force <= PANEL_FORCE; ++force) {
    for (uint32_t sense = 1; sense <= PANEL_SENSE; ++sense) {
      const uint32_t nodes = force * sense;
      auto raw = exact<uint8_t>(2 * nodes);
      for (uint32_t b = 0; b < 2 * nodes; ++b) {
        raw[b] = static_cast<uint8_t>(rng());
      }
      std::vector<uint16_t> mutual_expected(nodes);
      std::vector<uint16_t> self_expected(sense);
      convert_mutual_scalar(raw.get(), gain_ms, force, sense, mutual_expected.data());
      convert_reversed_scalar(raw.get(), gain_ss_sense, sense, self_expected.data());
      for (int64_t target : targets) {
        simd::force_target(target);
        auto mutual = exact<uint16_t>(nodes);
        auto self = exact<uint16_t>(sense);
        convert_mutual(raw.get(), gain_ms, force, sense, mutual.get());
        convert_reversed(raw.get(), gain_ss_sense, sense, self.get());
        ASSERT_TRUE(std::equal(mutual.get(), mutual.get() + nodes, mutual_expected.begin()))
            << simd::target_name(target) << ", " << force << " x " << sense;
        ASSERT_TRUE(std::equal(self.get(), self.get() + sense, self_expected.begin()))
            << simd::target_name(target) << ", self list of " << sense;
      }
    }
  }
}

TEST_F(ConvertPaths, TheReferenceTransposesWithBothAxesReversed) {
  // 3 x 2 grid, raw e = 1..6 at unit gain: output row o is sense column
  // 1-o read from the last force row up.
  const float unit[6] = {1, 1, 1, 1, 1, 1};
  const uint8_t raw[12] = {1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0};
  uint16_t out[6];
  convert_mutual_scalar(raw, unit, 3, 2, out);
  const uint16_t expected[6] = {0x8006, 0x8004, 0x8002, 0x8005, 0x8003, 0x8001};
  EXPECT_TRUE(std::equal(out, out + 6, expected));
}

} // namespace
