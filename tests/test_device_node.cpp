// The device node (requests, records, time-out cache, busy waits, failures)
// and the register access over it: the bytes of the read and write frames,
// what the host receives, the chunking of bulk transfers, the failure paths.
#include <cerrno>
#include <cstring>
#include <functional>

#include "chip/transport/reg_access.h"

#include "platform/ioctrl.h"
#include "platform/log.h"
#include "platform/os.h"
#include "support/fixture.h"

namespace {

using DeviceNode = IoSimTest;
using RegAccess = IoSimTest;

uint8_t g_buf[3000];
int64_t g_stamp[2];
ioctrl_framedata g_req{g_buf, g_stamp, sizeof g_buf, 0};
afehal_os_ops g_custom;
int g_sleeps = 0;
int g_clear_after = 0;

// Marks the SPI link busy until the given number of sleeps (0: for good).
void hold_spi_link_for(int sleeps) {
  g_custom = os();
  g_custom.usleep = [](unsigned int) {
    if (++g_sleeps == g_clear_after) {
      spi_mutex.store(0);
    }
    return 0;
  };
  g_sleeps = 0;
  g_clear_after = sleeps;
  os_install(&g_custom);
  spi_mutex.store(1);
}

// The 24-byte record the driver sees: two pointers, then a 32-bit length
// and a reserved 32-bit zero (read together as one little-endian word).
void expect_record(const std::vector<uint8_t> &bytes, const void *a, const void *b, uint32_t len) {
  ASSERT_EQ(bytes.size(), 24u);
  uint64_t words[3];
  std::memcpy(words, bytes.data(), sizeof words);
  EXPECT_EQ(words[0], reinterpret_cast<uint64_t>(a));
  EXPECT_EQ(words[1], reinterpret_cast<uint64_t>(b));
  EXPECT_EQ(words[2], uint64_t{len});
}

} // namespace

TEST_F(DeviceNode, OpenIsRefusedTwiceAndRetriedOnce) {
  EXPECT_EQ(ioctrl_open(), 4u);
  EXPECT_TRUE(logged_error("ioctrl_open", "AFE can't be re-opened."));
  EXPECT_EQ(sim::driver().open_calls, 1);

  ioctrl_close();
  clear_log();
  sim::fail_open(ENOENT, 1);
  EXPECT_EQ(ioctrl_open(), 0u); // the second open succeeds
  EXPECT_TRUE(logged_at(3, "ioctrl_open", "Open node (/dev/kvr) sucess"));
  ioctrl_close();
  sim::fail_open(EACCES, 2);
  EXPECT_EQ(ioctrl_open(), 3u);
  const std::string text = std::string("Open node (/dev/kvr) Failed! ") + strerror(EACCES);
  EXPECT_TRUE(logged_error("ioctrl_open", text));
  EXPECT_LT(ioctrl_fd.load(), 0);
}

TEST_F(DeviceNode, TimeoutIsCachedAcrossCloseAndRetriedAfterFailure) {
  EXPECT_EQ(ioctrl_set_timeout(253), 0);
  EXPECT_EQ(ioctrl_set_timeout(253), 0);
  auto calls = sim::ioctls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].request, 0x4004B803ul);
  EXPECT_EQ(calls[0].value, 253u);
  EXPECT_TRUE(logged_at(3, "ioctrl_set_timeout", "253, OK"));

  sim::fail_ioctl(0x4004B803, EIO);
  EXPECT_LT(ioctrl_set_timeout(1471), 0);
  EXPECT_TRUE(logged_at(3, "ioctrl_set_timeout", std::string("1471, ") + strerror(EIO)));
  EXPECT_EQ(ioctrl_set_timeout(1471), 0); // retried, not cached
  EXPECT_EQ(sim::ioctls(0x4004B803).size(), 3u);

  ioctrl_close();
  EXPECT_TRUE(logged_at(3, "ioctrl_close", "called"));
  EXPECT_FALSE(sim::driver().open);
  EXPECT_LT(ioctrl_set_block(1), 0);
  EXPECT_TRUE(logged_at(3, "ioctrl_set_block", std::string("1, ") + strerror(EBADF)));
  ASSERT_EQ(ioctrl_open(), 0u);
  sim::clear_recording();
  EXPECT_EQ(ioctrl_set_timeout(1471), 0);
  EXPECT_TRUE(sim::ioctls().empty());
}

TEST_F(DeviceNode, SpiSyncStopsAtTheFirstFailure) {
  uint8_t tx[3][4] = {}, rx[3][4] = {};
  ioctrl_spi_xfer xfers[3] = {{tx[0], rx[0], 4, 0}, {tx[1], rx[1], 4, 0}, {tx[2], rx[2], 4, 0}};
  sim::fail_ioctl(0xC018B804, EIO, sim::fault_when::nth, 2);
  EXPECT_LT(ioctrl_spi_sync(xfers, 3), 0);
  auto calls = sim::ioctls(0xC018B804);
  ASSERT_EQ(calls.size(), 2u);
  expect_record(calls[0].argument, tx[0], rx[0], 4);
  EXPECT_EQ(spi_mutex.load(), 0);
  EXPECT_TRUE(logged_at(4, "ioctrl_spi_sync", "-, 0, OK"));
  EXPECT_TRUE(logged_at(4, "ioctrl_spi_sync", "+, 1"));
  EXPECT_TRUE(logged_at(4, "ioctrl_spi_sync", std::string("-, 1, ") + strerror(EIO)));
  EXPECT_FALSE(mentioned("+, 2"));

  EXPECT_EQ(ioctrl_spi_sync(xfers, 0), 0);
  EXPECT_EQ(sim::ioctls(0xC018B804).size(), 2u);
}

TEST_F(DeviceNode, ModeRequestsCarryTheirValues) {
  EXPECT_EQ(ioctrl_set_block(1), 0);
  EXPECT_EQ(ioctrl_set_irq(0), 0);
  EXPECT_EQ(ioctrl_set_reset(3), 0); // only bit 0 is used
  ioctrl_clear_frame_buffer();
  const std::pair<unsigned long, uint32_t> expected[] = {
      {0x4004B806, 1}, {0x4004B807, 0}, {0x4004B802, 1}, {0x4004B809, 0}};
  const auto calls = sim::ioctls();
  ASSERT_EQ(calls.size(), 4u);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(std::make_pair(calls[i].request, calls[i].value), expected[i]);
  }
  EXPECT_EQ(calls[3].arg, 0ul);
  EXPECT_TRUE(logged_at(3, "ioctrl_set_block", "1, OK"));
  EXPECT_TRUE(logged_at(3, "ioctrl_set_irq", "IRQ enable set: 0"));
  EXPECT_TRUE(logged_at(3, "ioctrl_set_irq", "0, OK"));
  EXPECT_TRUE(logged_at(3, "ioctrl_set_reset", "1, OK"));
  EXPECT_TRUE(logged_at(3, "ioctrl_clear_frame_buffer", "OK"));

  // A refused request gives the driver's -1 back and its reason.
  int32_t (*const requests[])(uint8_t) = {[](uint8_t v) { return ioctrl_set_block(v); },
                                          [](uint8_t v) { return ioctrl_set_irq(v); },
                                          ioctrl_set_reset};
  for (size_t i = 0; i < 3; ++i) {
    sim::fail_ioctl(expected[i].first, EIO);
    EXPECT_EQ(requests[i](1), -1) << i;
  }
  EXPECT_TRUE(logged_at(3, "ioctrl_set_reset", std::string("1, ") + strerror(EIO)));
}

TEST_F(DeviceNode, FrameRequestsAndTheirFailures) {
  // Sensing on for 50 ms: the driver holds frames, and the count says how many.
  const uint8_t sense_on[] = {0xA0, 0x03, 0x00};
  ioctrl_spi_xfer x{const_cast<uint8_t *>(sense_on), g_buf, 3, 0};
  ASSERT_EQ(ioctrl_spi_sync(&x, 1), 0);
  sim::advance_us(50'000);
  sim::clear_recording();
  const uint32_t queued = sim::driver().queued_frames;
  ASSERT_GT(queued, 1u);
  EXPECT_EQ(ioctrl_get_frame_count(), queued);
  ASSERT_EQ(sim::ioctls(0x4004B808).size(), 1u);
  ioctrl_clear_frame_buffer();
  EXPECT_EQ(ioctrl_get_frame_count(), 0u);
  sim::fail_ioctl(0x4004B808, EFAULT);
  EXPECT_EQ(ioctrl_get_frame_count(), 0u);
  EXPECT_TRUE(logged_error("ioctrl_get_frame_count", strerror(EFAULT)));

  sim::fail_ioctl(0xC018B801, ETIMEDOUT);
  EXPECT_EQ(ioctrl_get_frame(&g_req), ETIMEDOUT);
  EXPECT_TRUE(logged_at(3, "ioctrl_get_frame", "+"));
  EXPECT_TRUE(logged_at(3, "ioctrl_get_frame", std::string("-, ") + strerror(ETIMEDOUT) + "."));
  auto calls = sim::ioctls(0xC018B801);
  ASSERT_EQ(calls.size(), 1u);
  expect_record(calls[0].argument, g_buf, g_stamp, 3000);
}

TEST_F(DeviceNode, BusyWaitsGiveUpAfter20PollsForFramesAnd10ForModes) {
  sim::fail_ioctl(0xC018B801, ETIMEDOUT, sim::fault_when::always);
  sim::fail_ioctl(0x4004B809, EIO);
  // Freed after limit - 1 sleeps: in time; after limit sleeps: too late.
  auto expect_wait = [](int hold, int polls, long result, size_t issued, std::string waiter,
                        auto call) {
    SCOPED_TRACE(waiter + " " + std::to_string(hold));
    sim::clear_recording();
    clear_log();
    hold_spi_link_for(hold);
    EXPECT_EQ(call(), result);
    EXPECT_EQ(g_sleeps, polls);
    EXPECT_EQ(sim::ioctls().size(), issued);
    if (waiter.empty()) {
      EXPECT_EQ(count_logged_starting(1, "Timeout."), 0);
    } else {
      EXPECT_TRUE(logged_error("wait_for_mutex", "Timeout. " + waiter + " get SPI Mutex"));
    }
  };
  expect_wait(19, 19, ETIMEDOUT, 1, "", [] { return long{ioctrl_get_frame(&g_req)}; });
  expect_wait(20, 20, 255, 0, "kvr_afe_get_frame", [] { return long{ioctrl_get_frame(&g_req)}; });
  expect_wait(0, 20, 255, 0, "kvr_afe_get_frame", [] { return long(ioctrl_get_frame_count()); });
  expect_wait(9, 9, 0, 1, "", [] { return long{ioctrl_set_block(0)}; });
  expect_wait(10, 10, 255, 0, "SETBLOCKING", [] { return long{ioctrl_set_block(1)}; });
  expect_wait(0, 10, 255, 0, "SETDRIMSTMO", [] { return long{ioctrl_set_timeout(100)}; });
  // The flush is still issued after a busy time-out, and its failure reported.
  expect_wait(0, 20, 0, 1, "kvr_afe_get_frame", [] {
    ioctrl_clear_frame_buffer();
    return 0L;
  });
  EXPECT_TRUE(logged_at(3, "ioctrl_clear_frame_buffer", strerror(EIO)));
}

namespace {

using bytes = std::vector<uint8_t>;

constexpr uint32_t kRam = 0x21436587; // plain IC RAM, every address byte distinct
const uint8_t kReadCmd[] = {0xFB, 0x21, 0x43, 0x65, 0x87};

bytes pattern(size_t n) {
  bytes out(n);
  for (size_t i = 0; i < n; ++i) {
    out[i] = static_cast<uint8_t>(i * 7 + i / 256);
  }
  return out;
}

// The read frame: command, then 0xFF for the dummy byte and every byte clocked in.
bytes read_frame(const uint8_t *cmd, size_t n) {
  bytes out(cmd, cmd + 5);
  out.resize(5 + 1 + n, 0xFF);
  return out;
}

TEST_F(RegAccess, BothSpacesFrameTheirAddressBigEndianAndReadBackAfterTheDummyByte) {
  const bytes data = {0xC1, 0xC2};
  bytes out(2, 0);
  ASSERT_EQ(quillon_write_at(kRam, data.data(), 2), 0u);
  ASSERT_EQ(quillon_read_at(kRam, out.data(), 2), 0u);
  EXPECT_EQ(out, data);
  ASSERT_EQ(fw_cfg_write_at(0x1234, data.data(), 2), 0u);
  out.assign(2, 0);
  ASSERT_EQ(fw_cfg_read_at(0x1234, out.data(), 2), 0u);
  EXPECT_EQ(out, data);
  EXPECT_EQ(spi_sent(), (std::vector<bytes>{{0xFA, 0x21, 0x43, 0x65, 0x87, 0xC1, 0xC2},
                                            {0xFB, 0x21, 0x43, 0x65, 0x87, 0xFF, 0xFF, 0xFF},
                                            {0xA8, 0x12, 0x34, 0xC1, 0xC2},
                                            {0xA9, 0x12, 0x34, 0xFF, 0xFF, 0xFF}}));
  // The chip drives only the bytes after the dummy; the rest of what the
  // host receives is its own 0xFF fill.
  const auto xfers = sim::spi_transfers();
  EXPECT_EQ(xfers[0].rx, bytes(7, 0xFF));
  EXPECT_EQ(xfers[1].rx, (bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xC1, 0xC2}));
  EXPECT_EQ(xfers[3].rx, (bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xC1, 0xC2}));
}

TEST_F(RegAccess, NullBuffersChunkBoundariesAndATransferErrorMidWrite) {
  sim::mem_write(kRam, {1, 2, 3, 4, 5, 6, 7, 8});
  bytes out(8, 0);
  ASSERT_EQ(quillon_read(kReadCmd, 5, out.data(), 8), 0u);
  EXPECT_EQ(spi_sent(), std::vector<bytes>{read_frame(kReadCmd, 8)});
  EXPECT_EQ(out, (bytes{1, 2, 3, 4, 5, 6, 7, 8}));

  // Without a destination the transfer still happens, then 2.
  EXPECT_EQ(quillon_read(kReadCmd, 5, nullptr, 8), 2u);
  EXPECT_EQ(sim::spi_transfers().size(), 2u);
  EXPECT_TRUE(logged_error("quillon_read",
                           "quillon_read rx buff is not NULL, read_buff is NULL, read_count = 8, "
                           "buff_size = 14"));
  // Without a command nothing is sent.
  EXPECT_EQ(quillon_write(nullptr, 3), 2u);
  EXPECT_EQ(quillon_read(nullptr, 5, out.data(), 8), 2u);
  EXPECT_EQ(sim::spi_transfers().size(), 2u);
  EXPECT_TRUE(logged_error("quillon_write",
                           "quillon_write tx buff is not NULL, cmd is NULL, cmd length = 3"));
  EXPECT_TRUE(logged_error("quillon_read",
                           "quillon_read tx buff is not NULL, cmd is NULL, cmd length = 5"));
  // A bulk read with nowhere to put the data, or a negative length, sends nothing.
  EXPECT_EQ(quillon_read_chunk_at(kRam, nullptr, 4), 2u);
  EXPECT_EQ(quillon_read_chunk_at(kRam, out.data(), -1), 2u);
  EXPECT_EQ(sim::spi_transfers().size(), 2u);
  EXPECT_TRUE(
      logged_error("quillon_read_chunk_at", "quillon_read_chunk_at dest is NULL, length = 4"));
  EXPECT_TRUE(
      logged_error("quillon_read_chunk_at", "quillon_read_chunk_at dest is not NULL, length = -1"));

  sim::clear_recording();
  const bytes data = pattern(SPI_WRITE_CHUNK + 1);
  bytes first = {0xFA, 0x21, 0x43, 0x65, 0x87};
  first.insert(first.end(), data.begin(), data.end() - 1);
  ASSERT_EQ(quillon_write_chunk_at(kRam, data.data(), SPI_WRITE_CHUNK), 0u);
  EXPECT_EQ(spi_sent(), std::vector<bytes>{first});
  sim::clear_recording();
  ASSERT_EQ(quillon_write_chunk_at(kRam, data.data(), SPI_WRITE_CHUNK + 1), 0u);
  EXPECT_EQ(spi_sent(), (std::vector<bytes>{first, {0xFA, 0x21, 0x43, 0xA5, 0x87, data.back()}}));

  sim::clear_recording();
  bytes chunk(SPI_READ_CHUNK + 1, 0);
  ASSERT_EQ(quillon_read_chunk_at(kRam, chunk.data(), SPI_READ_CHUNK + 1), 0u);
  const uint8_t second[] = {0xFB, 0x21, 0x43, 0x85, 0x87};
  EXPECT_EQ(spi_sent(), (std::vector<bytes>{read_frame(kReadCmd, 8192), read_frame(second, 1)}));
  EXPECT_EQ(chunk, bytes(data.begin(), data.begin() + static_cast<long>(chunk.size())));

  const bytes big = pattern(3 * SPI_WRITE_CHUNK);
  sim::mem_write(kRam, bytes(big.size(), 0));
  sim::clear_recording();
  sim::fail_spi_transfer(2, EIO);
  EXPECT_EQ(static_cast<int32_t>(quillon_write_chunk_at(kRam, big.data(), big.size())), -1);
  EXPECT_TRUE(logged_error("quillon_write", "quillon_write ioctrl_spi_sync failed -1"));
  EXPECT_EQ(sim::ioctls(KVR_IOCTL_SPI_SYNC).size(), 2u); // the third chunk is never tried
  EXPECT_EQ(sim::mem_read(kRam, SPI_WRITE_CHUNK),
            bytes(big.begin(), big.begin() + SPI_WRITE_CHUNK));
  EXPECT_EQ(sim::mem_read(kRam + 2 * SPI_WRITE_CHUNK, 4), bytes(4, 0));
  sim::fail_spi_transfer(1, EIO);
  EXPECT_EQ(static_cast<int32_t>(quillon_read_at(kRam, out.data(), 8)), -1);
  EXPECT_TRUE(logged_error("quillon_read", "quillon_read ioctrl_spi_sync failed -1"));
}

TEST_F(RegAccess, EveryAllocationFailureGivesTwoAndFreesWhatWasTaken) {
  const bytes data = pattern(40);
  bytes out(SPI_READ_CHUNK + 2, 0);
  // Each call with the number of allocations before its first transfer.
  const std::vector<std::pair<int, std::function<uint32_t()>>> calls = {
      {2, [&] { return quillon_read(kReadCmd, 5, out.data(), 8); }},
      {2, [&] { return quillon_write(data.data(), 10); }},
      {3, [&] { return quillon_write_at(kRam, data.data(), 8); }},
      {3, [&] { return fw_cfg_write_at(0x30, data.data(), 2); }},
      {3, [&] { return quillon_write_chunk_at(kRam, data.data(), 40); }},
      {3, [&] { return quillon_read_chunk_at(kRam, out.data(), SPI_READ_CHUNK + 2); }},
  };
  for (const auto &[n, call] : calls) {
    expect_allocation_failures(n, call);
  }
  EXPECT_TRUE(sim::spi_transfers().empty());
}

} // namespace
