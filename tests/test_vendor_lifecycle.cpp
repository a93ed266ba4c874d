// Chip side of start and screen off, identity strings, the capability record.
#include <cerrno>

#include "chip/chip.h"
#include "chip/ops/frame_parse.h"
#include "chip/ops/lifecycle.h"
#include "chip/transport/host_data.h"
#include "platform/ioctrl.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using commands = std::vector<bytes>;

const bytes kFlush = {0xA4, 0x00, 0x01};
const bytes kSenseOn = {0xA0, 0x03, 0x00};

using VendorLifecycle = IoSimTest;

TEST_F(VendorLifecycle, StartAndScreenOff) {
  work_parm[WP_FREQ_INDEX].store(3);
  work_parm_request[WP_FREQ_INDEX].store(2);
  calibration_done.store(1);
  set_etimeout_cnt(7);
  // Each failed flush is two silent attempts; after five the start goes on.
  for (const auto &[drops, flushes, failed] :
       {std::tuple{0, 1, 0}, std::tuple{4, 5, 2}, std::tuple{10, 10, 5}}) {
    clear_log();
    sim::clear_recording();
    sim::drop_echoes(drops);
    ASSERT_EQ(vendor_afe_start(), 0u);
    commands expected(static_cast<size_t>(flushes), kFlush);
    expected.push_back(kSenseOn);
    EXPECT_EQ(sim::fw_commands(), expected);
    EXPECT_EQ(count_logged("Error clearing the fifo"), failed);
  }
  EXPECT_EQ(sim::driver().frame_timeout_ms, 253u);
  EXPECT_TRUE(sim::ic().sensing);
  EXPECT_EQ(work_parm[WP_FREQ_INDEX].load(), 0);
  EXPECT_EQ(work_parm_request[WP_FREQ_INDEX].load(), 0xFF);
  EXPECT_EQ(calibration_done.load(), 0);
  EXPECT_EQ(etimeout_cnt.load(), 0u);

  // Screen off keeps scanning while a wakeup gesture is enabled.
  sim::clear_recording();
  vendor_afe_enable_wakeup_gesture(1);
  EXPECT_EQ(vendor_afe_screen_off(), 0u);
  EXPECT_TRUE(sim::spi_transfers().empty());
  EXPECT_TRUE(sim::ic().sensing);
  vendor_afe_disable_wakeup_gesture();
  EXPECT_EQ(vendor_afe_screen_off(), 0u);
  EXPECT_EQ(sim::fw_commands(), (commands{{0xA0, 0x00, 0x00}}));
  EXPECT_FALSE(sim::ic().sensing);

  sim::drop_echoes(-1);
  EXPECT_EQ(vendor_afe_start(), 3u);
  EXPECT_EQ(last_error(), "Error writing sense-on command!!");
  EXPECT_EQ(vendor_afe_screen_on(), 4u);
  EXPECT_EQ(vendor_afe_screen_off(), 4u);
  EXPECT_EQ(last_error(), "Error writing sense off command!!");
}

TEST_F(VendorLifecycle, StringsAndCapabilityFromTheConfigurationSpace) {
  vendor_open_project("ABCDEFGHIJKL");
  EXPECT_STREQ(vendor_get_ic_name(), "ABCDEFGHIJ");
  EXPECT_STREQ(vendor_get_ic_vendor_name(), "VendorQ742ABCDEFGHIJ");
  vendor_open_project(nullptr);
  EXPECT_TRUE(logged("vendor_open_project", "Open Project = Q7429K0400"));
  sim::set_identity({.fw_ver = 0xBEEF, .cx_cfg_ver = 0xFFFF}); // printed as 0
  ASSERT_EQ(read_chip_info(&info), 0u);
  EXPECT_STREQ(vendor_get_version(), "1.7.18 BEEF 0051 0000 0021");

  sim::cfg_write(0x0030, {0x22, 0x10}); // sense 34, force 16
  sim::cfg_write(0x0219, {0x07});
  sim::cfg_write(0x00EC, {100, 0}); // T cycle
  sim::cfg_write(0x021A, {0, 7, 20, 30});
  sim::clear_recording();
  ASSERT_EQ(vendor_update_hw_cap(), &hw_cap);
  EXPECT_EQ(hw_cap.force_len, 16);
  EXPECT_EQ(hw_cap.sense_len, 34);
  // 0x07 & 3 gives four points of 32 MHz / (2 (T cycle + offset)), in kHz.
  EXPECT_EQ(std::vector<uint16_t>(hw_cap.freq_list, hw_cap.freq_list + hw_cap.freq_count),
            (std::vector<uint16_t>{160, 149, 133, 123}));
  ASSERT_EQ(hw_cap.rate_count, 2);
  EXPECT_EQ(hw_cap.rate_list[1], 180);
  EXPECT_EQ(hw_cap.word1, 2u);
  EXPECT_EQ(hw_cap.word5, 1u);
  EXPECT_EQ(sim::spi_transfers()[0].tx, (bytes{0xA9, 0x00, 0x30, 0xFF, 0xFF, 0xFF}));
  EXPECT_TRUE(logged("Force length: 10, sense Length: 22, swap: 1, force reverse: 1, "
                     "sense reverse: 1"));
  EXPECT_EQ(get_scan_freq_index(133), 2);
  EXPECT_EQ(get_scan_freq_index(999), 0);
  EXPECT_EQ(get_scan_rate_index(180), 1);

  // A failed refresh leaves the published list as it was.
  sim::fail_spi_transfer(5, EIO); // the second offset
  EXPECT_EQ(vendor_update_hw_cap(), nullptr);
  EXPECT_EQ(last_error(), "Error reading the available scan freq");
  EXPECT_EQ(hw_cap.freq_list[1], 149);
  sim::fail_spi_transfer(2, EIO);
  EXPECT_EQ(vendor_update_hw_cap(), nullptr);
  EXPECT_EQ(last_error(), "Error reading the config data");
  expect_allocation_failures(6, [] { return vendor_update_hw_cap() == nullptr ? 2u : 0u; });
}

} // namespace
