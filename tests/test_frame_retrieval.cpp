// Frame retrieval: the record, the backlog-chosen queue pass, time-outs into
// SOS; wake-up gesture arming and the exported integer root.
#include <algorithm>
#include <cerrno>
#include <random>
#include <string>
#include <vector>

#include "afe/afe.h"
#include "chip/chip.h"
#include "chip/ops/lifecycle.h"
#include "platform/ioctrl.h"
#include "platform/log.h"
#include "support/fixture.h"

namespace {

int64_t capture_us(const kvr_frame_data &frame) {
  return frame.timestamp_sec * 1000000 + frame.timestamp_usec;
}

void forget() {
  clear_log();
  sim::clear_recording();
}

// The library is opened and started exactly as the service does it: the
// start sequence is also what prepares frame checking, so every frame these
// tests receive proves it.
class FrameTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    open_and_start();
    forget();
  }
};

TEST_F(FrameTest, StartedLibraryDeliversFramesAndRejectsBadOnes) {
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(kvr_afe_get_frame(), &frame_data) << "frame " << i;
  }
  EXPECT_EQ(count_logged(3, "Read from driver"), 3);
  EXPECT_EQ(count_logged(3, "OUT"), 3);
  EXPECT_FALSE(mentioned("Error parsing frame, return NULL"));
  const kvr_frame_data first = frame_data;
  EXPECT_TRUE(first.mutual != nullptr && first.self != nullptr);
  EXPECT_EQ(first.freq_khz, 160);
  EXPECT_EQ(first.rate_hz, 120);
  // The capture time is what the driver wrote; it also stamps the log lines.
  const ioctrl_framedata *req = vendor_get_ioctrl_framedata();
  EXPECT_EQ(first.timestamp_sec, req->timestamp[0]);
  EXPECT_EQ(first.timestamp_usec, req->timestamp[1]);
  EXPECT_EQ(log_frame_timestamp_ms.load(), capture_us(first) / 1000);

  // A bad CRC gives NULL, keeps the data pointers, still takes the time.
  sim::corrupt_crc(1);
  EXPECT_EQ(kvr_afe_get_frame(), nullptr);
  EXPECT_TRUE(logged_error("parse_ioctrl_frame", "Error parsing frame, return NULL"));
  EXPECT_TRUE(frame_data.mutual == first.mutual && frame_data.self == first.self);
  EXPECT_GT(capture_us(frame_data), capture_us(first));
}

// A single frame waiting in the driver is already a backlog: only the status
// clear runs, everything else waits for a call that finds the queue empty.
TEST_F(FrameTest, AnyQueuedFrameDefersAllButTheStatusClear) {
  ASSERT_NE(kvr_afe_get_hw_cap(), nullptr);
  ASSERT_EQ(kvr_afe_force_to_scan_rate(1), 0u);
  ASSERT_EQ(kvr_afe_clear_status(4), 0u);
  ioctrl_clear_frame_buffer();
  for (int i = 0; i < 100 && sim::driver().queued_frames == 0; ++i) {
    sim::advance_us(500);
  }
  ASSERT_EQ(sim::driver().queued_frames, 1u);
  forget();
  ASSERT_EQ(kvr_afe_get_frame(), &frame_data);
  EXPECT_TRUE(logged_at(3, "kvr_afe_get_frame", "Frame buffer: 1"));
  EXPECT_TRUE(logged_at(3, "vendor_clear_status", "Clear status 00000004"));
  EXPECT_TRUE(sim::fw_commands().empty()) << "the scan rate waits for an empty queue";

  ioctrl_clear_frame_buffer();
  forget();
  ASSERT_EQ(kvr_afe_get_frame(), &frame_data);
  EXPECT_TRUE(logged_at(3, "kvr_afe_get_frame", "Intializing command handler functions"));
  EXPECT_EQ(count_logged_starting(3, "Clear status "), 0) << "the status was cleared for good";
  EXPECT_EQ(sim::fw_commands(), (std::vector<std::vector<uint8_t>>{{0xC0, 0x00, 0x01}}));
}

TEST_F(FrameTest, OnlyTimeoutsWhileWorkingCountAndThreeRaiseSos) {
  sim::fail_ioctl(KVR_IOCTL_GET_FRAME, EIO);
  EXPECT_EQ(kvr_afe_get_frame(), nullptr);
  EXPECT_TRUE(logged_error("get_ioctr_frame", "Get frame ret error = 5, Input/output error"));
  EXPECT_EQ(etimeout_cnt.load(), 0u);
  sim::fail_ioctl(KVR_IOCTL_GET_FRAME, ETIMEDOUT);
  EXPECT_EQ(kvr_afe_get_frame(), nullptr);
  EXPECT_EQ(etimeout_cnt.load(), 1u);
  ASSERT_EQ(kvr_afe_get_frame(), &frame_data);
  EXPECT_EQ(etimeout_cnt.load(), 0u) << "a good frame ends the run";

  // Stale contents must not survive into the SOS record.
  sos_frame_data.frame_index = 77;
  sos_frame_data.freq_khz = 160;
  sim::stop_frames(true);
  ioctrl_clear_frame_buffer();
  for (uint32_t i = 1; i <= 3; ++i) {
    SCOPED_TRACE(i);
    forget();
    EXPECT_EQ(kvr_afe_get_frame(), nullptr);
    EXPECT_TRUE(logged_error("get_ioctr_frame", "ETIMEDOUT with KVR_STATE_WORKING status"));
    EXPECT_TRUE(logged_error("get_ioctr_frame", "Get frame ret error = 110, Connection timed out"));
    EXPECT_FALSE(sim::spi_transfers().empty()) << "each time-out is diagnosed";
    EXPECT_EQ(etimeout_cnt.load(), i == 3 ? 0u : i);
  }

  forget();
  const int resets = sim::ic().resets;
  kvr_frame_data *frame = kvr_afe_get_frame();
  ASSERT_EQ(frame, &sos_frame_data);
  EXPECT_EQ(frame->status, static_cast<uint32_t>(KVR_AFE_STATUS_SOS));
  EXPECT_TRUE(frame->timestamp_sec == 0 && frame->timestamp_usec == 0 && frame->frame_index == 0 &&
              frame->mutual == nullptr && frame->self == nullptr && frame->reserved[0] == 0 &&
              frame->reserved[1] == 0 && frame->freq_khz == 0 && frame->rate_hz == 0);
  EXPECT_TRUE(logged_error("kvr_afe_get_frame", "OUT. due to SOS."));
  EXPECT_EQ(sim::ic().resets, resets + 1);
  EXPECT_TRUE(sim::ioctls(KVR_IOCTL_GET_FRAME_COUNT).empty());
  kvr_afe_get_frame(); // used up: only now is the driver read again, and times out
  EXPECT_EQ(sim::ioctls(KVR_IOCTL_GET_FRAME).size(), 1u);
  EXPECT_EQ(etimeout_cnt.load(), 1u);

  // In STANDBY a time-out is neither counted nor diagnosed.
  ASSERT_EQ(kvr_afe_screen_off(), 0u);
  sim::fail_ioctl(KVR_IOCTL_GET_FRAME, ETIMEDOUT);
  forget();
  EXPECT_EQ(kvr_afe_get_frame(), nullptr);
  EXPECT_TRUE(logged_error("get_ioctr_frame", "Get frame ret error = 110, Connection timed out"));
  EXPECT_FALSE(mentioned("ETIMEDOUT with KVR_STATE_WORKING status"));
  EXPECT_EQ(etimeout_cnt.load(), 1u);
  EXPECT_TRUE(sim::spi_transfers().empty());
}

using bytes = std::vector<uint8_t>;

int times_sent(const bytes &command) {
  const auto sent = sim::fw_commands();
  return static_cast<int>(std::count(sent.begin(), sent.end(), command));
}

TEST_F(SimTest, GestureReachesTheChipSideOnlyOnAChange) {
  open_and_start();
  clear_log();
  EXPECT_EQ(kvr_afe_enable_wakeup_gesture(1), 0u);
  EXPECT_EQ(kvr_afe_enable_wakeup_gesture(1), 0u);
  EXPECT_EQ(count_logged(3, "Gesture: 1"), 1);
  EXPECT_EQ(count_logged(5, "OUT"), 2);
  EXPECT_EQ(wakeup_gesture_flag.load(), 1u);

  // Armed: screen-off keeps the panel scanning (no sense-off command), and a
  // start leaves the firmware alone (no chip-info request, no update check).
  sim::clear_recording();
  ASSERT_EQ(kvr_afe_start(), 0u);
  EXPECT_EQ(times_sent({0xA4, 0x06, 0x01}), 0);
  EXPECT_FALSE(mentioned("Starting flash procedure.."));
  ASSERT_EQ(kvr_afe_screen_off(), 0u);
  EXPECT_EQ(times_sent({0xA0, 0x00, 0x00}), 0);
  EXPECT_TRUE(sim::ic().sensing);

  // Disarmed in STANDBY, once.
  clear_log();
  EXPECT_EQ(kvr_afe_disable_wakeup_gesture(), 0u);
  EXPECT_EQ(kvr_afe_disable_wakeup_gesture(), 0u);
  EXPECT_EQ(count_logged(3, "Disable wakeup gesture"), 1);
  EXPECT_EQ(count_logged(5, "OUT"), 2);
  EXPECT_EQ(wakeup_gesture_flag.load(), 0u);
  ASSERT_EQ(kvr_afe_screen_on(), 0u);
  sim::clear_recording();
  ASSERT_EQ(kvr_afe_start(), 0u);
  EXPECT_TRUE(logged_error("fw_update", "Starting flash procedure.."));
  EXPECT_EQ(times_sent({0xA4, 0x06, 0x01}), 1);

  // The low byte is stored but the whole value compared: 256 is a change
  // every time, and leaves nothing armed on this side.
  clear_log();
  EXPECT_EQ(kvr_afe_enable_wakeup_gesture(256), 0u);
  EXPECT_EQ(kvr_afe_enable_wakeup_gesture(256), 0u);
  EXPECT_EQ(count_logged(3, "Gesture: 256"), 2);
  EXPECT_EQ(wakeup_gesture_flag.load(), 256u);
  EXPECT_EQ(kvr_afe_disable_wakeup_gesture(), 0u);
  EXPECT_FALSE(mentioned("Disable wakeup gesture"));
}

// The root r is the one with r*r <= x < (r+1)*(r+1).
TEST(Sqrt32, PerfectSquaresTheirNeighboursAndRandomSamples) {
  for (uint32_t r = 1; r <= 65535; ++r) {
    const uint32_t square = r * r;
    ASSERT_EQ(sqrt32(square), r) << square;
    ASSERT_EQ(sqrt32(square - 1), r - 1) << square - 1;
    if (r < 65535) {
      ASSERT_EQ(sqrt32(square + 2 * r), r) << square + 2 * r; // the largest with this root
    }
  }
  EXPECT_EQ(sqrt32(0), 0);
  EXPECT_EQ(sqrt32(0xFFFFFFFFu), 65535);
  std::mt19937 rng(20240611);
  std::uniform_int_distribution<uint32_t> any;
  for (int i = 0; i < 200000; ++i) {
    const uint32_t x = any(rng);
    const uint64_t r = sqrt32(x);
    ASSERT_TRUE(r * r <= x && (r + 1) * (r + 1) > x) << x << " -> " << r;
  }
}

} // namespace
