// Idle entry and exit, the idle interval, status acknowledgement,
// calibration, autotune and the diagnosis after frame time-outs.
#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "afe/afe.h"
#include "platform/ioctrl.h"
#include "support/fixture.h"
#include "vendor/ops/frame_parse.h"
#include "vendor/ops/idle_calib.h"
#include "vendor/ops/lifecycle.h"
#include "vendor/transport/fw_cmd.h"
#include "vendor/transport/host_data.h"
#include "vendor/vendor.h"

namespace {

using bytes = std::vector<uint8_t>;

const bytes kSenseOn = {0xA0, 0x03, 0x00};
const bytes kAutotune = {0xA4, 0x00, 0x03};
const bytes kSaveCx = {0xA4, 0x05, 0x02};
const bytes kChipInfoRequest = {0xA4, 0x06, 0x01};
const bytes kReset = {0xFA, 0x20, 0x00, 0x00, 0x24, 0x80};

std::vector<uint32_t> timeouts_set() {
  std::vector<uint32_t> values;
  for (const auto &r : sim::ioctls(KVR_IOCTL_SET_TIMEOUT)) {
    values.push_back(r.value);
  }
  return values;
}

bool sent(const bytes &cmd) {
  const auto cmds = sim::fw_commands();
  return std::find(cmds.begin(), cmds.end(), cmd) != cmds.end();
}

bool spi_sent_prefix(const bytes &prefix) {
  for (const auto &t : sim::spi_transfers()) {
    if (t.tx.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), t.tx.begin())) {
      return true;
    }
  }
  return false;
}

void dummy_calib_function() {}
void dummy_calib_context() {}

class IdleCalibTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    open_and_start();
    clear_log();
    sim::clear_recording();
  }
};

// ---- Idle -------------------------------------------------------------------

TEST_F(IdleCalibTest, IdleEntryAndExitSwitchTheDriverTimeout) {
  ASSERT_TRUE(vendor_enter_idle());
  EXPECT_EQ(sim::fw_commands(), (std::vector<bytes>{{0xA0, 0x03, 0x02}}));
  EXPECT_EQ(timeouts_set(), (std::vector<uint32_t>{1471}));
  EXPECT_TRUE(sim::ic().idle);

  work_parm[WP_AUTO_SHIFT_DISABLED].store(1);
  sim::clear_recording();
  ASSERT_TRUE(vendor_exit_idle());
  EXPECT_EQ(sim::fw_commands(), (std::vector<bytes>{kSenseOn}));
  EXPECT_EQ(timeouts_set(), (std::vector<uint32_t>{253}));
  EXPECT_EQ(work_parm[WP_AUTO_SHIFT_DISABLED].load(), 0);
  EXPECT_FALSE(sim::ic().idle);
  EXPECT_EQ(sim::driver().frame_timeout_ms, 253u);
}

TEST_F(IdleCalibTest, FailedIdleCommandsLeaveTheDriverTimeoutAlone) {
  sim::drop_echoes(2);
  EXPECT_FALSE(vendor_enter_idle());
  EXPECT_TRUE(logged("vendor_enter_idle", "Entering idle mode failed"));
  EXPECT_TRUE(timeouts_set().empty());

  ASSERT_TRUE(vendor_enter_idle());
  work_parm[WP_AUTO_SHIFT_DISABLED].store(1);
  sim::clear_recording();
  sim::drop_echoes(2);
  EXPECT_FALSE(vendor_exit_idle());
  EXPECT_TRUE(timeouts_set().empty());
  EXPECT_EQ(sim::driver().frame_timeout_ms, 1471u);
  EXPECT_EQ(work_parm[WP_AUTO_SHIFT_DISABLED].load(), 1);
}

TEST_F(IdleCalibTest, IdleIntervalIsWrittenInFramesOfTheConfiguredRate) {
  sim::cfg_write(0x0087, {60});
  ASSERT_TRUE(vendor_idle_update_interval(30));
  EXPECT_TRUE(logged("vendor_idle_update_interval", "Frame rate: 3C"));
  EXPECT_TRUE(spi_sent_prefix({0xA9, 0x00, 0x87}));
  const auto spi = sim::spi_transfers();
  ASSERT_FALSE(spi.empty());
  EXPECT_EQ(spi.back().tx, (bytes{0xA8, 0x00, 0x42, 0x05})); // 30 x 10 / 60
  EXPECT_EQ(sim::cfg_read(0x0042, 1), (bytes{0x05}));

  // A rate of 0 gives an interval of 0 rather than a division by zero.
  sim::cfg_write(0x0087, {0});
  ASSERT_TRUE(vendor_idle_update_interval(30));
  EXPECT_EQ(sim::cfg_read(0x0042, 1), (bytes{0x00}));
}

TEST_F(IdleCalibTest, IdleIntervalReportsAFailedReadOrWrite) {
  sim::cfg_write(0x0087, {60});
  sim::cfg_write(0x0042, {0x77});
  sim::fail_spi_transfer(1, EIO); // the rate read
  EXPECT_FALSE(vendor_idle_update_interval(30));
  EXPECT_TRUE(logged("vendor_idle_update_interval", "Error reading the config data"));
  EXPECT_FALSE(spi_sent_prefix({0xA8}));

  clear_log();
  sim::fail_spi_transfer(2, EIO); // the interval write
  EXPECT_FALSE(vendor_idle_update_interval(30));
  EXPECT_TRUE(logged("vendor_idle_update_interval", "Error reading the config data"));
  EXPECT_EQ(sim::cfg_read(0x0042, 1), (bytes{0x77}));
}

// ---- Status, callbacks, hooks ---------------------------------------------

TEST_F(IdleCalibTest, ClearStatusHandlesCalibrationBeforeAPendingShift) {
  calibration_done.store(1);
  work_parm_request[WP_FREQ_INDEX].store(1);
  work_parm_request[WP_RATE_INDEX].store(0);

  EXPECT_EQ(vendor_clear_status(0x0C), 0u);
  EXPECT_TRUE(logged("vendor_clear_status", "Clear status 0000000C"));
  EXPECT_EQ(calibration_done.load(), 0);
  EXPECT_EQ(work_parm_request[WP_FREQ_INDEX].load(), 1);
  EXPECT_EQ(work_parm_request[WP_RATE_INDEX].load(), 0);

  EXPECT_EQ(vendor_clear_status(0x04), 0u);
  EXPECT_EQ(work_parm_request[WP_FREQ_INDEX].load(), WORK_PARM_NO_REQUEST);
  EXPECT_EQ(work_parm_request[WP_RATE_INDEX].load(), WORK_PARM_NO_REQUEST);

  calibration_done.store(1);
  EXPECT_EQ(vendor_clear_status(0x100), 0u); // nothing of ours
  EXPECT_EQ(calibration_done.load(), 1);
  EXPECT_TRUE(sim::spi_transfers().empty());
}

TEST_F(IdleCalibTest, HooksThatOnlyRecord) {
  vendor_set_calib_data_callback_func(dummy_calib_function, dummy_calib_context);
  EXPECT_EQ(autotune_ops.function.load(), &dummy_calib_function);
  EXPECT_EQ(autotune_ops.context.load(), &dummy_calib_context);
  EXPECT_TRUE(logged("vendor_set_calib_data_callback_func", "only write has been used"));

  m_need_update_param.store(1);
  vendor_cmds_sync();
  EXPECT_EQ(m_need_update_param.load(), 0);

  EXPECT_TRUE(vendor_reset_idle_baseline());
  EXPECT_TRUE(vendor_idle_threshold());
  EXPECT_TRUE(sim::spi_transfers().empty());
  EXPECT_TRUE(android_errors().empty());

  idle_calib_reset_state();
  EXPECT_EQ(autotune_ops.function.load(), nullptr);
  EXPECT_EQ(autotune_ops.context.load(), nullptr);
}

// ---- Calibration --------------------------------------------------------------

TEST_F(IdleCalibTest, CalibrationSetsDoneAndClearsTheRecalRequestOnlyOnSuccess) {
  recal_request.store(1);
  sim::drop_echoes(2);
  const int64_t start = sim::now_us();
  EXPECT_FALSE(vendor_calibration());
  EXPECT_GE(sim::now_us() - start, 600000); // two waits of 300 ms
  EXPECT_TRUE(logged("vendor_calibration", "Unable to get MRN raw and calculate offset"));
  EXPECT_EQ(calibration_done.load(), 0);
  EXPECT_EQ(recal_request.load(), 1);

  sim::clear_recording();
  ASSERT_TRUE(vendor_calibration());
  EXPECT_EQ(sim::fw_commands(), (std::vector<bytes>{{0xC0, 0x02}}));
  EXPECT_EQ(calibration_done.load(), 1);
  EXPECT_EQ(recal_request.load(), 0);
  EXPECT_TRUE(
      logged("vendor_calibration", "Send command for FW to get the MRN raw and calculate offset"));
}

// ---- Autotune ---------------------------------------------------------------

TEST_F(IdleCalibTest, AutotuneResetsTunesReadsChipInfoAndResumesScanning) {
  const int resets = sim::ic().resets;
  info = chip_info{};
  work_parm[WP_AUTO_SHIFT_DISABLED].store(1);
  const int64_t slept = sim::slept_us();
  ASSERT_TRUE(vendor_autotune());
  EXPECT_EQ(sim::ic().resets, resets + 1);
  EXPECT_EQ(sim::spi_transfers().front().tx, kReset);
  EXPECT_EQ(sim::fw_commands(), (std::vector<bytes>{kAutotune, kChipInfoRequest, kSenseOn}));
  EXPECT_EQ(info.fw_ver, sim::identity().fw_ver);
  EXPECT_EQ(work_parm[WP_AUTO_SHIFT_DISABLED].load(), 0);
  EXPECT_TRUE(sim::ic().sensing);
  EXPECT_GE(sim::slept_us() - slept, 100000);
  EXPECT_TRUE(logged("vendor_autotune", "Autotune.."));
}

TEST_F(IdleCalibTest, AutotuneThatTimesOutStillSavesTheCompensation) {
  sim::drop_echoes(2);
  ASSERT_TRUE(vendor_autotune());
  EXPECT_EQ(sim::fw_commands(),
            (std::vector<bytes>{kAutotune, kAutotune, kSaveCx, kChipInfoRequest, kSenseOn}));
  EXPECT_TRUE(logged("vendor_autotune", "Unable to do autotune... try to save CX anyway"));
  EXPECT_FALSE(logged("Unable to save CX.."));
}

TEST_F(IdleCalibTest, AutotuneFailures) {
  // Neither autotune nor save CX answers.
  sim::drop_echoes(4);
  EXPECT_FALSE(vendor_autotune());
  EXPECT_TRUE(logged("vendor_autotune", "Unable to save CX.."));
  EXPECT_FALSE(sent(kChipInfoRequest));
  EXPECT_FALSE(sent(kSenseOn));

  // The chip info never loads.
  sim::clear_faults();
  sim::clear_recording();
  sim::host_data_never_loads(true);
  EXPECT_FALSE(vendor_autotune());
  EXPECT_TRUE(logged("vendor_autotune", "Unable to read the sys info.."));
  EXPECT_FALSE(sent(kSenseOn));

  // The reset cannot be written: nothing else is tried.
  sim::clear_faults();
  sim::clear_recording();
  sim::fail_spi_transfer(1, EIO);
  EXPECT_FALSE(vendor_autotune());
  EXPECT_FALSE(sent(kAutotune));
}

// ---- Frame time-out diagnosis ---------------------------------------------

TEST_F(IdleCalibTest, DebugReportChecksTheLinkAndTheFirmware) {
  // The chip answers the read at 0x20000000 with its id.
  const bytes id = sim::mem_read(0x20000000, 8);
  ASSERT_NE(id, bytes(8, 0));
  char expected[120];
  snprintf(expected, sizeof expected,
           "SPI Communication working!! Chip ID: %02X %02X %02X %02X %02X %02X %02X %02X\n", id[0],
           id[1], id[2], id[3], id[4], id[5], id[6], id[7]);
  etimeout_cnt.store(1);
  EXPECT_EQ(vendor_print_ic_debug_info(), 0u);
  const auto spi = sim::spi_transfers();
  ASSERT_FALSE(spi.empty());
  EXPECT_EQ(spi.front().tx.size(), 14u);
  EXPECT_EQ(bytes(spi.front().tx.begin(), spi.front().tx.begin() + 5),
            (bytes{0xFB, 0x20, 0x00, 0x00, 0x00}));
  EXPECT_TRUE(logged("vendor_print_ic_debug_info", expected));
  EXPECT_TRUE(sent({0xC0, 0x07}));
  EXPECT_TRUE(sent(kChipInfoRequest));
  EXPECT_TRUE(logged("KVR frame is working now"));
  EXPECT_EQ(sos_flag.load(), 0);
  EXPECT_EQ(etimeout_cnt.load(), 1u);
}

TEST_F(IdleCalibTest, ThirdTimeoutInARowRaisesSos) {
  for (int timeout = 1; timeout <= 3; ++timeout) {
    increment_etimeout_cnt();
    vendor_print_ic_debug_info();
    EXPECT_EQ(sos_flag.load(), timeout == 3 ? 1 : 0) << "time-out " << timeout;
  }
  EXPECT_EQ(count_logged("ETimeout occurred twice.. triggerring SOS!!"), 1);
  EXPECT_EQ(etimeout_cnt.load(), 0u);
}

TEST_F(IdleCalibTest, DeadFirmwareRestartsTheCountWithoutFurtherChecks) {
  etimeout_cnt.store(2);
  sim::drop_echoes(-1);
  EXPECT_EQ(vendor_print_ic_debug_info(), 0u);
  EXPECT_EQ(etimeout_cnt.load(), 0u);
  EXPECT_EQ(sos_flag.load(), 1); // raised by the liveness probe
  EXPECT_FALSE(sent({0xC0, 0x07}));
  EXPECT_FALSE(sent(kChipInfoRequest));
}

TEST_F(IdleCalibTest, DebugReportGoesOnAfterLinkAndChipInfoFailures) {
  sim::fail_spi_transfer(1, EIO);
  sim::host_data_never_loads(true);
  EXPECT_EQ(vendor_print_ic_debug_info(), 5u);
  EXPECT_TRUE(logged("vendor_print_ic_debug_info", "SPI is not working!!"));
  EXPECT_TRUE(logged("SPI Communication working!! Chip ID: 00 00 00 00 00 00 00 00\n"));
  EXPECT_TRUE(sent({0xC0, 0x07}));
  EXPECT_TRUE(logged("vendor_print_ic_debug_info", "Couldnt read chip info.. Could be FW issue!!"));
}

TEST_F(IdleCalibTest, FrameTimeoutsEndInAnSosFrame) {
  sim::stop_frames(true);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(kvr_afe_get_frame(), nullptr) << "call " << i;
  }
  EXPECT_EQ(sos_flag.load(), 1);
  kvr_frame_data *sos = kvr_afe_get_frame();
  ASSERT_NE(sos, nullptr);
  EXPECT_EQ(sos->status, static_cast<uint32_t>(KVR_AFE_STATUS_SOS));
  EXPECT_EQ(sos_flag.load(), 0);
}

} // namespace
