// Wake-up gesture arming, the calls kept for compatibility, the integer root.
#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "afe/afe.h"
#include "chip/ops/lifecycle.h"
#include "support/fixture.h"

namespace {

TEST_F(SimTest, GestureReachesTheChipSideOnlyOnAChange) {
  open_and_start();
  clear_log();
  EXPECT_EQ(kvr_afe_enable_wakeup_gesture(1), 0u);
  EXPECT_EQ(kvr_afe_enable_wakeup_gesture(1), 0u);
  EXPECT_EQ(count_logged("Gesture: 1"), 1);
  EXPECT_EQ(count_logged("OUT"), 2);
  EXPECT_EQ(wakeup_gesture_flag.load(), 1u);

  // Armed: screen-off keeps the panel scanning (no sense-off command).
  sim::clear_recording();
  ASSERT_EQ(kvr_afe_screen_off(), 0u);
  const auto commands = sim::fw_commands();
  EXPECT_EQ(std::count(commands.begin(), commands.end(), std::vector<uint8_t>{0xA0, 0x00, 0x00}),
            0);

  // Disarmed in STANDBY, once.
  EXPECT_EQ(kvr_afe_disable_wakeup_gesture(), 0u);
  EXPECT_EQ(kvr_afe_disable_wakeup_gesture(), 0u);
  EXPECT_EQ(count_logged("Disable wakeup gesture"), 1);
  EXPECT_EQ(count_logged("OUT"), 5);
  EXPECT_EQ(wakeup_gesture_flag.load(), 0u);

  // The low byte is stored but the whole value compared: 256 is a change
  // every time, and leaves nothing armed on this side.
  EXPECT_EQ(kvr_afe_enable_wakeup_gesture(256), 0u);
  EXPECT_EQ(kvr_afe_enable_wakeup_gesture(256), 0u);
  EXPECT_EQ(count_logged("Gesture: 256"), 2);
  EXPECT_EQ(wakeup_gesture_flag.load(), 256u);
  EXPECT_EQ(wakeup_gesture.load(), 0);
  EXPECT_EQ(kvr_afe_disable_wakeup_gesture(), 0u);
  EXPECT_EQ(count_logged("Disable wakeup gesture"), 1);
}

TEST_F(SimTest, DeprecatedCallsAnswerZeroEvenInClosedWithOneLineEach) {
  EXPECT_EQ(kvr_afe_reset_freq_state(), 0u);
  EXPECT_EQ(kvr_afe_set_freq_point_min_hold_time(65535), 0u);
  EXPECT_EQ(kvr_afe_set_idle_scan_rate(200), 0u);
  EXPECT_EQ(kvr_afe_start_freq_shift(), 0u);
  EXPECT_EQ(kvr_afe_set_wakeup_gesture_scan_rate(7), 0u);
  EXPECT_EQ(log_messages(),
            (std::vector<std::string>{
                "function is empty due to deprecation",
                "function is empty due to deprecation. 65535", "function is empty: 200",
                "this api has been deprecated, no need to implement it.", "function is empty: 7"}));
  EXPECT_TRUE(logged("kvr_afe_set_idle_scan_rate", "function is empty: 200"));
  EXPECT_TRUE(android_errors().empty());
  EXPECT_TRUE(sim::ioctls().empty());
}

TEST(Sqrt32, EdgeValues) {
  EXPECT_EQ(sqrt32(0), 0);
  EXPECT_EQ(sqrt32(0xFFFE0000u), 65534);
  EXPECT_EQ(sqrt32(0xFFFE0001u), 65535);
  EXPECT_EQ(sqrt32(0xFFFFFFFFu), 65535);
}

// The root r is the one with r*r <= x < (r+1)*(r+1).
TEST(Sqrt32, PerfectSquaresTheirNeighboursAndRandomSamples) {
  for (uint32_t r = 1; r <= 65535; ++r) {
    const uint32_t square = r * r;
    ASSERT_EQ(sqrt32(square), r) << square;
    ASSERT_EQ(sqrt32(square - 1), r - 1) << square - 1;
    if (r < 65535) {
      ASSERT_EQ(sqrt32(square + 2 * r), r) << square + 2 * r; // the largest with this root
    }
  }
  std::mt19937 rng(20240611);
  std::uniform_int_distribution<uint32_t> any;
  for (int i = 0; i < 1000000; ++i) {
    const uint32_t x = any(rng);
    const uint64_t r = sqrt32(x);
    ASSERT_TRUE(r * r <= x && (r + 1) * (r + 1) > x) << x << " -> " << r;
  }
}

} // namespace
