// Chip side of start, stop and screen off, the identity strings, and the
// capability record read from the configuration space.
#include <algorithm>
#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include "chip/chip.h"
#include "chip/ops/lifecycle.h"
#include "chip/transport/host_data.h"
#include "platform/ioctrl.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using commands = std::vector<bytes>;

const bytes kFlush = {0xA4, 0x00, 0x01};
const bytes kSenseOn = {0xA0, 0x03, 0x00};
const bytes kSenseOff = {0xA0, 0x00, 0x00};

// The configuration addresses read so far, in order.
// (address, bytes read) of each configuration read: the transfer carries the
// three-byte header and a dummy byte before the data.
std::vector<std::pair<uint16_t, size_t>> config_reads() {
  std::vector<std::pair<uint16_t, size_t>> out;
  for (const auto &x : sim::spi_transfers()) {
    if (x.tx.size() >= 4 && x.tx[0] == 0xA9) {
      out.emplace_back(static_cast<uint16_t>(x.tx[1] << 8 | x.tx[2]), x.tx.size() - 4);
    }
  }
  return out;
}

// Read during static initialisation, before any test resets the library:
// the chip layer as it comes up at load. Until the service reads the
// capability, calibration is not allowed, nothing is requested of the chip
// and no recalibration is pending.
const bool kCalibrationAtLoad = is_enable_calibration();
const uint8_t kRecalAtLoad = recal_request.load();
const uint8_t kFreqRequestAtLoad = work_parm_request[WP_FREQ_INDEX].load();
const uint8_t kRateRequestAtLoad = work_parm_request[WP_RATE_INDEX].load();

TEST(ChipLayerAtLoad, NoCalibrationNoRequestNoRecalibration) {
  EXPECT_FALSE(kCalibrationAtLoad);
  EXPECT_EQ(kRecalAtLoad, 0);
  EXPECT_EQ(kFreqRequestAtLoad, WORK_PARM_NO_REQUEST);
  EXPECT_EQ(kRateRequestAtLoad, WORK_PARM_NO_REQUEST);
}

using VendorLifecycle = IoSimTest;

TEST_F(VendorLifecycle, StartForgetsTheWorkingPointAndSensesOn) {
  ASSERT_EQ(vendor_afe_start(), 0u);
  // Move every part of the working point away from its reset state the way
  // the service does: a pinned point and rate, a frame that confirms them,
  // a calibration, idle, a frame time-out.
  ASSERT_NE(vendor_update_hw_cap(), nullptr);
  ASSERT_TRUE(vendor_force_freq_point(2));
  ASSERT_TRUE(vendor_force_scan_rate(1));
  sim::frame_fields fields; // rate code 0: 180 Hz
  fields.freq_khz = 133;    // point 2
  const bytes frame = sim::build_frame(fields);
  kvr_frame_data record{};
  std::copy(frame.begin(), frame.end(), vendor_get_ioctrl_framedata()->buf);
  ASSERT_TRUE(vendor_parse_ioctrl_frame(vendor_get_ioctrl_framedata(), &record));
  ASSERT_EQ(work_parm[WP_FREQ_INDEX].load(), 2);
  ASSERT_TRUE(vendor_calibration());
  ASSERT_TRUE(vendor_enter_idle());
  increment_etimeout_cnt();

  clear_log();
  sim::clear_recording();
  ASSERT_EQ(vendor_afe_start(), 0u);
  EXPECT_EQ(sim::fw_commands(), (commands{kFlush, kSenseOn}));
  EXPECT_TRUE(logged_at(3, "vendor_afe_start", "Start or restart AFE"));
  EXPECT_EQ(sim::driver().frame_timeout_ms, 253u);
  EXPECT_TRUE(sim::ic().sensing && !sim::ic().idle);
  const uint8_t reset_point[] = {0, 0, 0}, no_request[] = {0, 0xFF, 0xFF};
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(work_parm[i].load(), reset_point[i]) << i;
    EXPECT_EQ(work_parm_request[i].load(), no_request[i]) << i;
  }
  EXPECT_EQ(calibration_done.load(), 0);
  EXPECT_EQ(etimeout_cnt.load(), 0u);
}

TEST_F(VendorLifecycle, AFifoThatWillNotFlushIsTriedFiveTimesAndTheStartGoesOn) {
  // Echoes dropped; flush commands sent; flushes that failed. A failed flush
  // is two attempts.
  for (const auto &[drops, flushes, failed] :
       {std::tuple{0, 1, 0}, std::tuple{4, 5, 2}, std::tuple{10, 10, 5}}) {
    SCOPED_TRACE(drops);
    clear_log();
    sim::clear_recording();
    sim::drop_echoes(drops);
    ASSERT_EQ(vendor_afe_start(), 0u);
    commands expected(static_cast<size_t>(flushes), kFlush);
    expected.push_back(kSenseOn);
    EXPECT_EQ(sim::fw_commands(), expected);
    EXPECT_EQ(count_logged(1, "Error clearing the fifo"), failed);
    EXPECT_EQ(count_logged(3, "FIFO flushed"), failed < 5 ? 1 : 0);
  }
}

TEST_F(VendorLifecycle, ScreenOffKeepsScanningForTheGesture) {
  EXPECT_EQ(vendor_afe_enable_wakeup_gesture(1), 0u);
  ASSERT_EQ(vendor_afe_start(), 0u); // the flag survives a start
  sim::clear_recording();
  EXPECT_EQ(vendor_afe_screen_off(), 0u);
  EXPECT_TRUE(sim::spi_transfers().empty());
  EXPECT_TRUE(sim::ic().sensing);

  EXPECT_EQ(vendor_afe_disable_wakeup_gesture(), 0u);
  EXPECT_EQ(vendor_afe_screen_off(), 0u);
  EXPECT_EQ(vendor_afe_screen_on(), 0u);
  EXPECT_EQ(vendor_afe_stop(), 0u);
  EXPECT_EQ(sim::fw_commands(), (commands{kSenseOff, kFlush, kSenseOn, kSenseOff}));
  EXPECT_FALSE(sim::ic().sensing);
}

TEST_F(VendorLifecycle, IdentityStrings) {
  vendor_open_project("ABCDEFGHIJKL");
  EXPECT_STREQ(vendor_get_ic_name(), "ABCDEFGHIJ");
  EXPECT_STREQ(vendor_get_ic_vendor_name(), "VendorQ742ABCDEFGHIJ");
  EXPECT_TRUE(logged_at(3, "vendor_open_project", "Open Project = ABCDEFGHIJ"));
  vendor_open_project(nullptr);
  EXPECT_STREQ(vendor_get_ic_name(), "Q7429K0400");
  EXPECT_TRUE(logged_at(3, "Open Project = Q7429K0400"));

  // The cx version 0xFFFF reads as 0; the last field is always 0021.
  for (const auto &[cx, text] :
       {std::pair<uint16_t, std::string>{0xFFFF, "0000"}, {0x0011, "0011"}}) {
    sim::set_identity({.fw_ver = 0xBEEF, .cfg_ver = 0x0A51, .cx_cfg_ver = cx});
    ASSERT_EQ(read_chip_info(&info), 0u);
    EXPECT_EQ(std::string(vendor_get_version()), "1.7.18 BEEF 0A51 " + text + " 0021");
  }
}

TEST_F(VendorLifecycle, CapabilityRecordFromTheConfigurationSpace) {
  sim::cfg_write(0x0030, {0x22, 0x10}); // sense 34, force 16
  sim::cfg_write(0x0219, {0x07});       // 0x07 & 3: four points
  sim::cfg_write(0x00EC, {100, 0});     // T cycle 100
  sim::cfg_write(0x021A, {0, 7, 20, 30});
  ASSERT_EQ(vendor_update_hw_cap(), &hw_cap);
  EXPECT_EQ(config_reads(), (std::vector<std::pair<uint16_t, size_t>>{{0x0030, 2},
                                                                      {0x0219, 1},
                                                                      {0x00EC, 2},
                                                                      {0x021A, 1},
                                                                      {0x021B, 1},
                                                                      {0x021C, 1},
                                                                      {0x021D, 1}}));
  ASSERT_NE(hw_cap.freq_list, nullptr);
  ASSERT_NE(hw_cap.rate_list, nullptr);
  // 32 MHz / (2 (T cycle + offset)), in kHz.
  EXPECT_EQ(std::vector<uint16_t>(hw_cap.freq_list, hw_cap.freq_list + 4),
            (std::vector<uint16_t>{160, 149, 133, 123}));
  EXPECT_EQ(std::vector<uint16_t>(hw_cap.rate_list, hw_cap.rate_list + 2),
            (std::vector<uint16_t>{120, 180}));
  // Channels, their constants, the list sizes and the fixed words, in
  // record order.
  // clang-format off
  const std::vector<uint64_t> fields = {
      hw_cap.force_len, hw_cap.sense_len, hw_cap.reserved0, hw_cap.reserved1,
      hw_cap.channel_const, hw_cap.value_4200, hw_cap.freq_count, hw_cap.rate_count,
      hw_cap.word0, hw_cap.word1, hw_cap.calibration_enable, hw_cap.word3, hw_cap.word4,
      hw_cap.word5, hw_cap.qword0, hw_cap.qword1, hw_cap.qword2[0], hw_cap.qword2[1]};
  // clang-format on
  EXPECT_EQ(fields,
            (std::vector<uint64_t>{16, 34, 0, 0, 34, 4200, 4, 2, 0, 2, 0, 0, 2, 1, 0, 0, 0, 0}));
  for (const char *line :
       {"Force length: 10, sense Length: 22, swap: 1, force reverse: 1, sense reverse: 1",
        "Number of scan freq 4", "Number of scan rate 2", "DP742 settings"}) {
    EXPECT_TRUE(logged_at(3, "vendor_update_hw_cap", line));
  }
  // The feature switches the AFE layer asks about.
  EXPECT_FALSE(is_enable_calibration());
  EXPECT_FALSE(is_enable_autotune());
  EXPECT_TRUE(is_enable_idle_mode() && is_enable_freq_switch() && is_enable_rate_switch());
  // Look-ups: the first matching entry, 0 when absent.
  EXPECT_EQ((std::vector<int>{get_scan_freq_index(160), get_scan_freq_index(133),
                              get_scan_freq_index(123), get_scan_freq_index(999),
                              get_scan_rate_index(180), get_scan_rate_index(120),
                              get_scan_rate_index(60)}),
            (std::vector<int>{0, 2, 3, 0, 1, 0, 0}));
}

TEST_F(VendorLifecycle, ScanFrequenciesFromTheTCycleAndTheOffsets) {
  // Frequency-count byte, T cycle (little-endian), offsets, frequencies.
  const std::tuple<uint8_t, bytes, bytes, std::vector<uint16_t>> cases[] = {
      {0x04, {0x2C, 0x01}, {20}, {50}},   // T cycle 300: 32e6 / 640 / 1000
      {0x01, {0, 0}, {0, 1}, {0, 16000}}, // a zero divisor gives 0
      {0xFE, {100, 0}, {0, 0, 0}, {160, 160, 160}},
  };
  for (const auto &[count_byte, t_cycle, offsets, freqs] : cases) {
    SCOPED_TRACE(testing::PrintToString(freqs));
    sim::cfg_write(0x0219, {count_byte});
    sim::cfg_write(0x00EC, t_cycle);
    sim::cfg_write(0x021A, offsets);
    ASSERT_EQ(vendor_update_hw_cap(), &hw_cap);
    ASSERT_EQ(hw_cap.freq_count, freqs.size());
    EXPECT_EQ(std::vector<uint16_t>(hw_cap.freq_list, hw_cap.freq_list + freqs.size()), freqs);
    // The first entry that matches.
    EXPECT_EQ(get_scan_freq_index(freqs.back()),
              std::find(freqs.begin(), freqs.end(), freqs.back()) - freqs.begin());
  }
}

TEST_F(VendorLifecycle, AnUnreadableFrequencyListLeavesARecordWithoutOne) {
  // The nth configuration read fails: the channels and the count are needed
  // for a record; the T cycle and the offsets only for its list.
  const std::tuple<int, bool, std::string> cases[] = {
      {1, false, "Error reading the config data"},
      {2, false, "Error reading the config data"},
      {3, true, "Error reading MS screen T cycle"},
      {5, true, "Error reading the available scan freq"},
  };
  for (const auto &[nth, record, error] : cases) {
    SCOPED_TRACE(nth);
    clear_log();
    sim::fail_spi_transfer(nth, EIO);
    kvr_hw_cap *cap = vendor_update_hw_cap();
    EXPECT_TRUE(logged_error(error));
    EXPECT_EQ(cap != nullptr, record);
    EXPECT_EQ(logged_at(3, "DP742 settings"), record);
    EXPECT_EQ(logged_at(3, "Number of scan rate 2"), record);
    if (cap != nullptr) {
      EXPECT_EQ(cap->freq_list, nullptr);
      EXPECT_EQ(cap->freq_count, 4);
      EXPECT_EQ(cap->rate_count, 2);
      EXPECT_EQ(cap->word5, 1u);
    }
  }
  // The look-ups see no frequencies: nothing to pin, nothing to find.
  sim::clear_recording();
  clear_log();
  EXPECT_TRUE(vendor_force_freq_point(0));
  EXPECT_TRUE(logged_error("skip setting force freq point"));
  EXPECT_TRUE(sim::fw_commands().empty());
  EXPECT_EQ(get_scan_freq_index(160), 0);

  // No allocation failure leaks, whichever read it hits.
  for (int nth = 1; nth <= 8; ++nth) {
    SCOPED_TRACE(nth);
    sim::fail_allocation(nth);
    vendor_update_hw_cap();
    sim::fail_allocation(0);
    EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
  }
}

} // namespace
