// Frame retrieval: the queue pass chosen by the driver's backlog, the read,
// the record handed back, and the recovery that turns repeated driver
// time-outs into the SOS record.
#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "afe/afe.h"
#include "platform/ioctrl.h"
#include "platform/log.h"
#include "support/fixture.h"
#include "vendor/ops/lifecycle.h"
#include "vendor/transport/fw_cmd.h"
#include "vendor/vendor.h"

namespace {

size_t frame_ioctls() {
  return sim::ioctls(KVR_IOCTL_GET_FRAME).size() + sim::ioctls(KVR_IOCTL_GET_FRAME_COUNT).size();
}

bool android_logged(const std::string &text) {
  std::vector<std::string> errors = android_errors();
  return std::find(errors.begin(), errors.end(), text) != errors.end();
}

int64_t capture_us(const kvr_frame_data &frame) {
  return frame.timestamp_sec * 1000000 + frame.timestamp_usec;
}

class FrameTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    open_and_start();
    clear_log();
    sim::clear_recording();
  }
};

TEST_F(SimTest, GetFrameIsRefusedOutsideWorkingAndStandby) {
  ASSERT_EQ(kvr_afe_open(), 0u);
  sim::clear_recording();
  clear_log();
  EXPECT_EQ(kvr_afe_get_frame(), nullptr);
  EXPECT_EQ(log_messages(),
            (std::vector<std::string>{
                "IN.", "API can't be executed in this mode [KVR_STATE_PREWORKING]."}));
  // This entry point traces at level 3.
  EXPECT_EQ(log_lines().front().substr(0, 3), "[3]");
  EXPECT_TRUE(sim::ioctls().empty());
}

TEST_F(FrameTest, DeliversFramesWithTheDriversCaptureTime) {
  ASSERT_EQ(kvr_afe_get_frame(), &frame_data);
  const kvr_frame_data first = frame_data;
  EXPECT_EQ(first.status & KVR_AFE_STATUS_ACTIVE, static_cast<uint32_t>(KVR_AFE_STATUS_ACTIVE));
  // The capture time is what the driver wrote through the request; it also
  // stamps the log lines.
  const ioctrl_framedata *req = vendor_get_ioctrl_framedata();
  EXPECT_EQ(first.timestamp_sec, req->timestamp[0]);
  EXPECT_EQ(first.timestamp_usec, req->timestamp[1]);
  EXPECT_GT(capture_us(first), 0);
  EXPECT_EQ(log_frame_timestamp_ms.load(), capture_us(first) / 1000);

  ASSERT_EQ(kvr_afe_get_frame(), &frame_data);
  EXPECT_GT(capture_us(frame_data), capture_us(first));
  EXPECT_EQ(sim::ioctls(KVR_IOCTL_GET_FRAME).size(), 2u);
}

TEST_F(FrameTest, RejectedFrameGivesNullAndKeepsTheDataPointers) {
  ASSERT_EQ(kvr_afe_get_frame(), &frame_data);
  const kvr_frame_data good = frame_data;
  sim::corrupt_crc(1);
  EXPECT_EQ(kvr_afe_get_frame(), nullptr);
  EXPECT_TRUE(logged("parse_ioctrl_frame", "Error parsing frame, return NULL"));
  EXPECT_TRUE(android_logged("Error parsing frame, return NULL"));
  EXPECT_EQ(frame_data.mutual, good.mutual);
  EXPECT_EQ(frame_data.self, good.self);
  // The time stamp is taken before the checks.
  EXPECT_GT(capture_us(frame_data), capture_us(good));
  EXPECT_EQ(kvr_afe_get_frame(), &frame_data);
}

TEST_F(FrameTest, TimeoutsWhileWorkingRaiseSosOnTheNextCall) {
  // Stale contents must not survive into the SOS record.
  sos_frame_data.frame_index = 77;
  sos_frame_data.freq_khz = 160;

  sim::stop_frames(true);
  for (uint32_t i = 1; i <= 3; ++i) {
    SCOPED_TRACE(i);
    clear_log();
    sim::clear_recording();
    EXPECT_EQ(kvr_afe_get_frame(), nullptr);
    EXPECT_TRUE(logged("get_ioctr_frame", "ETIMEDOUT with KVR_STATE_WORKING status"));
    EXPECT_TRUE(logged("get_ioctr_frame", "Get frame ret error = 110, Connection timed out"));
    EXPECT_FALSE(sim::spi_transfers().empty()) << "each time-out is diagnosed";
    EXPECT_EQ(sos_flag.load(), i == 3 ? 1 : 0);
    EXPECT_EQ(etimeout_cnt.load(), i == 3 ? 0u : i);
  }

  clear_log();
  sim::clear_recording();
  const int resets = sim::ic().resets;
  kvr_frame_data *frame = kvr_afe_get_frame();
  ASSERT_EQ(frame, &sos_frame_data);
  EXPECT_EQ(frame->status, static_cast<uint32_t>(KVR_AFE_STATUS_SOS));
  EXPECT_TRUE(frame->timestamp_sec == 0 && frame->timestamp_usec == 0 && frame->frame_index == 0 &&
              frame->mutual == nullptr && frame->self == nullptr && frame->reserved[0] == 0 &&
              frame->reserved[1] == 0 && frame->freq_khz == 0 && frame->rate_hz == 0);
  EXPECT_TRUE(logged("kvr_afe_get_frame", "OUT. due to SOS."));
  EXPECT_TRUE(android_logged("OUT. due to SOS."));
  // The chip side reset the IC; no frame was counted or read.
  EXPECT_EQ(sim::ic().resets, resets + 1);
  EXPECT_EQ(frame_ioctls(), 0u);
  EXPECT_EQ(sos_flag.load(), 0);

  // Used up: the next call reads from the driver again.
  kvr_afe_get_frame();
  EXPECT_EQ(sim::ioctls(KVR_IOCTL_GET_FRAME).size(), 1u);
}

TEST_F(FrameTest, OnlyTimeoutsOutsideStandbyAreCounted) {
  sim::fail_ioctl(KVR_IOCTL_GET_FRAME, EIO);
  EXPECT_EQ(kvr_afe_get_frame(), nullptr);
  EXPECT_TRUE(logged("Get frame ret error = 5, Input/output error"));
  EXPECT_EQ(etimeout_cnt.load(), 0u);

  sim::fail_ioctl(KVR_IOCTL_GET_FRAME, ETIMEDOUT);
  EXPECT_EQ(kvr_afe_get_frame(), nullptr);
  EXPECT_EQ(etimeout_cnt.load(), 1u);
  ASSERT_EQ(kvr_afe_get_frame(), &frame_data);
  EXPECT_EQ(etimeout_cnt.load(), 0u) << "a good frame ends the run";

  ASSERT_EQ(kvr_afe_screen_off(), 0u);
  sim::fail_ioctl(KVR_IOCTL_GET_FRAME, ETIMEDOUT);
  clear_log();
  sim::clear_recording();
  EXPECT_EQ(kvr_afe_get_frame(), nullptr);
  EXPECT_TRUE(logged("get_ioctr_frame", "Get frame ret error = 110, Connection timed out"));
  EXPECT_FALSE(logged("ETIMEDOUT with KVR_STATE_WORKING status"));
  EXPECT_EQ(etimeout_cnt.load(), 0u);
  EXPECT_TRUE(sim::spi_transfers().empty()) << "no diagnosis in STANDBY";
}

TEST_F(FrameTest, OnlyClearStatusRunsWhileFramesAreQueued) {
  ASSERT_NE(kvr_afe_get_hw_cap(), nullptr);
  ASSERT_EQ(kvr_afe_force_to_scan_rate(1), 0u);
  ASSERT_EQ(kvr_afe_clear_status(4), 0u);

  sim::advance_us(50000); // a backlog builds up in the driver
  const uint32_t queued = sim::driver().queued_frames;
  ASSERT_GE(queued, 2u);
  clear_log();
  sim::clear_recording();
  ASSERT_EQ(kvr_afe_get_frame(), &frame_data);
  EXPECT_TRUE(logged("kvr_afe_get_frame", "Frame buffer: " + std::to_string(queued)));
  EXPECT_TRUE(logged("vendor_clear_status", "Clear status 00000004"));
  EXPECT_TRUE(sim::fw_commands().empty()) << "the scan rate waits for an empty queue";

  ioctrl_clear_frame_buffer();
  clear_log();
  sim::clear_recording();
  ASSERT_EQ(kvr_afe_get_frame(), &frame_data);
  EXPECT_TRUE(logged("kvr_afe_get_frame", "Intializing command handler functions"));
  EXPECT_EQ(sim::fw_commands(), (std::vector<std::vector<uint8_t>>{{0xC0, 0x00, 0x01}}));
}

} // namespace
