// The device node: request numbers, argument records, the time-out cache,
// the SPI busy waits and every failure message.
#include <cerrno>
#include <cstring>

#include "platform/ioctrl.h"
#include "platform/log.h"
#include "platform/os.h"
#include "support/fixture.h"

namespace {

class DeviceNode : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    ASSERT_EQ(ioctrl_open(), 0u);
    sim::clear_recording();
    clear_log();
  }
  void TearDown() override {
    spi_mutex.store(0);
    ioctrl_close();
    SimTest::TearDown();
  }
};

afehal_os_ops g_custom;
int g_sleeps = 0;
int g_clear_after = 0;

int usleep_clearing_flag(unsigned int) {
  if (++g_sleeps == g_clear_after) {
    spi_mutex.store(0);
  }
  return 0;
}

void hold_spi_link_for(int sleeps) {
  g_custom = os();
  g_custom.usleep = usleep_clearing_flag;
  g_sleeps = 0;
  g_clear_after = sleeps;
  os_install(&g_custom);
  spi_mutex.store(1);
}

uint32_t u32_at(const std::vector<uint8_t> &bytes, size_t offset) {
  uint32_t v;
  std::memcpy(&v, bytes.data() + offset, 4);
  return v;
}

uint64_t u64_at(const std::vector<uint8_t> &bytes, size_t offset) {
  uint64_t v;
  std::memcpy(&v, bytes.data() + offset, 8);
  return v;
}

} // namespace

TEST_F(DeviceNode, OpenTwiceIsRefused) {
  EXPECT_EQ(ioctrl_open(), 4u);
  EXPECT_TRUE(logged("ioctrl_open", "AFE can't be re-opened."));
  EXPECT_EQ(android_errors().back(), "AFE can't be re-opened.");
  EXPECT_EQ(sim::driver().open_calls, 1);
}

TEST_F(DeviceNode, OpenRetriesOnceThenFails) {
  ioctrl_close();
  sim::fail_open(ENOENT, 1);
  EXPECT_EQ(ioctrl_open(), 0u); // the second open succeeds
  EXPECT_TRUE(logged("ioctrl_open", "Open node (/dev/kvr) sucess"));
  ioctrl_close();

  clear_log();
  sim::fail_open(EACCES, 2);
  EXPECT_EQ(ioctrl_open(), 3u);
  const std::string text = std::string("Open node (/dev/kvr) Failed! ") + strerror(EACCES);
  EXPECT_TRUE(logged("ioctrl_open", text));
  EXPECT_EQ(android_errors().back(), text);
  EXPECT_LT(ioctrl_fd.load(), 0);
}

TEST_F(DeviceNode, CloseForgetsTheDescriptorButKeepsTheTimeoutCache) {
  ASSERT_EQ(ioctrl_set_timeout(253), 0);
  ioctrl_close();
  EXPECT_TRUE(logged("ioctrl_close", "called"));
  EXPECT_EQ(ioctrl_fd.load(), -1);
  EXPECT_FALSE(sim::driver().open);
  ASSERT_EQ(ioctrl_open(), 0u);
  sim::clear_recording();
  EXPECT_EQ(ioctrl_set_timeout(253), 0);
  EXPECT_TRUE(sim::ioctls().empty());
}

TEST_F(DeviceNode, TimeoutIsCachedAndRetriedAfterFailure) {
  EXPECT_EQ(ioctrl_set_timeout(253), 0);
  EXPECT_EQ(ioctrl_set_timeout(253), 0);
  auto calls = sim::ioctls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].request, 0x4004B803ul);
  EXPECT_EQ(calls[0].value, 253u);
  EXPECT_TRUE(logged("ioctrl_set_timeout", "253, OK"));
  EXPECT_EQ(sim::driver().frame_timeout_ms, 253u);

  sim::fail_ioctl(0x4004B803, EIO);
  EXPECT_LT(ioctrl_set_timeout(1471), 0);
  EXPECT_TRUE(logged("ioctrl_set_timeout", std::string("1471, ") + strerror(EIO)));
  EXPECT_EQ(ioctrl_timeout.load(), 253u);
  EXPECT_EQ(ioctrl_set_timeout(1471), 0); // retried, not cached
  EXPECT_EQ(sim::ioctls(0x4004B803).size(), 3u);
}

TEST_F(DeviceNode, SpiSyncStopsAtTheFirstFailure) {
  uint8_t tx[3][4] = {{1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 11, 12}};
  uint8_t rx[3][4] = {};
  ioctrl_spi_xfer xfers[3];
  for (int i = 0; i < 3; ++i) {
    xfers[i] = {tx[i], rx[i], 4, 0};
  }
  sim::fail_ioctl(0xC018B804, EIO, sim::fault_when::nth, 2);
  EXPECT_LT(ioctrl_spi_sync(xfers, 3), 0);
  auto calls = sim::ioctls(0xC018B804);
  ASSERT_EQ(calls.size(), 2u);
  // The record the driver sees: tx pointer, rx pointer, length, reserved 0.
  ASSERT_EQ(calls[0].argument.size(), 24u);
  EXPECT_EQ(u64_at(calls[0].argument, 0), reinterpret_cast<uint64_t>(tx[0]));
  EXPECT_EQ(u64_at(calls[0].argument, 8), reinterpret_cast<uint64_t>(rx[0]));
  EXPECT_EQ(u32_at(calls[0].argument, 16), 4u);
  EXPECT_EQ(u32_at(calls[0].argument, 20), 0u);
  EXPECT_EQ(spi_mutex.load(), 0);
  EXPECT_TRUE(logged("ioctrl_spi_sync", "+, 1"));
  EXPECT_TRUE(logged("ioctrl_spi_sync", std::string("-, 1, ") + strerror(EIO)));
  EXPECT_FALSE(logged("ioctrl_spi_sync", "+, 2"));

  EXPECT_EQ(ioctrl_spi_sync(xfers, 0), 0);
  EXPECT_EQ(sim::ioctls(0xC018B804).size(), 2u);
}

TEST_F(DeviceNode, ModeRequestsCarryTheirValues) {
  EXPECT_EQ(ioctrl_set_block(1), 0);
  EXPECT_EQ(ioctrl_set_irq(0), 0);
  EXPECT_EQ(ioctrl_set_reset(3), 0); // only bit 0 is used
  ioctrl_clear_frame_buffer();
  auto calls = sim::ioctls();
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[0].request, 0x4004B806ul);
  EXPECT_EQ(calls[0].value, 1u);
  EXPECT_EQ(calls[1].request, 0x4004B807ul);
  EXPECT_EQ(calls[1].value, 0u);
  EXPECT_EQ(calls[2].request, 0x4004B802ul);
  EXPECT_EQ(calls[2].value, 1u);
  EXPECT_EQ(calls[3].request, 0x4004B809ul);
  EXPECT_EQ(calls[3].arg, 0ul);
  EXPECT_TRUE(sim::driver().blocking);
  EXPECT_FALSE(sim::driver().irq_enabled);
  EXPECT_TRUE(logged("ioctrl_set_block", "1, OK"));
  EXPECT_TRUE(logged("ioctrl_set_irq", "IRQ enable set: 0"));
  EXPECT_TRUE(logged("ioctrl_set_irq", "0, OK"));
  EXPECT_TRUE(logged("ioctrl_set_reset", "1, OK"));
  EXPECT_TRUE(logged("ioctrl_clear_frame_buffer", "OK"));
}

TEST_F(DeviceNode, FrameCountAndItsFailure) {
  EXPECT_EQ(ioctrl_get_frame_count(), 0u);
  auto calls = sim::ioctls(0x4004B808);
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_NE(calls[0].arg, 0ul); // a pointer to the count

  sim::fail_ioctl(0x4004B808, EFAULT);
  EXPECT_EQ(ioctrl_get_frame_count(), 0u);
  EXPECT_TRUE(logged("ioctrl_get_frame_count", strerror(EFAULT)));
  EXPECT_EQ(android_errors().back(), strerror(EFAULT));
}

TEST_F(DeviceNode, GetFrameReturnsErrno) {
  uint8_t buf[3000];
  int64_t stamp[2] = {};
  ioctrl_framedata req{buf, stamp, sizeof buf, 0};
  sim::fail_ioctl(0xC018B801, ETIMEDOUT);
  EXPECT_EQ(ioctrl_get_frame(&req), ETIMEDOUT);
  EXPECT_TRUE(logged("ioctrl_get_frame", "+"));
  EXPECT_TRUE(logged("ioctrl_get_frame", std::string("-, ") + strerror(ETIMEDOUT) + "."));
  auto calls = sim::ioctls(0xC018B801);
  ASSERT_EQ(calls.size(), 1u);
  ASSERT_EQ(calls[0].argument.size(), 24u);
  EXPECT_EQ(u64_at(calls[0].argument, 0), reinterpret_cast<uint64_t>(buf));
  EXPECT_EQ(u64_at(calls[0].argument, 8), reinterpret_cast<uint64_t>(stamp));
  EXPECT_EQ(u32_at(calls[0].argument, 16), 3000u);
  EXPECT_EQ(u32_at(calls[0].argument, 20), 0u);
}

TEST_F(DeviceNode, FramePathWaitsAtMost20Polls) {
  uint8_t buf[16];
  int64_t stamp[2] = {};
  ioctrl_framedata req{buf, stamp, sizeof buf, 0};

  // Cleared after the 19th sleep: in time.
  hold_spi_link_for(19);
  sim::fail_ioctl(0xC018B801, ETIMEDOUT);
  EXPECT_EQ(ioctrl_get_frame(&req), ETIMEDOUT);
  EXPECT_EQ(g_sleeps, 19);

  // Cleared after the 20th sleep: too late, no ioctl.
  sim::clear_recording();
  hold_spi_link_for(20);
  EXPECT_EQ(ioctrl_get_frame(&req), 255);
  EXPECT_EQ(g_sleeps, 20);
  EXPECT_TRUE(sim::ioctls().empty());
  EXPECT_TRUE(logged("wait_for_mutex", "Timeout. kvr_afe_get_frame get SPI Mutex"));

  hold_spi_link_for(0);
  EXPECT_EQ(ioctrl_get_frame_count(), 255u);
  EXPECT_EQ(g_sleeps, 20);
  EXPECT_TRUE(sim::ioctls().empty());
}

TEST_F(DeviceNode, ModeChangesWaitAtMost10Polls) {
  hold_spi_link_for(9);
  EXPECT_EQ(ioctrl_set_block(0), 0);
  EXPECT_EQ(g_sleeps, 9);

  sim::clear_recording();
  hold_spi_link_for(10);
  EXPECT_EQ(ioctrl_set_block(1), 255);
  EXPECT_EQ(g_sleeps, 10);
  EXPECT_TRUE(logged("wait_for_mutex", "Timeout. SETBLOCKING get SPI Mutex"));

  hold_spi_link_for(0);
  EXPECT_EQ(ioctrl_set_timeout(100), 255);
  EXPECT_EQ(g_sleeps, 10);
  EXPECT_TRUE(logged("wait_for_mutex", "Timeout. SETDRIMSTMO get SPI Mutex"));
  EXPECT_TRUE(sim::ioctls().empty());
  EXPECT_EQ(android_errors().back(), "Timeout. SETDRIMSTMO get SPI Mutex");
}

TEST_F(DeviceNode, FlushIsIssuedEvenWhenTheLinkStaysBusy) {
  hold_spi_link_for(0);
  ioctrl_clear_frame_buffer();
  EXPECT_EQ(g_sleeps, 20);
  EXPECT_TRUE(logged("wait_for_mutex", "Timeout. kvr_afe_get_frame get SPI Mutex"));
  EXPECT_EQ(sim::ioctls(0x4004B809).size(), 1u);
}

TEST_F(DeviceNode, FailedFlushIsReported) {
  sim::fail_ioctl(0x4004B809, EIO);
  ioctrl_clear_frame_buffer();
  EXPECT_EQ(sim::ioctls(0x4004B809).size(), 1u);
  EXPECT_TRUE(logged("ioctrl_clear_frame_buffer", strerror(EIO)));
}

TEST_F(DeviceNode, ClosedNodeFailsWithEbadf) {
  ioctrl_close();
  EXPECT_LT(ioctrl_set_block(1), 0);
  EXPECT_TRUE(logged("ioctrl_set_block", std::string("1, ") + strerror(EBADF)));
}
