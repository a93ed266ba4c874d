// Host-data requests (signature, new counter and type must all match) and
// the decoding of the chip-info block.
#include <cerrno>
#include <cstdio>
#include <string>

#include "platform/ioctrl.h"
#include "platform/os.h"
#include "support/fixture.h"
#include "vendor/transport/host_data.h"

namespace {

using bytes = std::vector<uint8_t>;

const afehal_os_ops *g_sim_ops = nullptr; // the simulator's table

class HostData : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    g_sim_ops = &os();
    ASSERT_EQ(ioctrl_open(), 0u);
    sim::clear_recording();
  }
  void TearDown() override {
    ioctrl_close();
    SimTest::TearDown();
  }
};

// Rewrites the host-data header during the library's first poll sleep, as
// a firmware answering while the host waits would.
afehal_os_ops g_hooked;
bytes g_header;
bool g_done = false;

int usleep_then_load(unsigned int us) {
  const int r = g_sim_ops->usleep(us);
  if (!g_done) {
    g_done = true;
    sim::mem_write(HOST_DATA_ADDRESS, g_header);
  }
  return r;
}

void load_header_during_wait(const bytes &header) {
  g_hooked = *g_sim_ops;
  g_hooked.usleep = usleep_then_load;
  g_header = header;
  g_done = false;
  os_install(&g_hooked);
}

// The last error copied to the Android log, "" when none.
std::string last_error() {
  const auto errors = android_errors();
  return errors.empty() ? std::string() : errors.back();
}

TEST_F(HostData, OnlyANewCounterOfTheRequestedTypeEndsTheWait) {
  sim::host_data_never_loads(true);
  // Loaded, right type, but the counter never moves.
  sim::mem_write(HOST_DATA_ADDRESS, {0xA5, 0x01, 0x07, 0x00});
  EXPECT_EQ(request_host_data(HOST_DATA_CHIP_INFO, 100), 5u);
  EXPECT_TRUE(logged("Old cnt: 7 "));
  EXPECT_EQ(last_error(), "Timeout after requesting host data type 01");
  const auto xfers = sim::spi_transfers();
  EXPECT_EQ(xfers[0].tx, (bytes{0xFB, 0x20, 0x01, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(xfers[1].tx, (bytes{0xA4, 0x06, 0x01}));

  // A new counter with another type, or without the signature, is ignored.
  load_header_during_wait({0xA5, 0x30, 0x08, 0x00});
  EXPECT_EQ(request_host_data(HOST_DATA_CHIP_INFO, 100), 5u);
  load_header_during_wait({0x00, 0x01, 0x09, 0x00});
  EXPECT_EQ(request_host_data(HOST_DATA_CHIP_INFO, 100), 5u);
  load_header_during_wait({0xA5, 0x01, 0x0A, 0x00});
  EXPECT_EQ(request_host_data(HOST_DATA_CHIP_INFO, 100), 0u);
  EXPECT_TRUE(g_done);
}

TEST_F(HostData, FailuresAreReportedWithTheirCode) {
  sim::host_data_never_loads(true);
  EXPECT_EQ(request_host_data(0x30, 0), 5u);
  EXPECT_EQ(sim::spi_transfers().size(), 2u); // the header and the request only
  EXPECT_EQ(last_error(), "Timeout after requesting host data type 30");

  sim::fail_spi_transfer(3, EIO);
  EXPECT_EQ(static_cast<int32_t>(request_host_data(0x01, 100)), -1);
  EXPECT_EQ(last_error(), "Error reading host data memory -1");

  // Never loads: read_chip_info gives 5 and leaves the record cleared.
  chip_info r{};
  r.fw_ver = 0x7777;
  EXPECT_EQ(read_chip_info(&r), 5u);
  EXPECT_EQ(last_error(), "Error requesting chip info");
  EXPECT_EQ(r.fw_ver, 0);

  sim::host_data_never_loads(false);
  for (int nth = 1; nth <= 6; ++nth) {
    SCOPED_TRACE("allocation " + std::to_string(nth));
    sim::fail_allocation(nth);
    EXPECT_EQ(request_host_data(0x01, 100), 2u);
    sim::fail_allocation(0);
    EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
  }
}

TEST_F(HostData, ChipInfoDecoding) {
  sim::chip_identity id;
  id.fw_ver = 0x1A2B;
  id.chip1_id = 0x3C4D;
  id.svn_rev = 0x0BCD;
  id.api_third = 300;
  id.ext_id_high = 0x11223344;
  id.ext_id_low = 0x55667788;
  sim::set_identity(id);

  chip_info r{};
  ASSERT_EQ(read_chip_info(&r), 0u);
  EXPECT_EQ(sim::spi_transfers().back().tx.size(), 5u + 1u + 250u);
  const auto b = sim::mem_read(HOST_DATA_ADDRESS, CHIP_INFO_SIZE);
  // chip1 id from bytes 15-16, the firmware version from 16-17.
  EXPECT_EQ(r.chip1_id, b[15] | (b[16] << 8));
  EXPECT_EQ(r.fw_ver, 0x1A2B);
  EXPECT_EQ(r.signature, 0xA5);
  EXPECT_EQ(r.load_count, b[2] | (b[3] << 8));
  EXPECT_EQ(r.ms_raw_addr, id.ms_raw_addr);

  EXPECT_TRUE(logged("read_chip_info", "Read Chip Info.."));
  EXPECT_TRUE(logged("api: V1.2.300"));
  EXPECT_TRUE(logged("fw - version: 0x1A2B, svn_rev: 0x0BCD"));
  EXPECT_TRUE(logged("external id: 0x1122334455667788"));
  char text[80];
  snprintf(text, sizeof text, "chip1 - version: 0x%04X, id: 0x%04X", id.chip1_ver, r.chip1_id);
  EXPECT_TRUE(logged(text));
  snprintf(text, sizeof text, "Force Length: 0x%02X  Sense Length: 0x%02X", b[84], b[85]);
  EXPECT_TRUE(logged(text));
}

} // namespace
