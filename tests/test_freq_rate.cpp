// Frequency-point and scan-rate forcing: the command bytes on the wire, when
// a request is sent or skipped, and what a failed command leaves behind.
#include <string>
#include <vector>

#include "support/fixture.h"
#include "vendor/ops/lifecycle.h"
#include "vendor/transport/fw_cmd.h"
#include "vendor/vendor.h"

namespace {

using bytes = std::vector<uint8_t>;

class FreqRateTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    open_and_start();
    hw_cap.freq_count = 4;
    hw_cap.rate_count = 2;
    clear_log();
    sim::clear_recording();
  }
  void TearDown() override {
    hw_cap.freq_count = 0;
    hw_cap.rate_count = 0;
    SimTest::TearDown();
  }

  static uint8_t requested_freq() { return work_parm_request[WP_FREQ_INDEX].load(); }
  static uint8_t requested_rate() { return work_parm_request[WP_RATE_INDEX].load(); }
  static uint8_t auto_shift_disabled() { return work_parm[WP_AUTO_SHIFT_DISABLED].load(); }
};

TEST_F(FreqRateTest, ForcingTheCurrentPointPinsItOnceThenSkips) {
  EXPECT_TRUE(vendor_force_freq_point(0));
  EXPECT_EQ(sim::fw_commands(), (std::vector<bytes>{{0xA0, 0x03, 0x04}}));
  EXPECT_EQ(requested_freq(), 0);
  EXPECT_EQ(auto_shift_disabled(), 1);
  const std::string first =
      "current: 00 set: FF expec: 00, total 4 frequencies, auto frequency shift is enabled";
  EXPECT_TRUE(logged("vendor_force_freq_point", first));
  EXPECT_EQ(android_errors().front(), first);

  EXPECT_TRUE(vendor_force_freq_point(0));
  EXPECT_EQ(sim::fw_commands().size(), 1u);
  EXPECT_TRUE(logged(
      "current: 00 set: 00 expec: 00, total 4 frequencies, auto frequency shift is disabled"));
  EXPECT_TRUE(logged("vendor_force_freq_point", "skip setting force freq point"));
}

TEST_F(FreqRateTest, AnotherPointIsSentOnceAndOutOfRangePointsNever) {
  EXPECT_TRUE(vendor_force_freq_point(2));
  EXPECT_TRUE(vendor_force_freq_point(2)); // already requested, shift disabled
  EXPECT_TRUE(vendor_force_freq_point(3));
  EXPECT_EQ(sim::fw_commands(), (std::vector<bytes>{{0xA0, 0x03, 0x06}, {0xA0, 0x03, 0x07}}));
  EXPECT_EQ(requested_freq(), 3);

  // Past the list even a re-enabled automatic shift sends nothing.
  work_parm[WP_AUTO_SHIFT_DISABLED].store(0);
  sim::clear_recording();
  EXPECT_TRUE(vendor_force_freq_point(4));
  EXPECT_TRUE(vendor_force_freq_point(0x104)); // no truncation to a valid point
  EXPECT_TRUE(sim::fw_commands().empty());
  EXPECT_EQ(requested_freq(), 3);
  EXPECT_EQ(count_logged("skip setting force freq point"), 3);
}

TEST_F(FreqRateTest, SenseOnReEnablesAutomaticShiftAndTheRequestStays) {
  EXPECT_TRUE(vendor_force_freq_point(1));
  ASSERT_EQ(auto_shift_disabled(), 1);
  ASSERT_TRUE(vendor_exit_idle()); // any sense-on
  EXPECT_EQ(auto_shift_disabled(), 0);
  EXPECT_EQ(requested_freq(), 1);

  // With automatic shift back on, the same point is pinned again.
  EXPECT_TRUE(vendor_force_freq_point(1));
  EXPECT_EQ(sim::fw_commands(),
            (std::vector<bytes>{{0xA0, 0x03, 0x05}, {0xA0, 0x03, 0x00}, {0xA0, 0x03, 0x05}}));
  EXPECT_EQ(auto_shift_disabled(), 1);
}

TEST_F(FreqRateTest, AFailedFrequencyCommandLeavesTheRequestUnchanged) {
  sim::drop_echoes(2);
  const int64_t start = sim::now_us();
  EXPECT_FALSE(vendor_force_freq_point(2));
  // Two attempts, each waiting 100 ms for its echo.
  EXPECT_EQ(sim::fw_commands(), (std::vector<bytes>{{0xA0, 0x03, 0x06}, {0xA0, 0x03, 0x06}}));
  const int64_t waited = sim::now_us() - start;
  EXPECT_GE(waited, 200000);
  EXPECT_LT(waited, 250000);
  EXPECT_TRUE(logged("vendor_force_freq_point", "Error setting force freq point 2"));
  EXPECT_EQ(android_errors().back(), "Error setting force freq point 2");
  EXPECT_EQ(requested_freq(), WORK_PARM_NO_REQUEST);
  EXPECT_EQ(auto_shift_disabled(), 0);
}

TEST_F(FreqRateTest, ScanRateIsSentOnlyForANewValidIndex) {
  EXPECT_TRUE(vendor_force_scan_rate(1));
  EXPECT_TRUE(logged("vendor_force_scan_rate", "current: 00 set: FF expec: 01"));
  EXPECT_EQ(requested_rate(), 1);
  EXPECT_TRUE(vendor_force_scan_rate(1)); // already requested
  EXPECT_TRUE(vendor_force_scan_rate(0)); // current: never re-sent
  EXPECT_TRUE(vendor_force_scan_rate(2)); // only two rates
  EXPECT_EQ(sim::fw_commands(), (std::vector<bytes>{{0xC0, 0x00, 0x01}}));
  EXPECT_EQ(count_logged("skip setting force scan rate"), 3);
  // Forcing never touches the automatic frequency shift.
  EXPECT_EQ(auto_shift_disabled(), 0);
}

TEST_F(FreqRateTest, ScanRateUsesTheLowByteOfTheIndex) {
  EXPECT_TRUE(vendor_force_scan_rate(0x100)); // 0: the current rate
  EXPECT_TRUE(sim::fw_commands().empty());
  EXPECT_TRUE(vendor_force_scan_rate(0x201));
  EXPECT_EQ(sim::fw_commands(), (std::vector<bytes>{{0xC0, 0x00, 0x01}}));
  EXPECT_EQ(requested_rate(), 1);
}

TEST_F(FreqRateTest, AFailedRateCommandLeavesTheRequestUnchanged) {
  sim::drop_echoes(2);
  const int64_t start = sim::now_us();
  EXPECT_FALSE(vendor_force_scan_rate(1));
  const int64_t waited = sim::now_us() - start;
  // Two attempts of 50 ms each.
  EXPECT_GE(waited, 100000);
  EXPECT_LT(waited, 150000);
  EXPECT_TRUE(logged("vendor_force_scan_rate", "Error setting force scan rate"));
  EXPECT_EQ(requested_rate(), WORK_PARM_NO_REQUEST);
}

TEST_F(FreqRateTest, EnablingOrDisablingFrequencyShiftSendsNothing) {
  work_parm[WP_AUTO_SHIFT_DISABLED].store(1);
  EXPECT_TRUE(vendor_enable_freq_shift(true));
  EXPECT_TRUE(vendor_enable_freq_shift(false));
  EXPECT_TRUE(sim::spi_transfers().empty());
  EXPECT_EQ(auto_shift_disabled(), 1); // only a sense-on re-enables it
}

} // namespace
