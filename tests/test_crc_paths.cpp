// The frame CRC on every instruction-set target this machine runs, forced in
// turn, against Boost.CRC and against the portable table code, for lengths
// 0 to 3,000 at every alignment. Each input ends exactly at the end of its
// heap block, so a read past it stops the sanitized build.
#include <boost/crc.hpp>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "chip/transport/simd_target.h"
#include "chip/transport/work_point.h"

namespace {

using boost_frame_crc = boost::crc_optimal<32, 0xE89061DB, 0, 0, false, false>;

// What the IC computes: bytes 20.. of the buffer, each little-endian word
// most significant byte first, a short last word zero-padded.
uint32_t oracle(const std::vector<uint8_t> &frame) {
  if (frame.size() <= CRC_START) {
    return 0;
  }
  boost_frame_crc crc;
  for (size_t w = CRC_START; w < frame.size(); w += 4) {
    for (int b = 3; b >= 0; --b) {
      const size_t at = w + static_cast<size_t>(b);
      crc.process_byte(at < frame.size() ? frame[at] : 0);
    }
  }
  return crc.checksum();
}

// A copy of `frame` at `align` bytes into a heap block that ends with it.
struct placed {
  std::unique_ptr<uint8_t[]> block;
  const uint8_t *data;
  placed(const std::vector<uint8_t> &frame, size_t align)
      : block(new uint8_t[align + frame.size()]), data(block.get() + align) {
    if (!frame.empty()) {
      std::memcpy(block.get() + align, frame.data(), frame.size());
    }
  }
};

struct case_t {
  std::vector<uint8_t> frame;
  uint32_t expected;
};

// Every length up to 400 (every length modulo 16 and 4, and 0 to 23 whole
// blocks, enough for the four-way loop, its rest and the tail words), then
// random lengths up to 3,000.
std::vector<case_t> cases() {
  std::mt19937 rng(11);
  std::vector<size_t> lengths;
  for (size_t n = 0; n <= 400; ++n) {
    lengths.push_back(n);
  }
  std::uniform_int_distribution<size_t> any_length(401, 3000);
  for (int k = 0; k < 60; ++k) {
    lengths.push_back(any_length(rng));
  }
  lengths.push_back(3000);
  std::vector<case_t> out;
  for (size_t n : lengths) {
    std::vector<uint8_t> frame(n);
    for (auto &b : frame) {
      b = static_cast<uint8_t>(rng());
    }
    out.push_back({frame, oracle(frame)});
  }
  return out;
}

class CrcPaths : public ::testing::Test {
protected:
  void SetUp() override { build_crc_table(); }
  void TearDown() override { simd::force_target(-1); }
};

TEST_F(CrcPaths, EveryTargetMatchesBoostAtEveryLengthAndAlignment) {
  const std::vector<case_t> all = cases();
  const std::vector<int64_t> targets = simd::runnable_targets();
  ASSERT_GE(targets.size(), 2u) << "a vector target and the portable code";
  for (int64_t target : targets) {
    simd::force_target(target);
    for (const case_t &c : all) {
      for (size_t align = 0; align < 16; ++align) {
        const placed in(c.frame, align);
        ASSERT_EQ(calculate_crc(in.data, static_cast<uint32_t>(c.frame.size())), c.expected)
            << simd::target_name(target) << ", length " << c.frame.size() << ", alignment "
            << align;
      }
    }
  }
}

TEST_F(CrcPaths, AllOnesAndAllZeroBlocksOnEveryTarget) {
  // Extremes of the folding: every product bit set, and nothing to fold.
  for (uint8_t fill : {uint8_t{0x00}, uint8_t{0xFF}}) {
    const std::vector<uint8_t> frame(20 + 16 * 37, fill);
    const uint32_t expected = oracle(frame);
    for (int64_t target : simd::runnable_targets()) {
      simd::force_target(target);
      EXPECT_EQ(calculate_crc(frame.data(), static_cast<uint32_t>(frame.size())), expected)
          << simd::target_name(target) << ", fill " << int{fill};
    }
  }
}

TEST_F(CrcPaths, BeforeTheTableIsBuiltEveryTargetGivesZero) {
  // At load the table is empty and the checksum is 0 whatever the bytes;
  // the table-free folding must not change that.
  clear_crc_table();
  std::vector<uint8_t> frame(1254);
  for (size_t i = 0; i < frame.size(); ++i) {
    frame[i] = static_cast<uint8_t>(i * 7 + 1);
  }
  for (int64_t target : simd::runnable_targets()) {
    simd::force_target(target);
    EXPECT_EQ(calculate_crc(frame.data(), 1252), 0u) << simd::target_name(target);
  }
  build_crc_table();
  EXPECT_EQ(calculate_crc(frame.data(), 1252), oracle({frame.begin(), frame.begin() + 1252}));
}

} // namespace

// AFEHAL_TEST_SIMD picks a target by its name: each runnable target has its
// own, and the portable code is "portable".
TEST(SimdTargets, EachRunnableTargetHasItsOwnName) {
  const auto targets = simd::runnable_targets();
  std::set<std::string> names;
  for (const int64_t target : targets) {
    names.insert(simd::target_name(target));
  }
  EXPECT_EQ(names.size(), targets.size());
  EXPECT_EQ(names.count("portable"), 1u);
  EXPECT_STREQ(simd::target_name(simd::kPortable), "portable");
}
