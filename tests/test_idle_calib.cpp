// Idle entry and exit, the idle interval, status acknowledgement,
// calibration, autotune and the diagnosis after frame time-outs.
#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "chip/chip.h"
#include "chip/ops/frame_parse.h"
#include "chip/ops/lifecycle.h"
#include "chip/transport/fw_cmd.h"
#include "chip/transport/host_data.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using commands = std::vector<bytes>;

const bytes kSenseOn = {0xA0, 0x03, 0x00};
const bytes kAutotune = {0xA4, 0x00, 0x03};
const bytes kSaveCx = {0xA4, 0x05, 0x02};
const bytes kChipInfoRequest = {0xA4, 0x06, 0x01};
const bytes kFrameStatus = {0xC0, 0x07};

bool sent(const bytes &cmd) {
  const auto cmds = sim::fw_commands();
  return std::find(cmds.begin(), cmds.end(), cmd) != cmds.end();
}

void restart_recording() {
  clear_log();
  sim::clear_recording();
}

class IdleCalibTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    open_and_start();
    restart_recording();
  }
};

TEST_F(IdleCalibTest, IdleEntryAndExitSwitchTheDriverTimeoutOnlyOnSuccess) {
  sim::drop_echoes(2);
  EXPECT_FALSE(vendor_enter_idle());
  EXPECT_TRUE(logged("vendor_enter_idle", "Entering idle mode failed"));
  EXPECT_EQ(sim::driver().frame_timeout_ms, 253u);
  restart_recording();
  ASSERT_TRUE(vendor_enter_idle());
  EXPECT_EQ(sim::fw_commands(), (commands{{0xA0, 0x03, 0x02}}));
  EXPECT_EQ(sim::driver().frame_timeout_ms, 1471u);

  work_parm[WP_AUTO_SHIFT_DISABLED].store(1);
  sim::drop_echoes(2);
  EXPECT_FALSE(vendor_exit_idle());
  EXPECT_EQ(sim::driver().frame_timeout_ms, 1471u);
  EXPECT_EQ(work_parm[WP_AUTO_SHIFT_DISABLED].load(), 1);
  restart_recording();
  ASSERT_TRUE(vendor_exit_idle());
  EXPECT_EQ(sim::fw_commands(), (commands{kSenseOn}));
  EXPECT_EQ(sim::driver().frame_timeout_ms, 253u);
  EXPECT_EQ(work_parm[WP_AUTO_SHIFT_DISABLED].load(), 0);
}

TEST_F(IdleCalibTest, IdleIntervalIsWrittenInFramesOfTheConfiguredRate) {
  sim::cfg_write(0x0087, {60});
  ASSERT_TRUE(vendor_idle_update_interval(30));
  EXPECT_TRUE(logged("vendor_idle_update_interval", "Frame rate: 3C"));
  ASSERT_FALSE(sim::spi_transfers().empty());
  EXPECT_EQ(sim::spi_transfers().back().tx, (bytes{0xA8, 0x00, 0x42, 0x05})); // 30 x 10 / 60
  EXPECT_EQ(sim::cfg_read(0x0042, 1), (bytes{0x05}));
  // A rate of 0 gives an interval of 0 rather than a division by zero.
  sim::cfg_write(0x0087, {0});
  ASSERT_TRUE(vendor_idle_update_interval(30));
  EXPECT_EQ(sim::cfg_read(0x0042, 1), (bytes{0x00}));

  // A failed rate read writes nothing; a failed write is reported too.
  sim::cfg_write(0x0087, {60});
  sim::cfg_write(0x0042, {0x77});
  for (int transfer : {1, 2}) {
    sim::fail_spi_transfer(transfer, EIO);
    EXPECT_FALSE(vendor_idle_update_interval(30)) << transfer;
    EXPECT_EQ(count_logged("Error reading the config data"), transfer);
    EXPECT_EQ(sim::cfg_read(0x0042, 1), (bytes{0x77}));
  }
}

TEST_F(IdleCalibTest, CalibrationIsDoneOnlyOnSuccessAndAcknowledgedBeforeAPendingShift) {
  recal_request.store(1);
  sim::drop_echoes(2);
  const int64_t start = sim::now_us();
  EXPECT_FALSE(vendor_calibration());
  EXPECT_GE(sim::now_us() - start, 600000); // two waits of 300 ms
  EXPECT_TRUE(logged("vendor_calibration", "Unable to get MRN raw and calculate offset"));
  EXPECT_EQ(calibration_done.load(), 0);
  EXPECT_EQ(recal_request.load(), 1);
  ASSERT_TRUE(vendor_calibration());
  EXPECT_EQ(calibration_done.load(), 1);
  EXPECT_EQ(recal_request.load(), 0);
  EXPECT_TRUE(
      logged("vendor_calibration", "Send command for FW to get the MRN raw and calculate offset"));

  // One acknowledgement per call, the calibration before a pending shift.
  work_parm_request[WP_FREQ_INDEX].store(1);
  work_parm_request[WP_RATE_INDEX].store(0);
  EXPECT_EQ(vendor_clear_status(0x100), 0u); // nothing of ours
  EXPECT_EQ(calibration_done.load(), 1);
  EXPECT_EQ(vendor_clear_status(0x0C), 0u);
  EXPECT_TRUE(logged("vendor_clear_status", "Clear status 0000000C"));
  EXPECT_EQ(calibration_done.load(), 0);
  EXPECT_EQ(work_parm_request[WP_FREQ_INDEX].load(), 1);
  EXPECT_EQ(vendor_clear_status(0x04), 0u);
  EXPECT_EQ(work_parm_request[WP_FREQ_INDEX].load(), WORK_PARM_NO_REQUEST);
  EXPECT_EQ(work_parm_request[WP_RATE_INDEX].load(), WORK_PARM_NO_REQUEST);
}

TEST_F(IdleCalibTest, AutotuneFallsBackToSavingTheCompensationAndStopsOnFailures) {
  // Fault, result, the commands sent and the last message of the autotune.
  const std::tuple<std::function<void()>, bool, commands, std::string> cases[] = {
      {[] {}, true, commands{kAutotune, kChipInfoRequest, kSenseOn}, "Autotune.."},
      {[] { sim::drop_echoes(2); }, true,
       commands{kAutotune, kAutotune, kSaveCx, kChipInfoRequest, kSenseOn},
       "Unable to do autotune... try to save CX anyway"},
      {[] { sim::drop_echoes(4); }, false, commands{kAutotune, kAutotune, kSaveCx, kSaveCx},
       "Unable to save CX.."},
      {[] { sim::host_data_never_loads(true); }, false, commands{kAutotune, kChipInfoRequest},
       "Unable to read the sys info.."},
      {[] { sim::fail_spi_transfer(1, EIO); }, false, commands{}, ""}, // the reset
  };
  for (const auto &[fault, result, sent_commands, message] : cases) {
    SCOPED_TRACE(message);
    sim::clear_faults();
    restart_recording();
    fault();
    info = chip_info{};
    const int resets = sim::ic().resets;
    const int64_t slept = sim::slept_us();
    EXPECT_EQ(vendor_autotune(), result);
    EXPECT_EQ(sim::fw_commands(), sent_commands);
    EXPECT_TRUE(message.empty() || logged("vendor_autotune", message));
    EXPECT_EQ(logged("Unable to save CX.."), message == "Unable to save CX..");
    EXPECT_EQ(sim::ic().resets, resets + (message.empty() ? 0 : 1));
    EXPECT_EQ(info.fw_ver, result ? sim::identity().fw_ver : 0);
    if (result) {
      EXPECT_GE(sim::slept_us() - slept, 100000);
    }
  }
}

TEST_F(IdleCalibTest, DebugReportChecksLinkAndFirmwareAndTheThirdTimeoutRaisesSos) {
  // The simulated chip's id registers at 0x20000000.
  ASSERT_EQ(sim::mem_read(0x20000000, 8), (bytes{0x36, 0x48, 0x01, 0x00, 0x36, 0x00, 0x02, 0x00}));
  for (int timeout = 1; timeout <= 3; ++timeout) {
    SCOPED_TRACE(timeout);
    restart_recording();
    increment_etimeout_cnt();
    EXPECT_EQ(vendor_print_ic_debug_info(), 0u);
    const auto spi = sim::spi_transfers();
    ASSERT_FALSE(spi.empty());
    EXPECT_EQ(spi[0].tx.size(), 14u);
    EXPECT_EQ(bytes(spi[0].tx.begin(), spi[0].tx.begin() + 5), (bytes{0xFB, 0x20, 0, 0, 0}));
    EXPECT_TRUE(logged("vendor_print_ic_debug_info",
                       "SPI Communication working!! Chip ID: 36 48 01 00 36 00 02 00\n"));
    EXPECT_TRUE(sent(kFrameStatus) && sent(kChipInfoRequest));
    EXPECT_TRUE(logged("KVR frame is working now"));
    EXPECT_EQ(sos_flag.load(), timeout == 3 ? 1 : 0);
    EXPECT_EQ(count_logged("ETimeout occurred twice.. triggerring SOS!!"), timeout == 3 ? 1 : 0);
  }
  EXPECT_EQ(etimeout_cnt.load(), 0u);

  // A broken link and a silent chip-info request are reported; the report
  // goes on.
  restart_recording();
  sim::fail_spi_transfer(1, EIO);
  sim::host_data_never_loads(true);
  EXPECT_EQ(vendor_print_ic_debug_info(), 5u);
  EXPECT_TRUE(logged("vendor_print_ic_debug_info", "SPI is not working!!"));
  EXPECT_TRUE(logged("SPI Communication working!! Chip ID: 00 00 00 00 00 00 00 00\n"));
  EXPECT_TRUE(sent(kFrameStatus));
  EXPECT_TRUE(logged("vendor_print_ic_debug_info", "Couldnt read chip info.. Could be FW issue!!"));

  // A dead firmware has raised the SOS itself: the count restarts and
  // nothing more is asked of it.
  set_sos_flag(0);
  etimeout_cnt.store(2);
  restart_recording();
  sim::drop_echoes(-1);
  EXPECT_EQ(vendor_print_ic_debug_info(), 0u);
  EXPECT_EQ(etimeout_cnt.load(), 0u);
  EXPECT_EQ(sos_flag.load(), 1);
  EXPECT_FALSE(sent(kFrameStatus) || sent(kChipInfoRequest));
}

} // namespace
