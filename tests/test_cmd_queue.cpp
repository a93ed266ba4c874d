// The deferred command queue: what the control thread's requests turn into
// on the wire when the frame thread runs its passes, and which requests the
// state refuses.
#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "afe/afe.h"
#include "platform/ioctrl.h"
#include "support/fixture.h"
#include "vendor/ops/lifecycle.h"

namespace {

using bytes = std::vector<uint8_t>;
using commands = std::vector<bytes>;

const bytes kSenseOn{0xA0, 0x03, 0x00};
const bytes kEnterIdle{0xA0, 0x03, 0x02};
const bytes kCalibration{0xC0, 0x02};
const bytes kFreqPoint0{0xA0, 0x03, 0x04};
const bytes kScanRate1{0xC0, 0x00, 0x01};

class CommandQueueTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    open_and_start();
    // The frequency and rate lists that the forcing commands check against
    // come with the capability record.
    ASSERT_NE(kvr_afe_get_hw_cap(), nullptr);
    clear_log();
    sim::clear_recording();
  }

  // One frame-thread call that finds the driver's queue empty, so that every
  // pending command runs; returns the firmware commands of that call.
  commands full_pass() {
    ioctrl_clear_frame_buffer();
    sim::clear_recording();
    kvr_afe_get_frame();
    return sim::fw_commands();
  }
};

TEST_F(CommandQueueTest, FullPassRunsPendingCommandsInTableOrderOnce) {
  // Queued against the table order; the exit cancels the first idle entry.
  ASSERT_EQ(kvr_afe_enter_idle(), 0u);
  ASSERT_EQ(kvr_afe_force_exit_idle(), 0u);
  ASSERT_EQ(kvr_afe_force_to_scan_rate(0), 0u);
  ASSERT_EQ(kvr_afe_force_to_scan_rate(1), 0u); // overwrites the unexecuted 0
  ASSERT_EQ(kvr_afe_force_to_freq_point(0), 0u);
  EXPECT_TRUE(sim::fw_commands().empty()) << "the control thread never talks to the IC";

  EXPECT_EQ(full_pass(), (commands{kSenseOn, kFreqPoint0, kScanRate1}));
  EXPECT_TRUE(full_pass().empty());

  // An exit does not cancel a later entry; it runs first.
  ASSERT_EQ(kvr_afe_enter_idle(), 0u);
  ASSERT_EQ(kvr_afe_force_exit_idle(), 0u);
  ASSERT_EQ(kvr_afe_enter_idle(), 0u);
  EXPECT_EQ(full_pass(), (commands{kSenseOn, kEnterIdle}));
}

TEST_F(CommandQueueTest, FailedCommandIsRedoneOnTheNextPass) {
  // The first SPI transfer of the pass fails: the command never reaches
  // the IC.
  sim::fail_spi_transfer(1, EIO);
  ASSERT_EQ(kvr_afe_force_to_scan_rate(1), 0u);
  EXPECT_TRUE(full_pass().empty());
  EXPECT_TRUE(logged("callback_force_scan_rate", "Set scan rate failed, redo"));
  EXPECT_EQ(full_pass(), commands{kScanRate1});
  EXPECT_TRUE(full_pass().empty());
  EXPECT_EQ(count_logged("Set scan rate failed, redo"), 1);
}

TEST_F(CommandQueueTest, CalibrationCancelsThePassAndForgetsParameters) {
  hw_cap.calibration_enable = 1;
  publish_hw_cap(hw_cap);
  ASSERT_EQ(kvr_afe_set_idle_touch_threshold(30), 0u);
  ASSERT_EQ(kvr_afe_set_idle_touch_threshold(30), 0u);
  EXPECT_TRUE(logged("cmd_add_idle_threshold", "expec: 30 existing: 30"));
  EXPECT_EQ(count_logged("skip setting"), 1);
  ASSERT_EQ(kvr_afe_force_to_freq_point(0), 0u);
  ASSERT_EQ(kvr_afe_enter_idle(), 0u);
  sim::error_before_echo(1);
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);

  // A failed calibration is redone; either way the others are dropped.
  EXPECT_EQ(full_pass(), commands{kCalibration});
  EXPECT_TRUE(logged("callback_calibration", "Calibration failed, redo"));
  EXPECT_EQ(full_pass(), commands{kCalibration});
  EXPECT_TRUE(logged("callback_calibration", "IC is running in normalize"));
  EXPECT_TRUE(logged("Calibration success, set calibration_handling = true"));
  EXPECT_TRUE(full_pass().empty());

  // The stored threshold was forgotten: the same value is new again.
  clear_log();
  ASSERT_EQ(kvr_afe_set_idle_touch_threshold(30), 0u);
  EXPECT_TRUE(logged("expec: 30 existing: 0"));
  EXPECT_FALSE(logged("skip setting"));
}

TEST_F(CommandQueueTest, CalibrationIsHeldUntilStatusEightIsCleared) {
  hw_cap.calibration_enable = 1;
  publish_hw_cap(hw_cap);
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  EXPECT_EQ(full_pass(), commands{kCalibration}); // queued once

  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  ASSERT_EQ(kvr_afe_clear_status(0x108), 0u); // the generic path: no release
  EXPECT_TRUE(logged("cmd_add_clear_status", "Clear status 264"));
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  EXPECT_EQ(count_logged("Add calibration to command"), 2); // both before the pass
  EXPECT_TRUE(full_pass().empty());

  ASSERT_EQ(kvr_afe_clear_status(8), 0u);
  EXPECT_TRUE(logged("cmd_add_clear_status", "KVR_AFE_STATUS_CALIBRATION_DONE"));
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  EXPECT_EQ(full_pass(), commands{kCalibration});
}

TEST_F(CommandQueueTest, SkippedCalibrationAndAutotuneAreNotHeld) {
  // This chip reports neither as supported.
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  ASSERT_EQ(kvr_afe_start_autotune(), 0u);
  ASSERT_EQ(kvr_afe_start_autotune(), 0u);
  EXPECT_EQ(count_logged("Add autotune to command"), 1);
  EXPECT_TRUE(full_pass().empty());
  EXPECT_TRUE(logged("callback_calibration", "skip setting"));
  EXPECT_TRUE(logged("callback_autotune", "skip autotune"));

  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  ASSERT_EQ(kvr_afe_start_autotune(), 0u);
  EXPECT_EQ(count_logged("Add calibration to command"), 2);
  EXPECT_EQ(count_logged("Add autotune to command"), 2);
}

TEST_F(CommandQueueTest, ClearStatusAccumulatesBitsUntilThePass) {
  ASSERT_EQ(kvr_afe_clear_status(0x100), 0u);
  ASSERT_EQ(kvr_afe_clear_status(4), 0u);
  EXPECT_TRUE(logged("cmd_add_clear_status", "KVR_AFE_STATUS_IDLE_BASELINE_RESET_DONE"));
  EXPECT_TRUE(logged("cmd_add_clear_status", "Clear status 4"));
  full_pass();
  full_pass();
  // The chip side was asked once, with both bits.
  EXPECT_EQ(count_logged("Clear status 00000104"), 1);
}

// ---- State rules ---------------------------------------------------------------

struct queued_entry {
  const char *tag;
  std::function<uint32_t()> call;
  uint32_t refusal;
  const char *first_line; // logged before "IN" and the state check
};

const queued_entry kEntries[] = {
    {"kvr_afe_enable_freq_shift", kvr_afe_enable_freq_shift, 4, nullptr},
    {"kvr_afe_disable_freq_shift", kvr_afe_disable_freq_shift, 4, nullptr},
    {"kvr_afe_start_calibration", kvr_afe_start_calibration, 4, "Send start calibration command"},
    {"kvr_afe_start_autotune", kvr_afe_start_autotune, 4, "Send start autotune command"},
    {"kvr_afe_clear_status", [] { return kvr_afe_clear_status(8); }, 4, nullptr},
    {"kvr_afe_set_baseline_update_interval", [] { return kvr_afe_set_baseline_update_interval(3); },
     4, nullptr},
    {"kvr_afe_set_idle_touch_threshold", [] { return kvr_afe_set_idle_touch_threshold(3); }, 4,
     nullptr},
    {"kvr_afe_reset_idle_baseline", kvr_afe_reset_idle_baseline, 7,
     "Send reset idle baseline command"},
    {"kvr_afe_enter_idle", kvr_afe_enter_idle, 7, "Send enter idle command"},
    {"kvr_afe_force_exit_idle", kvr_afe_force_exit_idle, 7, "Send force exit idle command"},
    {"kvr_afe_force_to_freq_point", [] { return kvr_afe_force_to_freq_point(2); }, 7,
     "Send force freq point command 2"},
    {"kvr_afe_force_to_scan_rate", [] { return kvr_afe_force_to_scan_rate(1); }, 7,
     "Send force scan rate command 1"},
};

void expect_all_refused(const std::string &state_name) {
  const std::string refusal = "API can't be executed in this mode [" + state_name + "].";
  for (const queued_entry &entry : kEntries) {
    SCOPED_TRACE(std::string(entry.tag) + " in " + state_name);
    clear_log();
    sim::clear_recording();
    EXPECT_EQ(entry.call(), entry.refusal);
    std::vector<std::string> expected;
    if (entry.first_line != nullptr) {
      expected.push_back(entry.first_line);
    }
    expected.insert(expected.end(), {"IN", refusal}); // and no "OUT"
    EXPECT_EQ(log_messages(), expected);
    EXPECT_TRUE(logged(entry.tag, refusal));
    EXPECT_EQ(android_errors(), std::vector<std::string>{refusal});
  }
}

TEST_F(SimTest, QueuedEntryPointsAreRefusedOutsideWorking) {
  expect_all_refused("KVR_STATE_CLOSED");
  ASSERT_EQ(kvr_afe_open(), 0u);
  expect_all_refused("KVR_STATE_PREWORKING");
  ASSERT_EQ(kvr_afe_start(), 0u);
  ASSERT_EQ(kvr_afe_screen_off(), 0u);
  expect_all_refused("KVR_STATE_STANDBY");
}

} // namespace
