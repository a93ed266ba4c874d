// Frequency-point and scan-rate forcing: the command bytes on the wire, when
// a request is sent or skipped, and what a failed command leaves behind.
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
    uint16_t freqs[] = {160, 200, 240, 280}, rates[] = {120, 180};
    kvr_hw_cap cap{};
    cap.freq_list = freqs;
    cap.freq_count = 4;
    cap.rate_list = rates;
    cap.rate_count = 2;
    publish_hw_cap(cap);
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
  EXPECT_EQ(count_logged("skip setting force freq point"), 2);
  EXPECT_EQ(requested_freq(), 3);
  EXPECT_EQ(auto_shift_disabled(), 1);
  const std::string first =
      "current: 00 set: FF expec: 00, total 4 frequencies, auto frequency shift is enabled";
  EXPECT_TRUE(logged("vendor_force_freq_point", first));
  EXPECT_EQ(android_errors().front(), first);
  EXPECT_TRUE(logged(
      "current: 00 set: 00 expec: 00, total 4 frequencies, auto frequency shift is disabled"));

  // A sense-on turns automatic shift back on and keeps the request: the same
  // point is pinned again, but nothing past the list (0x101 is not 1).
  sim::clear_recording();
  ASSERT_TRUE(vendor_exit_idle());
  EXPECT_EQ(auto_shift_disabled(), 0);
  for (uint32_t index : {4u, 0x101u, 3u}) {
    EXPECT_TRUE(vendor_force_freq_point(index));
  }
  EXPECT_EQ(sim::fw_commands(), (commands{{0xA0, 0x03, 0x00}, {0xA0, 0x03, 0x07}}));
  EXPECT_EQ(count_logged("skip setting force freq point"), 4);
  EXPECT_EQ(requested_freq(), 3);
  EXPECT_EQ(auto_shift_disabled(), 1);
}

TEST_F(FreqRateTest, AScanRateIsSentOnlyForANewValidLowByte) {
  // 0x201 is rate 1; then 1 again, the current 0 (never re-sent) and 2 of
  // two rates.
  for (uint32_t index : {0x201u, 1u, 0u, 2u}) {
    EXPECT_TRUE(vendor_force_scan_rate(index));
  }
  EXPECT_TRUE(logged("vendor_force_scan_rate", "current: 00 set: FF expec: 01"));
  EXPECT_EQ(sim::fw_commands(), (commands{{0xC0, 0x00, 0x01}}));
  EXPECT_EQ(count_logged("skip setting force scan rate"), 3);
  EXPECT_EQ(work_parm_request[WP_RATE_INDEX].load(), 1);
  EXPECT_EQ(auto_shift_disabled(), 0); // forcing a rate never touches the frequency shift
}

TEST_F(FreqRateTest, AFailedCommandIsTriedTwiceAndLeavesTheRequestUnchanged) {
  // Each attempt waits 100 ms (frequency) or 50 ms (rate) for its echo.
  sim::drop_echoes(4);
  int64_t start = sim::now_us();
  EXPECT_FALSE(vendor_force_freq_point(2));
  const int64_t freq_wait = sim::now_us() - start;
  start = sim::now_us();
  EXPECT_FALSE(vendor_force_scan_rate(1));
  const int64_t rate_wait = sim::now_us() - start;
  EXPECT_EQ(
      sim::fw_commands(),
      (commands{{0xA0, 0x03, 0x06}, {0xA0, 0x03, 0x06}, {0xC0, 0x00, 0x01}, {0xC0, 0x00, 0x01}}));
  EXPECT_TRUE(freq_wait >= 200000 && freq_wait < 250000) << freq_wait;
  EXPECT_TRUE(rate_wait >= 100000 && rate_wait < 150000) << rate_wait;
  EXPECT_TRUE(logged("vendor_force_freq_point", "Error setting force freq point 2"));
  EXPECT_TRUE(logged("vendor_force_scan_rate", "Error setting force scan rate"));
  EXPECT_EQ(android_errors().back(), "Error setting force scan rate");
  EXPECT_EQ(work_parm_request[WP_FREQ_INDEX].load(), WORK_PARM_NO_REQUEST);
  EXPECT_EQ(work_parm_request[WP_RATE_INDEX].load(), WORK_PARM_NO_REQUEST);
  EXPECT_EQ(auto_shift_disabled(), 0);
}

TEST_F(FreqRateTest, EnablingOrDisablingFrequencyShiftSendsNothing) {
  work_parm[WP_AUTO_SHIFT_DISABLED].store(1);
  EXPECT_TRUE(vendor_enable_freq_shift(true));
  EXPECT_TRUE(vendor_enable_freq_shift(false));
  EXPECT_TRUE(sim::spi_transfers().empty());
  EXPECT_EQ(auto_shift_disabled(), 1); // only a sense-on re-enables it
}

} // namespace
