// Register access: the bytes of the read and write frames, the chunking of
// bulk transfers, and the failure paths.
#include <cerrno>
#include <functional>
#include <string>

#include "platform/ioctrl.h"
#include "support/fixture.h"
#include "vendor/transport/reg_access.h"

namespace {

using bytes = std::vector<uint8_t>;

constexpr uint32_t kRam = 0x20020000; // plain IC RAM

class RegAccess : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    ASSERT_EQ(ioctrl_open(), 0u);
    sim::clear_recording();
  }
  void TearDown() override {
    sim::fail_allocation(0);
    ioctrl_close();
    SimTest::TearDown();
  }
};

bytes pattern(size_t n) {
  bytes out(n);
  for (size_t i = 0; i < n; ++i) {
    out[i] = static_cast<uint8_t>(i * 7 + i / 256);
  }
  return out;
}

bytes head(const bytes &v, size_t n) {
  return bytes(v.begin(), v.begin() + static_cast<long>(n));
}

// The last error copied to the Android log, "" when none.
std::string last_error() {
  const auto errors = android_errors();
  return errors.empty() ? std::string() : errors.back();
}

TEST_F(RegAccess, ReadIsOneTransferOfCommandDummyAndData) {
  sim::mem_write(kRam, {1, 2, 3, 4, 5, 6, 7, 8});
  sim::clear_recording();
  const uint8_t cmd[] = {0xFB, 0x20, 0x02, 0x00, 0x00};
  bytes out(8, 0);
  ASSERT_EQ(quillon_read(cmd, 5, out.data(), 8), 0u);

  const auto xfers = sim::spi_transfers();
  ASSERT_EQ(xfers.size(), 1u);
  // Command, then 0xFF for the dummy byte and every byte clocked in.
  EXPECT_EQ(xfers[0].tx, (bytes{0xFB, 0x20, 0x02, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(out, bytes(xfers[0].rx.begin() + 6, xfers[0].rx.end()));
  EXPECT_EQ(out, (bytes{1, 2, 3, 4, 5, 6, 7, 8}));

  // Without a destination the transfer still happens, then 2.
  EXPECT_EQ(quillon_read(cmd, 5, nullptr, 8), 2u);
  EXPECT_EQ(sim::spi_transfers().size(), 2u);
  EXPECT_TRUE(logged("quillon_read",
                     "quillon_read rx buff is not NULL, read_buff is NULL, read_count = 8, "
                     "buff_size = 14"));
  // Without a command nothing is sent.
  EXPECT_EQ(quillon_write(nullptr, 3), 2u);
  EXPECT_EQ(sim::spi_transfers().size(), 2u);
  EXPECT_EQ(last_error(), "quillon_write tx buff is not NULL, cmd is NULL, cmd length = 3");
}

TEST_F(RegAccess, ChunkBoundaries) {
  const bytes data = pattern(SPI_WRITE_CHUNK + 1);
  ASSERT_EQ(quillon_write_chunk_at(kRam, data.data(), SPI_WRITE_CHUNK), 0u);
  auto xfers = sim::spi_transfers();
  ASSERT_EQ(xfers.size(), 1u);
  EXPECT_EQ(xfers[0].tx.size(), 16389u);

  sim::clear_recording();
  ASSERT_EQ(quillon_write_chunk_at(kRam, data.data(), SPI_WRITE_CHUNK + 1), 0u);
  xfers = sim::spi_transfers();
  ASSERT_EQ(xfers.size(), 2u);
  EXPECT_EQ(head(xfers[0].tx, 5), (bytes{0xFA, 0x20, 0x02, 0x00, 0x00}));
  EXPECT_EQ(xfers[1].tx, (bytes{0xFA, 0x20, 0x02, 0x40, 0x00, data.back()}));
  EXPECT_EQ(sim::mem_read(kRam, data.size()), data);

  sim::clear_recording();
  bytes out(SPI_READ_CHUNK + 1, 0);
  ASSERT_EQ(quillon_read_chunk_at(kRam, out.data(), SPI_READ_CHUNK + 1), 0u);
  xfers = sim::spi_transfers();
  ASSERT_EQ(xfers.size(), 2u);
  EXPECT_EQ(xfers[0].tx.size(), 5u + 1u + 8192u);
  EXPECT_EQ(xfers[1].tx, (bytes{0xFB, 0x20, 0x02, 0x20, 0x00, 0xFF, 0xFF}));
  EXPECT_EQ(out, head(data, out.size()));
}

TEST_F(RegAccess, TransferErrorInAChunkedWriteStopsThere) {
  const bytes data = pattern(3 * SPI_WRITE_CHUNK);
  sim::mem_write(kRam, bytes(data.size(), 0));
  sim::fail_spi_transfer(2, EIO);
  const uint32_t result = quillon_write_chunk_at(kRam, data.data(), 3 * SPI_WRITE_CHUNK);
  EXPECT_EQ(static_cast<int32_t>(result), -1);
  EXPECT_TRUE(logged("quillon_write ioctrl_spi_sync failed -1"));
  EXPECT_EQ(sim::ioctls(KVR_IOCTL_SPI_SYNC).size(), 2u); // the third chunk is never tried
  EXPECT_EQ(sim::mem_read(kRam, SPI_WRITE_CHUNK), head(data, SPI_WRITE_CHUNK));
  EXPECT_EQ(sim::mem_read(kRam + 2 * SPI_WRITE_CHUNK, 4), bytes(4, 0));
}

TEST_F(RegAccess, EveryAllocationFailureGivesTwoAndFreesWhatWasTaken) {
  const bytes data = pattern(40);
  bytes out(SPI_READ_CHUNK + 2, 0);
  const uint8_t cmd[] = {0xFB, 0x20, 0x02, 0x00, 0x00};
  // Each call with the number of allocations before its first transfer.
  const std::vector<std::pair<int, std::function<uint32_t()>>> calls = {
      {2, [&] { return quillon_read(cmd, 5, out.data(), 8); }},
      {2, [&] { return quillon_write(data.data(), 10); }},
      {3, [&] { return quillon_write_at(kRam, data.data(), 8); }},
      {3, [&] { return fw_cfg_write_at(0x30, data.data(), 2); }},
      {3, [&] { return quillon_write_chunk_at(kRam, data.data(), 40); }},
      {3, [&] { return quillon_read_chunk_at(kRam, out.data(), SPI_READ_CHUNK + 2); }},
  };
  for (size_t c = 0; c < calls.size(); ++c) {
    for (int nth = 1; nth <= calls[c].first; ++nth) {
      SCOPED_TRACE("call " + std::to_string(c) + ", allocation " + std::to_string(nth));
      sim::fail_allocation(nth);
      EXPECT_EQ(calls[c].second(), 2u);
      sim::fail_allocation(0);
      EXPECT_TRUE(sim::spi_transfers().empty());
      EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
    }
  }
}

} // namespace
