// The deferred command queue: requests queued now, sent by frame-thread passes.
#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include "afe/afe.h"
#include "chip/ops/lifecycle.h"
#include "platform/ioctrl.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using commands = std::vector<bytes>;

const bytes kSenseOn{0xA0, 0x03, 0x00};
const bytes kCalibration{0xC0, 0x02};
const bytes kScanRate1{0xC0, 0x00, 0x01};

class CommandQueueTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    open_and_start();
    ASSERT_NE(kvr_afe_get_hw_cap(), nullptr);
    clear_log();
    sim::clear_recording();
  }

  void enable_calibration() {
    hw_cap.calibration_enable = 1;
    publish_hw_cap(hw_cap);
  }

  // A frame-thread call with the driver's queue empty runs every pending command.
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
  EXPECT_EQ(full_pass(), (commands{kSenseOn, bytes{0xA0, 0x03, 0x04}, kScanRate1}));

  // An exit does not cancel a later entry; it runs first.
  ASSERT_EQ(kvr_afe_enter_idle(), 0u);
  ASSERT_EQ(kvr_afe_force_exit_idle(), 0u);
  ASSERT_EQ(kvr_afe_enter_idle(), 0u);
  EXPECT_EQ(full_pass(), (commands{kSenseOn, bytes{0xA0, 0x03, 0x02}}));
}

TEST_F(CommandQueueTest, FailedCommandIsRedoneAndUnsupportedOnesSkipped) {
  sim::fail_spi_transfer(1, EIO); // the command never reaches the IC
  ASSERT_EQ(kvr_afe_force_to_scan_rate(1), 0u);
  EXPECT_TRUE(full_pass().empty());
  EXPECT_TRUE(logged("callback_force_scan_rate", "Set scan rate failed, redo"));
  EXPECT_EQ(full_pass(), commands{kScanRate1});
  EXPECT_TRUE(full_pass().empty());
  EXPECT_EQ(count_logged("Set scan rate failed, redo"), 1);

  // This chip supports neither: both are skipped and not held.
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

TEST_F(CommandQueueTest, CalibrationCancelsThePassForgetsParametersAndIsHeld) {
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

  // Now held until status 8 alone is cleared; other bits accumulate, sent once.
  ASSERT_EQ(kvr_afe_clear_status(0x108), 0u);
  EXPECT_TRUE(logged("cmd_add_clear_status", "Clear status 264"));
  ASSERT_EQ(kvr_afe_clear_status(0x100), 0u);
  EXPECT_TRUE(logged("cmd_add_clear_status", "KVR_AFE_STATUS_IDLE_BASELINE_RESET_DONE"));
  ASSERT_EQ(kvr_afe_clear_status(4), 0u);
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  EXPECT_TRUE(full_pass().empty());
  full_pass();
  EXPECT_EQ(count_logged("Clear status 0000010C"), 1);
  ASSERT_EQ(kvr_afe_clear_status(8), 0u);
  EXPECT_TRUE(logged("cmd_add_clear_status", "KVR_AFE_STATUS_CALIBRATION_DONE"));
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  EXPECT_EQ(full_pass(), commands{kCalibration});
}

// Refusals are the state table's; these log a line before "IN", and no "OUT".
TEST_F(SimTest, RefusedQueuedEntryPointsLogTheirFirstLineThenTheRefusal) {
  const std::string refusal = "API can't be executed in this mode [KVR_STATE_CLOSED].";
  const std::tuple<uint32_t (*)(), uint32_t, const char *> entries[] = {
      {kvr_afe_start_calibration, 4, "Send start calibration command"},
      {kvr_afe_start_autotune, 4, "Send start autotune command"},
      {kvr_afe_reset_idle_baseline, 7, "Send reset idle baseline command"},
      {kvr_afe_enter_idle, 7, "Send enter idle command"},
      {kvr_afe_force_exit_idle, 7, "Send force exit idle command"},
      {+[] { return kvr_afe_force_to_freq_point(2); }, 7, "Send force freq point command 2"},
      {+[] { return kvr_afe_force_to_scan_rate(1); }, 7, "Send force scan rate command 1"},
  };
  for (const auto &[call, refused, first_line] : entries) {
    SCOPED_TRACE(first_line);
    clear_log();
    EXPECT_EQ(call(), refused);
    EXPECT_EQ(log_messages(), (std::vector<std::string>{first_line, "IN", refusal}));
  }
}

} // namespace
