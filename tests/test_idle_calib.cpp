// Idle entry and exit, the idle interval, status acknowledgement,
// calibration, autotune, the diagnosis after frame time-outs, frequency-point
// and scan-rate forcing, and the time-outs and retries of every firmware
// command of the chip operations.
#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "chip/chip.h"
#include "chip/ops/idle_calib.h"
#include "chip/ops/lifecycle.h"
#include "chip/transport/fw_cmd.h"
#include "chip/transport/host_data.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using commands = std::vector<bytes>;

const bytes kEnterIdle = {0xA0, 0x03, 0x02};
const bytes kSenseOn = {0xA0, 0x03, 0x00};
const bytes kCalibration = {0xC0, 0x02};
const bytes kAutotune = {0xA4, 0x00, 0x03};
const bytes kSaveCx = {0xA4, 0x05, 0x02};
const bytes kChipInfoRequest = {0xA4, 0x06, 0x01};
const bytes kFrameStatus = {0xC0, 0x07};
const bytes kPoint2 = {0xA0, 0x03, 0x06};
const bytes kRate1 = {0xC0, 0x00, 0x01};
constexpr int64_t kMs = 1000;

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
    ASSERT_NE(vendor_update_hw_cap(), nullptr);
    restart_recording();
  }
};

TEST_F(IdleCalibTest, UnansweredCommandsAreSentTwiceAndWaitedForTheirTimeOut) {
  // The operation, the commands that reach the chip and the total time spent
  // waiting for echoes that never come: two attempts of each command.
  const std::tuple<const char *, std::function<bool()>, commands, int64_t> cases[] = {
      {"enter idle", vendor_enter_idle, {kEnterIdle, kEnterIdle}, 2 * 100},
      {"exit idle", vendor_exit_idle, {kSenseOn, kSenseOn}, 2 * 100},
      {"frequency point", [] { return vendor_force_freq_point(2); }, {kPoint2, kPoint2}, 2 * 100},
      {"scan rate", [] { return vendor_force_scan_rate(1); }, {kRate1, kRate1}, 2 * 50},
      {"calibration", vendor_calibration, {kCalibration, kCalibration}, 2 * 300},
      // The failed save resets the chip, which is ready again 10 ms later.
      {"autotune",
       vendor_autotune,
       {kAutotune, kAutotune, kSaveCx, kSaveCx},
       2 * 5000 + 2 * 3000 + 10},
  };
  for (const auto &[name, operation, sent_commands, wait_ms] : cases) {
    SCOPED_TRACE(name);
    restart_recording();
    sim::drop_echoes(-1);
    const int64_t start = sim::now_us();
    EXPECT_FALSE(operation());
    const int64_t waited = sim::now_us() - start;
    EXPECT_EQ(sim::fw_commands(), sent_commands);
    EXPECT_EQ(waited, wait_ms * kMs);
    sim::clear_faults();
    set_sos_flag(0);
  }
}

TEST_F(IdleCalibTest, IdleEntryAndExitSwitchTheDriverTimeOutOnlyOnSuccess) {
  sim::drop_echoes(2);
  EXPECT_FALSE(vendor_enter_idle());
  EXPECT_TRUE(logged_error("vendor_enter_idle", "Entering idle mode failed"));
  EXPECT_EQ(sim::driver().frame_timeout_ms, 253u);
  ASSERT_TRUE(vendor_enter_idle());
  EXPECT_EQ(sim::driver().frame_timeout_ms, 1471u);

  ASSERT_TRUE(vendor_force_freq_point(1)); // disables automatic shift
  sim::drop_echoes(2);
  EXPECT_FALSE(vendor_exit_idle());
  EXPECT_EQ(sim::driver().frame_timeout_ms, 1471u);
  ASSERT_TRUE(vendor_exit_idle());
  EXPECT_EQ(sim::driver().frame_timeout_ms, 253u);
  EXPECT_EQ(work_parm[WP_AUTO_SHIFT_DISABLED].load(), 0);

  // Baseline, threshold and parameter sync: nothing to send for this chip.
  restart_recording();
  EXPECT_TRUE(vendor_reset_idle_baseline());
  EXPECT_TRUE(vendor_idle_threshold());
  m_need_update_param.store(1);
  vendor_cmds_sync();
  EXPECT_EQ(m_need_update_param.load(), 0);
  EXPECT_TRUE(sim::spi_transfers().empty());
}

TEST_F(IdleCalibTest, IdleIntervalIsWrittenInFramesOfTheConfiguredRate) {
  // Frame-rate byte, interval, byte written at 0x0042.
  const std::tuple<uint8_t, uint32_t, uint8_t> cases[] = {
      {60, 30, 5}, {120, 100, 8}, {0, 30, 0}, {1, 30, 44}, // 300 cut to a byte
  };
  for (const auto &[rate, interval, written] : cases) {
    restart_recording();
    sim::cfg_write(0x0087, {rate});
    ASSERT_TRUE(vendor_idle_update_interval(interval));
    EXPECT_EQ(sim::spi_transfers().back().tx, (bytes{0xA8, 0x00, 0x42, written}));
    EXPECT_EQ(sim::cfg_read(0x0042, 1), (bytes{written}));
    char line[32];
    snprintf(line, sizeof line, "Frame rate: %02X", rate);
    EXPECT_TRUE(logged_at(3, "vendor_idle_update_interval", line));
  }

  // A failed rate read writes nothing; a failed write is not tried again.
  sim::cfg_write(0x0087, {60});
  sim::cfg_write(0x0042, {0x77});
  for (int transfer : {1, 2}) {
    SCOPED_TRACE(transfer);
    restart_recording();
    sim::fail_spi_transfer(transfer, EIO);
    EXPECT_FALSE(vendor_idle_update_interval(30));
    EXPECT_TRUE(logged_error("vendor_idle_update_interval", "Error reading the config data"));
    // A failed transfer never reaches the chip: only what went before it.
    EXPECT_EQ(sim::spi_transfers().size(), static_cast<size_t>(transfer - 1));
    EXPECT_EQ(sim::cfg_read(0x0042, 1), (bytes{0x77}));
  }
}

TEST_F(IdleCalibTest, CalibrationIsDoneOnlyOnSuccessAndAcknowledgedBeforeAPendingShift) {
  sim::drop_echoes(2);
  EXPECT_FALSE(vendor_calibration());
  EXPECT_TRUE(logged_error("vendor_calibration", "Unable to get MRN raw and calculate offset"));
  EXPECT_EQ(calibration_done.load(), 0);
  ASSERT_TRUE(vendor_calibration());
  EXPECT_EQ(calibration_done.load(), 1);
  EXPECT_TRUE(logged_at(3, "vendor_calibration",
                        "Send command for FW to get the MRN raw and calculate offset"));

  // One acknowledgement per call, the calibration before a pending shift.
  ASSERT_TRUE(vendor_force_freq_point(1));
  ASSERT_TRUE(vendor_force_scan_rate(1));
  const std::tuple<uint32_t, uint8_t, uint8_t> steps[] = {
      // bits, calibration_done, requested indices after the call
      {0x100, 1, 1},
      {0x0C, 0, 1},
      {0x04, 0, WORK_PARM_NO_REQUEST},
  };
  for (const auto &[bits, calibrated, requested] : steps) {
    EXPECT_EQ(vendor_clear_status(bits), 0u);
    char line[32];
    snprintf(line, sizeof line, "Clear status %08X", bits);
    EXPECT_TRUE(logged_at(3, "vendor_clear_status", line));
    EXPECT_EQ(calibration_done.load(), calibrated) << bits;
    EXPECT_EQ(work_parm_request[WP_FREQ_INDEX].load(), requested) << bits;
    EXPECT_EQ(work_parm_request[WP_RATE_INDEX].load(), requested) << bits;
  }
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
    EXPECT_EQ(vendor_autotune(), result);
    EXPECT_EQ(sim::fw_commands(), sent_commands);
    EXPECT_EQ(count_logged(3, "System reset.."), 1);
    EXPECT_EQ(mentioned("Autotune.."), !message.empty());
    EXPECT_TRUE(message.empty() || logged_error("vendor_autotune", message));
    EXPECT_EQ(mentioned("Unable to save CX.."), message == "Unable to save CX..");
    EXPECT_EQ(sim::ic().resets, resets + (message.empty() ? 0 : 1));
    EXPECT_EQ(info.fw_ver, result ? sim::identity().fw_ver : 0);
  }
  // After the sense-on the chip is given 100 ms before frames are expected,
  // and scanning resumes with automatic frequency shift enabled again.
  ASSERT_TRUE(vendor_force_freq_point(1)); // disables automatic shift
  ASSERT_EQ(work_parm[WP_AUTO_SHIFT_DISABLED].load(), 1);
  restart_recording();
  const int64_t start = sim::now_us();
  ASSERT_TRUE(vendor_autotune());
  const int64_t taken = sim::now_us() - start;
  // 23 ms go to the simulated chip's echo and host-data delays of the
  // autotune's commands; the rest is the settle.
  EXPECT_EQ(taken, (23 + 100) * kMs);
  EXPECT_EQ(work_parm[WP_AUTO_SHIFT_DISABLED].load(), 0);
}

TEST_F(IdleCalibTest, DebugReportChecksLinkAndFirmwareAndTheThirdTimeOutRaisesSos) {
  for (int timeout = 1; timeout <= 3; ++timeout) {
    SCOPED_TRACE(timeout);
    restart_recording();
    increment_etimeout_cnt();
    EXPECT_EQ(vendor_print_ic_debug_info(), 0u);
    const bytes probe = sim::spi_transfers().at(0).tx; // 8 id bytes after the address
    EXPECT_EQ(probe.size(), 14u);
    EXPECT_EQ(bytes(probe.begin(), probe.begin() + 5), (bytes{0xFB, 0x20, 0, 0, 0}));
    EXPECT_TRUE(logged_error("vendor_print_ic_debug_info",
                             "SPI Communication working!! Chip ID: 36 48 01 00 36 00 02 00\n"));
    EXPECT_TRUE(sent(kFrameStatus) && sent(kChipInfoRequest));
    EXPECT_TRUE(logged_error("KVR frame is working now"));
    EXPECT_EQ(sos_flag.load(), timeout == 3 ? 1 : 0);
    EXPECT_EQ(mentioned("ETimeout occurred twice.. triggerring SOS!!"), timeout == 3);
  }
  EXPECT_TRUE(logged_error("ETimeout occurred twice.. triggerring SOS!!"));
  EXPECT_EQ(etimeout_cnt.load(), 0u);

  // A broken link and a silent chip-info request are reported; the report
  // goes on.
  restart_recording();
  sim::fail_spi_transfer(1, EIO);
  sim::host_data_never_loads(true);
  EXPECT_EQ(vendor_print_ic_debug_info(), 5u);
  EXPECT_TRUE(logged_error("vendor_print_ic_debug_info", "SPI is not working!!"));
  EXPECT_TRUE(logged_error("SPI Communication working!! Chip ID: 00 00 00 00 00 00 00 00\n"));
  EXPECT_TRUE(sent(kFrameStatus));
  EXPECT_TRUE(
      logged_error("vendor_print_ic_debug_info", "Couldnt read chip info.. Could be FW issue!!"));

  // A dead firmware has raised the SOS itself: the count restarts and
  // nothing more is asked of it.
  set_sos_flag(0);
  increment_etimeout_cnt();
  increment_etimeout_cnt();
  restart_recording();
  sim::drop_echoes(-1);
  EXPECT_EQ(vendor_print_ic_debug_info(), 0u);
  EXPECT_EQ(etimeout_cnt.load(), 0u);
  EXPECT_EQ(sos_flag.load(), 1);
  EXPECT_FALSE(sent(kFrameStatus) || sent(kChipInfoRequest));
}

TEST_F(IdleCalibTest, AFrameStatusThatNeverComesIsWaitedForOneSecond) {
  // Find the frame-status request in a clean report, then lose it on the
  // wire: the chip never answers and the report waits its full second.
  ASSERT_EQ(vendor_print_ic_debug_info(), 0u);
  const auto spi = sim::spi_transfers();
  const auto request = std::find_if(spi.begin(), spi.end(), [](const sim::spi_transfer &x) {
    return x.tx.size() >= 2 && x.tx[0] == 0xC0 && x.tx[1] == 0x07;
  });
  ASSERT_NE(request, spi.end());
  restart_recording();
  sim::fail_spi_transfer(static_cast<int>(request - spi.begin()) + 1, EIO);
  const int64_t start = sim::now_us();
  EXPECT_EQ(vendor_print_ic_debug_info(), 0u);
  const int64_t waited = sim::now_us() - start;
  EXPECT_TRUE(logged_error("vendor_print_ic_debug_info",
                           "Error writing the KVR frame status checking command"));
  EXPECT_FALSE(mentioned("KVR frame is working now"));
  EXPECT_TRUE(sent(kChipInfoRequest));
  // The echo of the liveness probe and the chip-info block take 9 ms of the
  // simulated chip's time; the rest is the frame-status wait.
  EXPECT_EQ(waited, (1000 + 9) * kMs);
}

// The frequency points of the simulated chip: 160, 145, 133, 123 kHz; two rates.
uint8_t requested_freq() {
  return work_parm_request[WP_FREQ_INDEX].load();
}
uint8_t auto_shift_disabled() {
  return work_parm[WP_AUTO_SHIFT_DISABLED].load();
}

TEST_F(IdleCalibTest, APointIsSentWhenNewOrWhileShiftIsAutomaticAndNeverPastTheList) {
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

TEST_F(IdleCalibTest, AScanRateIsSentOnlyForANewValidLowByte) {
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

TEST_F(IdleCalibTest, AFailedCommandLeavesTheRequestUnchanged) {
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
