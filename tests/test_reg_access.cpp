// Register access: the bytes of the read and write frames, what the host
// receives, the chunking of bulk transfers, and the failure paths.
#include <cerrno>
#include <functional>

#include "chip/transport/reg_access.h"
#include "platform/ioctrl.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;

constexpr uint32_t kRam = 0x21436587; // plain IC RAM, every address byte distinct
const uint8_t kReadCmd[] = {0xFB, 0x21, 0x43, 0x65, 0x87};

using RegAccess = IoSimTest;

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
