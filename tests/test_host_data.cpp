// Host-data requests (signature, new counter and type must all match) and
// the decoding of the chip-info block.
#include <cerrno>

#include "chip/transport/host_data.h"
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

void load_during_first_sleep(const bytes &header) {
  if (&os() != &g_hooked) {
    g_sim_ops = &os();
    g_hooked = *g_sim_ops;
    g_hooked.usleep = usleep_then_load;
    os_install(&g_hooked);
  }
  g_header = header;
}

std::vector<unsigned> fields(const chip_info &r) {
  return {r.load_count,    r.id,          r.signature, r.api_ver_third, r.api_ver_second,
          r.api_ver_first, r.chip0_ver,   r.chip0_id,  r.chip1_ver,     r.chip1_id,
          r.fw_ver,        r.svn_rev,     r.cfg_ver,   r.cfg_id,        r.cx_cfg_ver,
          r.cx_cfg_id,     r.afe_ver_cfg, r.cx_ver,    r.panel_cfg,     r.ext_id_low,
          r.ext_id_high,   r.force_len,   r.sense_len, r.ms_raw_addr};
}

TEST_F(HostData, OnlyTheRequestedTypeWithSignatureAndANewCounterEndsTheWait) {
  sim::host_data_never_loads(true);
  sim::mem_write(HOST_DATA_ADDRESS, {0xA5, 0x01, 0x07, 0x00});
  const struct {
    bytes header;
    uint32_t result;
  } cases[] = {
      {{0xA5, 0x01, 0x07, 0x00}, 5}, // loaded, right type, same counter
      {{0xA5, 0x30, 0x08, 0x00}, 5}, // another type
      {{0x00, 0x01, 0x08, 0x00}, 5}, // no signature
      {{0xA5, 0x01, 0x07, 0x01}, 0}, // the counter's high byte moved
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.header));
    clear_log();
    load_during_first_sleep(c.header);
    EXPECT_EQ(request_host_data(HOST_DATA_CHIP_INFO, 100), c.result);
    EXPECT_TRUE(logged_at(4, "Old cnt: 7 "));
    sim::mem_write(HOST_DATA_ADDRESS, {0xA5, 0x01, 0x07, 0x00});
  }
  EXPECT_TRUE(logged_at(3, "request_host_data", "Host data loaded after 5 ms, cnt: 263"));

  // The simulated firmware loads 3 ms after the request: seen on the second read.
  sim::host_data_never_loads(false);
  sim::clear_recording();
  EXPECT_EQ(request_host_data(0x30, 1000), 0u);
  EXPECT_EQ(sim::spi_transfers().size(), 4u);
  EXPECT_TRUE(logged_at(3, "Host data loaded after 5 ms, cnt: 1"));
}

TEST_F(HostData, ReadFailuresAreReturnedButALostRequestOnlyTimesOut) {
  sim::fail_spi_transfer(1, EIO);
  EXPECT_EQ(static_cast<int32_t>(request_host_data(0x01, 100)), -1);
  EXPECT_TRUE(logged_error("request_host_data", "Error reading host data -1"));
  sim::fail_spi_transfer(3, EIO);
  EXPECT_EQ(static_cast<int32_t>(request_host_data(0x01, 100)), -1);
  EXPECT_TRUE(logged_error("request_host_data", "Error reading host data memory -1"));

  // The header read and the re-read give 2; the request's buffers only lose
  // the request.
  const uint32_t results[] = {2, 2, 5, 5, 2, 2};
  for (int nth = 1; nth <= 6; ++nth) {
    SCOPED_TRACE(nth);
    sim::advance_us(10'000); // any load asked for earlier has happened
    sim::fail_allocation(nth);
    EXPECT_EQ(request_host_data(0x01, 100), results[nth - 1]);
    EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
  }
  sim::fail_allocation(0);

  chip_info r{};
  r.fw_ver = 0x7777;
  sim::fail_spi_transfer(5, EIO); // the block read after the load
  EXPECT_EQ(static_cast<int32_t>(read_chip_info(&r)), -1);
  EXPECT_TRUE(logged_error("read_chip_info", "Error reading chip info"));
  EXPECT_EQ(fields(r), fields(chip_info{}));
}

TEST_F(HostData, ChipInfoTakesEveryFieldFromItsOwnOffset) {
  // Every byte of the block distinct, so that any offset slip shows.
  sim::set_identity({.fw_ver = 0x1110,
                     .cfg_ver = 0x1514,
                     .cfg_id = 0x1716,
                     .cx_cfg_ver = 0x1918,
                     .cx_cfg_id = 0x1B1A,
                     .afe_ver_cfg = 0x1C,
                     .panel_cfg = 0x1E,
                     .cx_ver = 0x1D,
                     .chip0_ver = 0x0908,
                     .chip0_id = 0x0B0A,
                     .chip1_ver = 0x0D0C,
                     .chip1_id = 0x990F,
                     .svn_rev = 0x1312,
                     .api_first = 0x07,
                     .api_second = 0x06,
                     .api_third = 0x0504,
                     .ext_id_low = 0x33323130,
                     .ext_id_high = 0x37363534,
                     .ms_raw_addr = 0x8988});
  // A first load moves the counter off the block id's value.
  ASSERT_EQ(request_host_data(0x30, 100), 0u);
  chip_info r{};
  ASSERT_EQ(read_chip_info(&r), 0u);
  bytes block_read = {0xFB, 0x20, 0x01, 0x00, 0x00};
  block_read.resize(5 + 1 + 250, 0xFF);
  EXPECT_EQ(spi_sent().back(), block_read);
  // chip1 id from bytes 15-16: its high byte is the firmware version's low byte.
  EXPECT_EQ(fields(r),
            (std::vector<unsigned>{2,      0x01,       0xA5,       0x0504, 0x06,   0x07,
                                   0x0908, 0x0B0A,     0x0D0C,     0x100F, 0x1110, 0x1312,
                                   0x1514, 0x1716,     0x1918,     0x1B1A, 0x1C,   0x1D,
                                   0x1E,   0x33323130, 0x37363534, 16,     34,     0x8988}));
  const char *lines[] = {
      "Read Chip Info..",
      "api: V7.6.1284",
      "chip0 - version: 0x0908, id: 0x0B0A",
      "chip1 - version: 0x0D0C, id: 0x100F",
      "fw - version: 0x1110, svn_rev: 0x1312",
      "cfg - version: 0x1514, id: 0x1716",
      "cx in cfg - version: 0x1918, id: 0x1B1A",
      "afe version cfg: 0x1C, cx: 0x1D, panel cfg: 0x1E",
      "external id: 0x3736353433323130",
      "Force Length: 0x10  Sense Length: 0x22",
      "MSRaw address 0x8988",
  };
  for (const char *line : lines) {
    EXPECT_TRUE(logged_at(3, "read_chip_info", line));
  }
  EXPECT_EQ(count_logged_starting(3, "chip info - load cnt: 2, id: 0x01, signature: 0xA5, tick: "),
            1);
}

} // namespace
