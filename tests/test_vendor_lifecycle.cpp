// The chip side of start, stop and screen off, the project and identity
// strings, and the capability record read from the configuration space.
#include <algorithm>
#include <cerrno>
#include <string>

#include "platform/ioctrl.h"
#include "support/fixture.h"
#include "vendor/ops/frame_parse.h"
#include "vendor/ops/lifecycle.h"
#include "vendor/transport/host_data.h"
#include "vendor/vendor.h"

namespace {

using bytes = std::vector<uint8_t>;
using commands = std::vector<bytes>;

const bytes kFlush = {0xA4, 0x00, 0x01};
const bytes kSenseOn = {0xA0, 0x03, 0x00};
const bytes kSenseOff = {0xA0, 0x00, 0x00};

class VendorLifecycle : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    ASSERT_EQ(ioctrl_open(), 0u);
    sim::clear_recording();
  }
  void TearDown() override {
    ioctrl_close();
    SimTest::TearDown();
  }
};

void configure_panel(uint8_t freq_byte, uint16_t t_cycle, const bytes &offsets) {
  sim::cfg_write(0x0030, {0x22, 0x10}); // sense 34, force 16
  sim::cfg_write(0x0219, {freq_byte});
  sim::cfg_write(0x00EC, {static_cast<uint8_t>(t_cycle), static_cast<uint8_t>(t_cycle >> 8)});
  sim::cfg_write(0x021A, offsets);
  sim::clear_recording();
}

// The last error copied to the Android log, "" when none.
std::string last_error() {
  const auto errors = android_errors();
  return errors.empty() ? std::string() : errors.back();
}

TEST_F(VendorLifecycle, StartFlushesSensesOnAndResetsTheWorkingPoint) {
  work_parm[WP_FREQ_INDEX].store(3);
  work_parm_request[WP_FREQ_INDEX].store(2);
  calibration_done.store(1);
  set_etimeout_cnt(7);

  ASSERT_EQ(vendor_afe_start(), 0u);
  EXPECT_EQ(sim::fw_commands(), (commands{kFlush, kSenseOn}));
  EXPECT_EQ(sim::driver().frame_timeout_ms, 253u);
  EXPECT_TRUE(sim::ic().sensing);
  EXPECT_EQ(work_parm[WP_FREQ_INDEX].load(), 0);
  EXPECT_EQ(work_parm_request[WP_FREQ_INDEX].load(), 0xFF);
  EXPECT_EQ(calibration_done.load(), 0);
  EXPECT_EQ(etimeout_cnt.load(), 0u);

  // Each failed flush is two silent attempts; after five the start goes on.
  sim::clear_recording();
  sim::drop_echoes(4);
  ASSERT_EQ(vendor_afe_start(), 0u);
  EXPECT_EQ(sim::fw_commands(), (commands{kFlush, kFlush, kFlush, kFlush, kFlush, kSenseOn}));
  EXPECT_EQ(count_logged("Error clearing the fifo"), 2);
  clear_log();
  sim::clear_recording();
  sim::drop_echoes(10);
  ASSERT_EQ(vendor_afe_start(), 0u);
  EXPECT_EQ(sim::fw_commands().size(), 11u);
  EXPECT_EQ(count_logged("Error clearing the fifo"), 5);

  sim::drop_echoes(-1);
  EXPECT_EQ(vendor_afe_start(), 3u);
  EXPECT_EQ(last_error(), "Error writing sense-on command!!");
  EXPECT_EQ(vendor_afe_screen_on(), 4u);
}

TEST_F(VendorLifecycle, ScreenOffKeepsScanningForAGesture) {
  ASSERT_EQ(vendor_afe_start(), 0u);
  sim::clear_recording();
  vendor_afe_enable_wakeup_gesture(1);
  EXPECT_EQ(vendor_afe_screen_off(), 0u);
  EXPECT_TRUE(sim::spi_transfers().empty());
  EXPECT_TRUE(sim::ic().sensing);

  vendor_afe_disable_wakeup_gesture();
  EXPECT_EQ(vendor_afe_screen_off(), 0u);
  EXPECT_EQ(sim::fw_commands(), commands{kSenseOff});
  EXPECT_FALSE(sim::ic().sensing);
  sim::drop_echoes(2);
  EXPECT_EQ(vendor_afe_screen_off(), 4u);
  EXPECT_EQ(last_error(), "Error writing sense off command!!");
}

TEST_F(VendorLifecycle, ProjectAndIdentityStrings) {
  vendor_open_project("ABCDEFGHIJKL");
  EXPECT_STREQ(vendor_get_ic_name(), "ABCDEFGHIJ");
  EXPECT_STREQ(vendor_get_ic_vendor_name(), "VendorQ742ABCDEFGHIJ");
  vendor_open_project(nullptr);
  EXPECT_TRUE(logged("vendor_open_project", "Open Project = Q7429K0400"));

  sim::chip_identity id;
  id.fw_ver = 0xBEEF;
  id.cfg_ver = 0x0051;
  id.cx_cfg_ver = 0xFFFF; // printed as 0
  sim::set_identity(id);
  ASSERT_EQ(read_chip_info(&info), 0u);
  EXPECT_STREQ(vendor_get_version(), "1.7.18 BEEF 0051 0000 0021");
}

TEST_F(VendorLifecycle, CapabilityFromTheConfigurationSpace) {
  configure_panel(0x07, 100, {0, 7, 20, 30});
  const kvr_hw_cap *cap = vendor_update_hw_cap();
  ASSERT_EQ(cap, &hw_cap);
  EXPECT_EQ(cap->force_len, 16);
  EXPECT_EQ(cap->sense_len, 34);
  // 0x07 & 3 gives four points of 32 MHz / (2 (T cycle + offset)), in kHz.
  ASSERT_EQ(cap->freq_count, 4);
  EXPECT_EQ(std::vector<uint16_t>(cap->freq_list, cap->freq_list + 4),
            (std::vector<uint16_t>{160, 149, 133, 123}));
  ASSERT_EQ(cap->rate_count, 2);
  EXPECT_EQ(cap->rate_list[1], 180);
  EXPECT_EQ(cap->word1, 2u);
  EXPECT_EQ(cap->word5, 1u);
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
  for (int nth = 1; nth <= 6; ++nth) {
    SCOPED_TRACE("allocation " + std::to_string(nth));
    sim::fail_allocation(nth);
    EXPECT_EQ(vendor_update_hw_cap(), nullptr);
    sim::fail_allocation(0);
    EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
  }
}

} // namespace
