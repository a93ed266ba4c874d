// Frequency-point and scan-rate forcing: the command bytes on the wire, when
// a request is sent or skipped, and what a failed command leaves behind.
// The time-outs and retries are in the command table of test_idle_calib.
#include <string>
#include <vector>

#include "chip/chip.h"
#include "chip/ops/lifecycle.h"
#include "chip/transport/fw_cmd.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using commands = std::vector<bytes>;

class FreqRateTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    open_and_start();
    // The simulated chip's four points (160, 145, 133, 123 kHz), two rates.
    ASSERT_NE(vendor_update_hw_cap(), nullptr);
    clear_log();
    sim::clear_recording();
  }

  static uint8_t requested_freq() { return work_parm_request[WP_FREQ_INDEX].load(); }
  static uint8_t auto_shift_disabled() { return work_parm[WP_AUTO_SHIFT_DISABLED].load(); }
};

TEST_F(FreqRateTest, APointIsSentWhenNewOrWhileShiftIsAutomaticAndNeverPastTheList) {
  // The current point once (it pins it), again, another point twice, a third.
  for (uint32_t index : {0u, 0u, 2u, 2u, 3u}) {
    EXPECT_TRUE(vendor_force_freq_point(index));
  }
  EXPECT_EQ(sim::fw_commands(),
            (commands{{0xA0, 0x03, 0x04}, {0xA0, 0x03, 0x06}, {0xA0, 0x03, 0x07}}));
  EXPECT_EQ(sim::ic().forced_freq_index, 3);
  EXPECT_EQ(count_logged(1, "skip setting force freq point"), 2);
  EXPECT_EQ(requested_freq(), 3);
  EXPECT_EQ(auto_shift_disabled(), 1);
  EXPECT_TRUE(logged_error(
      "vendor_force_freq_point",
      "current: 00 set: FF expec: 00, total 4 frequencies, auto frequency shift is enabled"));
  EXPECT_TRUE(logged_error(
      "current: 00 set: 00 expec: 00, total 4 frequencies, auto frequency shift is disabled"));

  // Switching automatic shift on or off sends nothing and does not re-enable
  // it; only a sense-on does, and it keeps the request: the same point is
  // pinned again, but nothing past the list (0x101 is not 1).
  EXPECT_TRUE(vendor_enable_freq_shift(true));
  EXPECT_TRUE(vendor_enable_freq_shift(false));
  EXPECT_EQ(auto_shift_disabled(), 1);
  sim::clear_recording();
  ASSERT_TRUE(vendor_exit_idle());
  EXPECT_EQ(auto_shift_disabled(), 0);
  EXPECT_EQ(requested_freq(), 3);
  for (uint32_t index : {4u, 0x101u, 3u}) {
    EXPECT_TRUE(vendor_force_freq_point(index));
  }
  EXPECT_EQ(sim::fw_commands(), (commands{{0xA0, 0x03, 0x00}, {0xA0, 0x03, 0x07}}));
  EXPECT_EQ(count_logged(1, "skip setting force freq point"), 4);
  EXPECT_EQ(requested_freq(), 3);
  EXPECT_EQ(auto_shift_disabled(), 1);
}

TEST_F(FreqRateTest, AScanRateIsSentOnlyForANewValidLowByte) {
  // 0x201 is rate 1; then 1 again, the current 0 (never re-sent) and 2 of
  // two rates.
  for (uint32_t index : {0x201u, 1u, 0u, 2u}) {
    EXPECT_TRUE(vendor_force_scan_rate(index));
  }
  EXPECT_TRUE(logged_error("vendor_force_scan_rate", "current: 00 set: FF expec: 01"));
  EXPECT_TRUE(logged_error("current: 00 set: 01 expec: 00"));
  EXPECT_EQ(sim::fw_commands(), (commands{{0xC0, 0x00, 0x01}}));
  EXPECT_EQ(sim::ic().forced_rate_index, 1);
  EXPECT_EQ(count_logged(1, "skip setting force scan rate"), 3);
  EXPECT_EQ(work_parm_request[WP_RATE_INDEX].load(), 1);
  EXPECT_EQ(auto_shift_disabled(), 0); // a rate never touches the frequency shift
}

TEST_F(FreqRateTest, AFailedCommandLeavesTheRequestUnchanged) {
  sim::drop_echoes(4);
  EXPECT_FALSE(vendor_force_freq_point(2));
  EXPECT_FALSE(vendor_force_scan_rate(1));
  EXPECT_TRUE(logged_error("vendor_force_freq_point", "Error setting force freq point 2"));
  EXPECT_TRUE(logged_error("vendor_force_scan_rate", "Error setting force scan rate"));
  EXPECT_EQ(requested_freq(), WORK_PARM_NO_REQUEST);
  EXPECT_EQ(work_parm_request[WP_RATE_INDEX].load(), WORK_PARM_NO_REQUEST);
  EXPECT_EQ(auto_shift_disabled(), 0);
}

} // namespace
