// The deferred command queue: requests queued now, sent by frame-thread passes.
#include <cerrno>
#include <string>
#include <vector>

#include "afe/afe.h"
#include "chip/ops/lifecycle.h"
#include "platform/ioctrl.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using commands = std::vector<bytes>;

const bytes kSenseOn{0xA0, 0x03, 0x00};
const bytes kEnterIdle{0xA0, 0x03, 0x02};
const bytes kCalibration{0xC0, 0x02};
const bytes kScanRate1{0xC0, 0x00, 0x01};

// The panel's frame rate byte in the configuration; the idle interval is
// written in frames of it.
constexpr uint16_t kCfgFrameRate = 0x0087;
constexpr uint16_t kCfgIdleInterval = 0x0042;

class CommandQueueTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    sim::cfg_write(kCfgFrameRate, {20});
    open_and_start();
    ASSERT_NE(kvr_afe_get_hw_cap(), nullptr);
    clear_log();
    sim::clear_recording();
  }

  // A frame-thread call with the driver's queue empty runs every pending
  // command. Returns the firmware commands the IC received; the log holds
  // what the pass said.
  commands full_pass() {
    ioctrl_clear_frame_buffer();
    clear_log();
    sim::clear_recording();
    kvr_afe_get_frame();
    return sim::fw_commands();
  }
};

TEST_F(CommandQueueTest, FullPassRunsPendingCommandsInTableOrderOnce) {
  // Automatic shift comes back only with a sense-on, and this IC resets its
  // idle baseline by itself: none of these requests sends anything.
  ASSERT_EQ(kvr_afe_enable_freq_shift(), 0u);
  ASSERT_EQ(kvr_afe_disable_freq_shift(), 0u);
  ASSERT_EQ(kvr_afe_reset_idle_baseline(), 0u);
  full_pass();
  EXPECT_TRUE(sim::spi_transfers().empty());

  // Queued against the table order; the exit cancels the first idle entry.
  ASSERT_EQ(kvr_afe_enter_idle(), 0u);
  ASSERT_EQ(kvr_afe_force_exit_idle(), 0u);
  ASSERT_EQ(kvr_afe_force_to_scan_rate(0), 0u);
  ASSERT_EQ(kvr_afe_force_to_scan_rate(1), 0u); // overwrites the unexecuted 0
  ASSERT_EQ(kvr_afe_force_to_freq_point(0), 0u);
  EXPECT_TRUE(sim::fw_commands().empty()) << "the control thread never talks to the IC";
  EXPECT_EQ(full_pass(), (commands{kSenseOn, bytes{0xA0, 0x03, 0x04}, kScanRate1}));
  EXPECT_TRUE(full_pass().empty());

  // An exit does not cancel a later entry; it runs first.
  ASSERT_EQ(kvr_afe_enter_idle(), 0u);
  ASSERT_EQ(kvr_afe_force_exit_idle(), 0u);
  ASSERT_EQ(kvr_afe_enter_idle(), 0u);
  EXPECT_EQ(full_pass(), (commands{kSenseOn, kEnterIdle}));
  EXPECT_EQ(sim::driver().frame_timeout_ms, KVR_TIMEOUT_IDLE_MS);
}

// A command whose transfer fails stays pending and goes out on the next
// pass, once.
TEST_F(CommandQueueTest, FailedCommandsAreRedoneOnTheNextPass) {
  const struct {
    const char *name;
    uint32_t (*queue)();
    bytes sent; // the transfer that carries the command to the IC
    const char *tag, *error;
  } cases[] = {
      {"enter idle", kvr_afe_enter_idle, kEnterIdle, "vendor_enter_idle",
       "Entering idle mode failed"},
      {"exit idle", kvr_afe_force_exit_idle, kSenseOn, "fw_write",
       "Error sending dummy HW command"},
      {"frequency point", [] { return kvr_afe_force_to_freq_point(1); }, bytes{0xA0, 0x03, 0x05},
       "callback_force_freq_point", "Set frequency failed, redo"},
      {"scan rate", [] { return kvr_afe_force_to_scan_rate(1); }, kScanRate1,
       "callback_force_scan_rate", "Set scan rate failed, redo"},
      {"idle interval", [] { return kvr_afe_set_baseline_update_interval(50); },
       bytes{0xA8, 0x00, 0x42, 25}, "vendor_idle_update_interval", "Error reading the config data"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    TearDown();
    SetUp();
    auto times_sent = [&c] {
      int n = 0;
      for (const auto &tx : spi_sent()) {
        n += tx == c.sent ? 1 : 0;
      }
      return n;
    };
    ASSERT_EQ(c.queue(), 0u);
    sim::fail_spi_transfer(1, EIO); // the first transfer of the pass
    full_pass();
    EXPECT_EQ(times_sent(), 0);
    EXPECT_TRUE(logged_error(c.tag, c.error));
    full_pass();
    EXPECT_EQ(times_sent(), 1);
    full_pass();
    EXPECT_EQ(times_sent(), 0);
  }
}

TEST_F(CommandQueueTest, BaselineIntervalReachesTheChipInFramesOnlyWhenItChanges) {
  ASSERT_EQ(kvr_afe_set_baseline_update_interval(50), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_idle_update_interval", "expec: 50 existing: 0"));
  full_pass();
  EXPECT_EQ(sim::cfg_read(kCfgIdleInterval, 1), bytes{25}); // 50 * 10 / 20 frames
  ASSERT_EQ(kvr_afe_set_baseline_update_interval(50), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_idle_update_interval", "skip setting"));
  full_pass();
  EXPECT_TRUE(sim::spi_transfers().empty());
  ASSERT_EQ(kvr_afe_set_baseline_update_interval(8), 0u);
  full_pass();
  EXPECT_EQ(sim::cfg_read(kCfgIdleInterval, 1), bytes{4});
}

// Start and screen-on drop every pending request and forget the stored
// parameters: nothing asked before a restart reaches the restarted IC.
TEST_F(CommandQueueTest, RestartDropsRequestsAndForgetsTheirParameters) {
  for (auto restart : {kvr_afe_start, kvr_afe_screen_on}) {
    ASSERT_EQ(kvr_afe_set_idle_touch_threshold(30), 0u);
    ASSERT_EQ(kvr_afe_set_baseline_update_interval(50), 0u);
    ASSERT_EQ(kvr_afe_force_to_scan_rate(1), 0u);
    ASSERT_EQ(kvr_afe_start_autotune(), 0u);
    ASSERT_EQ(kvr_afe_clear_status(4), 0u);
    ASSERT_EQ(restart(), 0u);
    EXPECT_TRUE(full_pass().empty());
    EXPECT_EQ(count_logged_starting(3, "Clear status "), 0);

    ASSERT_EQ(kvr_afe_set_idle_touch_threshold(30), 0u);
    EXPECT_TRUE(logged_at(3, "expec: 30 existing: 0"));
    ASSERT_EQ(kvr_afe_set_baseline_update_interval(50), 0u);
    EXPECT_TRUE(logged_at(3, "expec: 50 existing: 0"));
    ASSERT_EQ(kvr_afe_start_autotune(), 0u);
    EXPECT_TRUE(logged_at(3, "Add autotune to command"));
    ASSERT_EQ(kvr_afe_clear_status(8), 0u);
    EXPECT_TRUE(full_pass().empty());
    EXPECT_TRUE(logged_at(3, "vendor_clear_status", "Clear status 00000008"));
  }
}

TEST_F(CommandQueueTest, UnsupportedCommandsAreSkippedAndNotHeld) {
  // This chip supports neither: both are skipped, and autotune is released.
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  ASSERT_EQ(kvr_afe_start_autotune(), 0u);
  ASSERT_EQ(kvr_afe_start_autotune(), 0u);
  EXPECT_EQ(count_logged(3, "Add autotune to command"), 1);
  EXPECT_TRUE(full_pass().empty());
  EXPECT_TRUE(logged_at(3, "callback_calibration", "skip setting"));
  EXPECT_TRUE(logged_at(3, "callback_autotune", "skip autotune"));
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  ASSERT_EQ(kvr_afe_start_autotune(), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_calibration", "Add calibration to command"));
  EXPECT_TRUE(logged_at(3, "cmd_add_autotune", "Add autotune to command"));
}

TEST_F(CommandQueueTest, CalibrationCancelsThePassForgetsParametersAndIsHeld) {
  hw_cap.calibration_enable = 1;
  publish_hw_cap(hw_cap);
  ASSERT_EQ(kvr_afe_set_idle_touch_threshold(30), 0u);
  ASSERT_EQ(kvr_afe_set_idle_touch_threshold(30), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_idle_threshold", "expec: 30 existing: 30"));
  EXPECT_EQ(count_logged(3, "skip setting"), 1);
  ASSERT_EQ(kvr_afe_force_to_freq_point(1), 0u);
  ASSERT_EQ(kvr_afe_enter_idle(), 0u);
  sim::error_before_echo(1);
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);

  // A failed calibration is redone; either way the others are dropped.
  EXPECT_EQ(full_pass(), commands{kCalibration});
  EXPECT_TRUE(logged_error("callback_calibration", "Calibration failed, redo"));
  EXPECT_EQ(full_pass(), commands{kCalibration});
  EXPECT_TRUE(logged_error("callback_calibration", "IC is running in normalize"));
  EXPECT_TRUE(logged_at(3, "Calibration success, set calibration_handling = true"));
  EXPECT_TRUE(full_pass().empty());

  // The stored threshold was forgotten: the same value is new again.
  clear_log();
  ASSERT_EQ(kvr_afe_set_idle_touch_threshold(30), 0u);
  EXPECT_TRUE(logged_at(3, "expec: 30 existing: 0"));
  EXPECT_FALSE(mentioned("skip setting"));

  // Now held until status 8 alone is cleared; other bits accumulate and are
  // acknowledged in one call.
  ASSERT_EQ(kvr_afe_clear_status(0x108), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_clear_status", "Clear status 264"));
  ASSERT_EQ(kvr_afe_clear_status(0x100), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_clear_status", "KVR_AFE_STATUS_IDLE_BASELINE_RESET_DONE"));
  ASSERT_EQ(kvr_afe_clear_status(4), 0u);
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  EXPECT_TRUE(full_pass().empty());
  EXPECT_TRUE(logged_at(3, "vendor_clear_status", "Clear status 0000010C"));
  EXPECT_TRUE(full_pass().empty());
  EXPECT_EQ(count_logged_starting(3, "Clear status "), 0);
  ASSERT_EQ(kvr_afe_clear_status(8), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_clear_status", "KVR_AFE_STATUS_CALIBRATION_DONE"));
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  EXPECT_EQ(full_pass(), commands{kCalibration});
  // A restart releases it as well.
  ASSERT_EQ(kvr_afe_start(), 0u);
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_calibration", "Add calibration to command"));
}

} // namespace
