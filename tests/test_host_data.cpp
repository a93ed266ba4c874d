// Host-data requests (signature, new counter and type must all match) and
// the decoding of the chip-info block.
#include <cerrno>
#include <cstdio>

#include "chip/transport/host_data.h"
#include "platform/ioctrl.h"
#include "platform/os.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using HostData = IoSimTest;

// Loads g_header during the library's next poll sleep, as a firmware would.
const afehal_os_ops *g_sim_ops = nullptr; // the simulator's table
afehal_os_ops g_hooked;
bytes g_header;

int usleep_then_load(unsigned int us) {
  const int r = g_sim_ops->usleep(us);
  if (!g_header.empty()) {
    sim::mem_write(HOST_DATA_ADDRESS, g_header);
    g_header.clear();
  }
  return r;
}

uint32_t request_chip_info_loading(const bytes &header) {
  g_sim_ops = &os() == &g_hooked ? g_sim_ops : &os();
  g_hooked = *g_sim_ops;
  g_hooked.usleep = usleep_then_load;
  g_header = header;
  os_install(&g_hooked);
  return request_host_data(HOST_DATA_CHIP_INFO, 100);
}

TEST_F(HostData, RequestWaitRulesFailuresAndChipInfo) {
  sim::host_data_never_loads(true);
  // Loaded, right type, but the counter never moves.
  sim::mem_write(HOST_DATA_ADDRESS, {0xA5, 0x01, 0x07, 0x00});
  EXPECT_EQ(request_host_data(HOST_DATA_CHIP_INFO, 100), 5u);
  EXPECT_TRUE(logged("Old cnt: 7 "));
  EXPECT_EQ(last_error(), "Timeout after requesting host data type 01");
  EXPECT_EQ(spi_sent().at(0), (bytes{0xFB, 0x20, 0x01, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(spi_sent().at(1), (bytes{0xA4, 0x06, 0x01}));

  // A new counter with another type, or without the signature, is ignored.
  EXPECT_EQ(request_chip_info_loading({0xA5, 0x30, 0x08, 0x00}), 5u);
  EXPECT_EQ(request_chip_info_loading({0x00, 0x01, 0x09, 0x00}), 5u);
  EXPECT_EQ(request_chip_info_loading({0xA5, 0x01, 0x0A, 0x00}), 0u);

  sim::clear_recording();
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
  expect_allocation_failures(6, [] { return request_host_data(0x01, 100); });

  sim::set_identity({.fw_ver = 0x1A2B,
                     .chip1_id = 0x3C4D,
                     .svn_rev = 0x0BCD,
                     .api_third = 300,
                     .ext_id_low = 0x55667788,
                     .ext_id_high = 0x11223344});
  r = {};
  ASSERT_EQ(read_chip_info(&r), 0u);
  EXPECT_EQ(sim::spi_transfers().back().tx.size(), 5u + 1u + 250u);
  const auto b = sim::mem_read(HOST_DATA_ADDRESS, CHIP_INFO_SIZE);
  // chip1 id from bytes 15-16 (its high byte is the firmware version low byte).
  EXPECT_EQ(r.chip1_id, b[15] | (b[16] << 8));
  EXPECT_EQ(r.fw_ver, 0x1A2B);
  EXPECT_EQ(r.signature, 0xA5);
  EXPECT_EQ(r.load_count, b[2] | (b[3] << 8));
  EXPECT_EQ(r.ms_raw_addr, sim::identity().ms_raw_addr);

  EXPECT_TRUE(logged("read_chip_info", "Read Chip Info.."));
  EXPECT_TRUE(logged("api: V1.2.300"));
  EXPECT_TRUE(logged("fw - version: 0x1A2B, svn_rev: 0x0BCD"));
  EXPECT_TRUE(logged("external id: 0x1122334455667788"));
  EXPECT_TRUE(logged("chip1 - version: 0x0002, id: 0x2B4D"));
  char text[80];
  snprintf(text, sizeof text, "Force Length: 0x%02X  Sense Length: 0x%02X", b[84], b[85]);
  EXPECT_TRUE(logged(text));
}

} // namespace
