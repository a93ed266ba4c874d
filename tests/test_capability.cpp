// Wake-up gesture arming and the exported integer root.
#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "afe/afe.h"
#include "chip/ops/lifecycle.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;

int times_sent(const bytes &command) {
  const auto sent = sim::fw_commands();
  return static_cast<int>(std::count(sent.begin(), sent.end(), command));
}

TEST_F(SimTest, GestureReachesTheChipSideOnlyOnAChange) {
  open_and_start();
  clear_log();
  EXPECT_EQ(kvr_afe_enable_wakeup_gesture(1), 0u);
  EXPECT_EQ(kvr_afe_enable_wakeup_gesture(1), 0u);
  EXPECT_EQ(count_logged(3, "Gesture: 1"), 1);
  EXPECT_EQ(count_logged(5, "OUT"), 2);
  EXPECT_EQ(wakeup_gesture_flag.load(), 1u);

  // Armed: screen-off keeps the panel scanning (no sense-off command), and a
  // start leaves the firmware alone (no chip-info request, no update check).
  sim::clear_recording();
  ASSERT_EQ(kvr_afe_start(), 0u);
  EXPECT_EQ(times_sent({0xA4, 0x06, 0x01}), 0);
  EXPECT_FALSE(mentioned("Starting flash procedure.."));
  ASSERT_EQ(kvr_afe_screen_off(), 0u);
  EXPECT_EQ(times_sent({0xA0, 0x00, 0x00}), 0);
  EXPECT_TRUE(sim::ic().sensing);

  // Disarmed in STANDBY, once.
  clear_log();
  EXPECT_EQ(kvr_afe_disable_wakeup_gesture(), 0u);
  EXPECT_EQ(kvr_afe_disable_wakeup_gesture(), 0u);
  EXPECT_EQ(count_logged(3, "Disable wakeup gesture"), 1);
  EXPECT_EQ(count_logged(5, "OUT"), 2);
  EXPECT_EQ(wakeup_gesture_flag.load(), 0u);
  ASSERT_EQ(kvr_afe_screen_on(), 0u);
  sim::clear_recording();
  ASSERT_EQ(kvr_afe_start(), 0u);
  EXPECT_TRUE(logged_error("fw_update", "Starting flash procedure.."));
  EXPECT_EQ(times_sent({0xA4, 0x06, 0x01}), 1);

  // The low byte is stored but the whole value compared: 256 is a change
  // every time, and leaves nothing armed on this side.
  clear_log();
  EXPECT_EQ(kvr_afe_enable_wakeup_gesture(256), 0u);
  EXPECT_EQ(kvr_afe_enable_wakeup_gesture(256), 0u);
  EXPECT_EQ(count_logged(3, "Gesture: 256"), 2);
  EXPECT_EQ(wakeup_gesture_flag.load(), 256u);
  EXPECT_EQ(kvr_afe_disable_wakeup_gesture(), 0u);
  EXPECT_FALSE(mentioned("Disable wakeup gesture"));
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
  EXPECT_EQ(sqrt32(0), 0);
  EXPECT_EQ(sqrt32(0xFFFFFFFFu), 65535);
  std::mt19937 rng(20240611);
  std::uniform_int_distribution<uint32_t> any;
  for (int i = 0; i < 200000; ++i) {
    const uint32_t x = any(rng);
    const uint64_t r = sqrt32(x);
    ASSERT_TRUE(r * r <= x && (r + 1) * (r + 1) > x) << x << " -> " << r;
  }
}

} // namespace
