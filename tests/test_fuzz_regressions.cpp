// Inputs the fuzzers found (fuzz/corpus/<target>/regress-*), each replayed
// here through the library's own calls.
#include <cerrno>
#include <vector>

#include "afe/afe.h"
#include "afehal/afehal.h"
#include "chip/inspect/diag_data.h"
#include "platform/ioctrl.h"
#include "support/fixture.h"

namespace {

using FuzzRegressionTest = SimTest;

bool frames_flow() {
  for (int i = 0; i < 8; ++i) {
    const kvr_frame_data *frame = kvr_afe_get_frame();
    if (frame != nullptr && (frame->status & KVR_AFE_STATUS_SOS) == 0) {
      return true;
    }
  }
  return false;
}

// fuzz/corpus/api/regress-irq-off-after-inspect: the driver refuses to switch
// its IRQ back on at the end of an inspection. That result is ignored, so the
// verdict stands and the IRQ stays off: no frame reaches the library, not
// even after a reopen, until the next inspection switches it on again.
TEST_F(FuzzRegressionTest, IrqLeftOffByAnInspectionComesBackWithTheNextOne) {
  sim::fail_ioctl(KVR_IOCTL_SET_IRQ, EIO, sim::fault_when::nth, 2);
  ASSERT_EQ(kvr_afe_open(), 0u);
  EXPECT_EQ(kvr_afe_inspect(), 0u);
  const auto irq = sim::ioctls(KVR_IOCTL_SET_IRQ);
  ASSERT_EQ(irq.size(), 2u);
  EXPECT_EQ(irq[1].value, 1u);
  EXPECT_EQ(irq[1].error, EIO);
  EXPECT_TRUE(logged_error("Inspect = 00000000"));
  EXPECT_FALSE(sim::driver().irq_enabled);

  ASSERT_EQ(kvr_afe_start(), 0u);
  EXPECT_FALSE(frames_flow());
  ASSERT_EQ(kvr_afe_stop(), 0u);
  ASSERT_EQ(kvr_afe_close(), 0u);
  ASSERT_EQ(kvr_afe_open(), 0u);
  ASSERT_EQ(kvr_afe_start(), 0u);
  EXPECT_FALSE(sim::driver().irq_enabled);

  EXPECT_EQ(kvr_afe_inspect(), 0u);
  EXPECT_TRUE(sim::driver().irq_enabled);
  EXPECT_TRUE(frames_flow());
  ASSERT_EQ(kvr_afe_stop(), 0u);
  ASSERT_EQ(kvr_afe_close(), 0u);
}

// fuzz/corpus/api/regress-held-ic-with-gesture-armed: a firmware update
// whose erase never ends leaves the IC's core held, and a wake-up gesture is
// armed before the next start, so that start does not update (or reset) the
// IC: it fails with 3. The frame path's time-outs then raise the SOS, the
// reset releases the IC, and after the SOS record a restart brings frames.
TEST_F(FuzzRegressionTest, IcHeldByAFailedFlashComesBackThroughTheSos) {
  sim::chip_identity old_firmware = sim::identity();
  old_firmware.fw_ver = 0x0010;
  sim::set_identity(old_firmware);
  sim::erase_stuck(true);
  ASSERT_EQ(kvr_afe_open(), 0u);
  EXPECT_EQ(kvr_afe_start(), 3u);
  EXPECT_TRUE(logged_error("fw_update", "Unable to flash the fw.."));
  EXPECT_TRUE(sim::ic().core_held);
  ASSERT_EQ(kvr_afe_enable_wakeup_gesture(1), 0u);
  sim::clear_faults();
  kvr_afe_stop();
  ASSERT_EQ(kvr_afe_close(), 0u);

  ASSERT_EQ(kvr_afe_open(), 0u);
  sim::clear_recording();
  clear_log();
  EXPECT_EQ(kvr_afe_start(), 3u);
  EXPECT_TRUE(sim::erased_pages().empty());
  EXPECT_TRUE(logged_error("vendor_afe_start", "Error writing sense-on command!!"));
  EXPECT_EQ(gu32AFEStatus.load(), static_cast<uint32_t>(KVR_STATE_WORKING));

  const kvr_frame_data *frame = nullptr;
  for (int i = 0; i < 6 && frame == nullptr; ++i) {
    frame = kvr_afe_get_frame();
  }
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->status, static_cast<uint32_t>(KVR_AFE_STATUS_SOS));
  EXPECT_FALSE(sim::ic().core_held);
  EXPECT_EQ(kvr_afe_start(), 0u);
  EXPECT_TRUE(frames_flow());
  ASSERT_EQ(kvr_afe_stop(), 0u);
  ASSERT_EQ(kvr_afe_close(), 0u);
}

// The host-data fuzzer's ground: the block the simulated IC is told to
// serve reaches the readers, stamped as a fresh load of the requested type,
// or exactly as given (here with the wrong type, so the load never shows).
using ServedHostDataTest = IoSimTest;

TEST_F(ServedHostDataTest, ServedBlockReachesTheReaderStampedOrRaw) {
  std::vector<uint8_t> block(16, 0);
  block[4] = 2; // force
  block[5] = 3; // sense
  for (uint8_t v = 1; v <= 6; ++v) {
    block.push_back(v);
  }
  sim::serve_host_data(block);
  mutual_frame frame = new_mutual_frame();
  ASSERT_EQ(read_ms_cx_data(HOST_DATA_MS_CX, &frame), 0u);
  EXPECT_EQ(frame.force_len, 2);
  EXPECT_EQ(frame.sense_len, 3);
  EXPECT_EQ(std::vector<int16_t>(frame.data, frame.data + 6),
            (std::vector<int16_t>{1, 2, 3, 4, 5, 6}));
  clean_mutual_frame(&frame);

  block[0] = 0xA5;
  block[1] = HOST_DATA_MS_LP_CX;
  sim::serve_host_data(block, true);
  EXPECT_EQ(read_ms_cx_data(HOST_DATA_MS_CX, &frame), 1u);
  EXPECT_TRUE(logged_error("read_ms_cx_data", "Error requesting CX data 10"));
  clean_mutual_frame(&frame);
}

} // namespace
