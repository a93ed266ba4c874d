// The diagnostic readers: mutual raw frame, sync frame and the mutual and
// self compensation data, against the simulated chip's host-data blocks
// and against blocks served byte for byte where exact contents matter.
#include <cerrno>

#include "chip/inspect/diag_data.h"
#include "chip/transport/host_data.h"
#include "platform/os.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using DiagData = IoSimTest;

constexpr uint32_t kDataAt = 0x20010010;

// A block served in place of the chip's own: written with a fresh load
// counter during the library's first poll sleep after the request.
const afehal_os_ops *g_sim_ops = nullptr;
afehal_os_ops g_hooked;
bytes g_block;

int usleep_then_load(unsigned int us) {
  const int r = g_sim_ops->usleep(us);
  if (!g_block.empty()) {
    const bytes old = sim::mem_read(HOST_DATA_ADDRESS + 2, 2);
    const uint16_t counter = static_cast<uint16_t>((old[0] | old[1] << 8) + 1);
    g_block[2] = static_cast<uint8_t>(counter);
    g_block[3] = static_cast<uint8_t>(counter >> 8);
    sim::mem_write(HOST_DATA_ADDRESS, g_block);
    g_block.clear();
  }
  return r;
}

// Header bytes 4.. as given, then data from 0x20010010.
void serve(uint8_t type, const bytes &header_tail, const bytes &data) {
  sim::host_data_never_loads(true);
  if (&os() != &g_hooked) {
    g_sim_ops = &os();
    g_hooked = *g_sim_ops;
    g_hooked.usleep = usleep_then_load;
    os_install(&g_hooked);
  }
  g_block = {0xA5, type, 0, 0};
  g_block.insert(g_block.end(), header_tail.begin(), header_tail.end());
  g_block.resize(16, 0);
  g_block.insert(g_block.end(), data.begin(), data.end());
}

// A sync frame header with data written straight into the area (the reader
// does not request it).
void place_sync(const bytes &header_tail, const bytes &data) {
  bytes h = {0xA5, 0x30, 0x77, 0x77};
  h.insert(h.end(), header_tail.begin(), header_tail.end());
  h.resize(16, 0);
  h.insert(h.end(), data.begin(), data.end());
  sim::mem_write(HOST_DATA_ADDRESS, h);
}

bytes pattern(size_t n, uint8_t mul) {
  bytes b(n);
  for (size_t i = 0; i < n; ++i) {
    b[i] = static_cast<uint8_t>(i * mul + 3);
  }
  return b;
}

int16_t le(const bytes &b, size_t at) {
  return static_cast<int16_t>(b[at] | b[at + 1] << 8);
}

uint32_t be32(const bytes &tx) {
  return uint32_t{tx[1]} << 24 | tx[2] << 16 | tx[3] << 8 | tx[4];
}

// Memory reads (FB) the chip saw, less the host-data header polls:
// {address, data length}.
std::vector<std::pair<uint32_t, size_t>> mem_reads() {
  std::vector<std::pair<uint32_t, size_t>> out;
  for (const auto &tx : spi_sent()) {
    if (tx.size() >= 6 && tx[0] == 0xFB && be32(tx) != HOST_DATA_ADDRESS) {
      out.push_back({be32(tx), tx.size() - 6});
    }
  }
  return out;
}

bool sent(const bytes &b) {
  for (const auto &tx : spi_sent()) {
    if (tx == b) {
      return true;
    }
  }
  return false;
}

// The position of the first transfer starting with op (and for a memory
// read, not a header poll) in a clean run of call.
template <typename Call> int transfer_index(uint8_t op, Call call) {
  sim::clear_recording();
  call();
  const auto all = spi_sent();
  for (size_t i = 0; i < all.size(); ++i) {
    if (all[i][0] == op && (op != 0xFB || be32(all[i]) != HOST_DATA_ADDRESS)) {
      return static_cast<int>(i) + 1;
    }
  }
  return -1;
}

TEST_F(DiagData, MutualCxValuesByWidth) {
  // One byte per node: zero-extended, so 0xFE is 254.
  mutual_frame ms = new_mutual_frame();
  ms.nodes = 77;
  const bytes one = pattern(544, 37);
  serve(0x10, {16, 34}, one);
  ASSERT_EQ(read_ms_cx_data(0x10, &ms), 0u);
  EXPECT_TRUE(sent({0xA4, 0x06, 0x10}));
  EXPECT_EQ(mem_reads(), (std::vector<std::pair<uint32_t, size_t>>{{kDataAt, 544}}));
  EXPECT_TRUE(logged_error("read_ms_cx_data", "Read MS CX 16X34 in 544 bytes"));
  EXPECT_EQ(ms.nodes, 77); // left as it was
  for (size_t i = 0; i < 544; ++i) {
    ASSERT_EQ(ms.data[i], one[i]) << i;
  }
  clean_mutual_frame(&ms);
  EXPECT_EQ(ms.data, nullptr);

  // Two bytes per node, little-endian and signed.
  bytes two = pattern(1088, 91);
  two[2] = 0xFE;
  two[3] = 0xFF;
  clear_log();
  sim::clear_recording();
  serve(0x50, {16, 34}, two);
  ASSERT_EQ(read_ms_cx_data(0x50, &ms), 0u);
  EXPECT_EQ(ms.data[1], -2);
  for (size_t i = 0; i < 544; ++i) {
    ASSERT_EQ(ms.data[i], le(two, 2 * i)) << i;
  }
  clean_mutual_frame(&ms);
}

TEST_F(DiagData, LowPowerTotalCxOfThePanelReadsInOnePiece) {
  mutual_frame ms = new_mutual_frame();
  ASSERT_EQ(read_ms_cx_data(0x51, &ms), 0u);
  EXPECT_EQ(mem_reads(), (std::vector<std::pair<uint32_t, size_t>>{{kDataAt, 1088}}));
  EXPECT_TRUE(logged_error("Read MS CX 16X34 in 1088 bytes"));
  EXPECT_EQ(std::tie(ms.force_len, ms.sense_len), std::make_tuple(uint8_t{16}, uint8_t{34}));
  const bytes raw = sim::mem_read(kDataAt, 1088);
  EXPECT_EQ(ms.data[543], le(raw, 1086));
  clean_mutual_frame(&ms);
}

TEST_F(DiagData, SelfCxSplitsIntoFourVectorsWithTheirSigns) {
  bytes one = pattern(100, 13);
  one[0] = 0xFE;  // IX force 0
  one[50] = 0xFE; // CX force 0
  one[99] = 0x80; // CX sense 33
  ss_cx_data ix = new_ss_cx_data();
  ss_cx_data cx = new_ss_cx_data();
  serve(0x12, {16, 34, 0x21, 0x22, 0x23, 0x24}, one);
  ASSERT_EQ(read_ss_cx_data(0x12, &ix, &cx), 0u);
  EXPECT_EQ(mem_reads(), (std::vector<std::pair<uint32_t, size_t>>{{kDataAt, 100}}));
  EXPECT_TRUE(logged_error("read_ss_cx_data", "Read SS IX force 16, IX sense 34, CX force 16, "
                                              "CX sense 34"));
  EXPECT_EQ(std::tie(ix.force_1, ix.sense_1, cx.force_1, cx.sense_1),
            std::make_tuple(uint8_t{0x21}, uint8_t{0x22}, uint8_t{0x23}, uint8_t{0x24}));
  EXPECT_EQ(ix.force_data[0], 254);
  EXPECT_EQ(cx.force_data[0], -2);
  EXPECT_EQ(cx.sense_data[33], -128);
  EXPECT_EQ(ix.force_data[15], one[15]);
  EXPECT_EQ(ix.sense_data[0], one[16]);
  EXPECT_EQ(ix.sense_data[33], one[49]);
  EXPECT_EQ(cx.force_data[15], static_cast<int8_t>(one[65]));
  EXPECT_EQ(cx.sense_data[0], static_cast<int8_t>(one[66]));
  clean_ss_cx_data(&ix);
  clean_ss_cx_data(&cx);

  const bytes two = pattern(200, 59);
  sim::clear_recording();
  serve(0x53, {16, 34}, two);
  ASSERT_EQ(read_ss_cx_data(0x53, &ix, &cx), 0u);
  EXPECT_EQ(mem_reads(), (std::vector<std::pair<uint32_t, size_t>>{{kDataAt, 200}}));
  EXPECT_EQ(ix.force_data[0], le(two, 0));
  EXPECT_EQ(ix.sense_data[0], le(two, 32));
  EXPECT_EQ(cx.force_data[0], le(two, 100));
  EXPECT_EQ(cx.sense_data[33], le(two, 198));
  clean_ss_cx_data(&ix);
  clean_ss_cx_data(&cx);
}

TEST_F(DiagData, UnsupportedTypesAndEmptyHeadersAreRefusedAfterTheHeader) {
  const struct {
    uint8_t type;
    bytes header;
    const char *message;
  } cases[] = {
      {0x20, {16, 34}, "Unsupported CX type 20"},
      {0x51, {0, 0}, "Wrong force/sense length 0/0"},
      {0x52, {0, 0}, "Wrong force/sense length 0/0"},
  };
  for (const auto &c : cases) {
    for (bool self : {false, true}) {
      SCOPED_TRACE(std::to_string(c.type) + (self ? " self" : " mutual"));
      if (self != (c.type == 0x52) && c.type != 0x20) {
        continue;
      }
      clear_log();
      sim::clear_recording();
      serve(c.type, c.header, {});
      mutual_frame ms = new_mutual_frame();
      ss_cx_data ix = new_ss_cx_data();
      ss_cx_data cx = new_ss_cx_data();
      const uint32_t r = self ? read_ss_cx_data(c.type, &ix, &cx) : read_ms_cx_data(c.type, &ms);
      EXPECT_EQ(r, 128u);
      EXPECT_TRUE(logged_error(self ? "read_ss_cx_data" : "read_ms_cx_data", c.message));
      // Asked for and its header read, then nothing more.
      EXPECT_TRUE(sent({0xA4, 0x06, c.type}));
      EXPECT_EQ(spi_sent().back()[0], 0xA7);
      EXPECT_TRUE(mem_reads().empty());
      EXPECT_EQ(self ? ix.force_len : ms.force_len, c.header[0]);
      EXPECT_EQ(self ? cx.sense_len : ms.sense_len, c.header[1]);
      EXPECT_EQ(ms.data, nullptr);
      EXPECT_EQ(ix.force_data, nullptr);
    }
  }
}

TEST_F(DiagData, ImpossibleSizesAreRefusedBeforeAnythingIsRead) {
  // Compensation data: 100 x 31 = 3,100 nodes; 200 + 101 = 301 channels.
  mutual_frame ms = new_mutual_frame();
  ss_cx_data ix = new_ss_cx_data();
  ss_cx_data cx = new_ss_cx_data();
  serve(0x51, {100, 31}, {});
  EXPECT_EQ(read_ms_cx_data(0x51, &ms), 128u);
  EXPECT_TRUE(logged_error("Impossible force/sense length 100/31"));
  serve(0x52, {200, 101}, {});
  EXPECT_EQ(read_ss_cx_data(0x52, &ix, &cx), 128u);
  EXPECT_TRUE(logged_error("Impossible self force/sense count 200/101"));
  EXPECT_TRUE(mem_reads().empty());
  EXPECT_EQ(ms.data, nullptr);
  EXPECT_EQ(ix.force_data, nullptr);

  // Sync frame: neither record is touched.
  const struct {
    bytes header;
    const char *message;
  } syncs[] = {
      {{8, 60, 60, 16, 34}, "Impossible force/sense length 60/60"},
      {{8, 16, 34, 200, 101}, "Impossible self force/sense count 200/101"},
  };
  for (const auto &c : syncs) {
    SCOPED_TRACE(c.message);
    place_sync(c.header, {});
    mutual_frame m = new_mutual_frame();
    self_frame s = new_self_frame();
    EXPECT_EQ(read_sync_frame(&m, &s, 1, 1), 128u);
    EXPECT_TRUE(logged_error("read_sync_frame", c.message));
    EXPECT_EQ(std::tie(m.nodes, m.force_len, s.force_len), std::make_tuple(0, 0, 0));
    EXPECT_TRUE(mem_reads().empty());
  }

  // The raw frame takes its sizes from the chip info: 20 x 255.
  sim::host_data_never_loads(false);
  sim::cfg_write(0x0030, {255, 20});
  ASSERT_EQ(read_chip_info(&sys_info), 0u);
  sim::clear_recording();
  EXPECT_EQ(read_ms_frame(&ms), 128u);
  EXPECT_TRUE(logged_error("read_ms_frame", "Impossible force/sense length 20/255"));
  EXPECT_TRUE(spi_sent().empty());
}

TEST_F(DiagData, SyncFrameLayoutAndWhichRecordsAreFilled) {
  const bytes data = pattern(1196, 29);
  place_sync({8, 16, 34, 16, 34}, data);
  mutual_frame ms = new_mutual_frame();
  self_frame ss = new_self_frame();
  ASSERT_EQ(read_sync_frame(&ms, &ss, 1, 1), 0u);
  EXPECT_TRUE(logged_error("read_sync_frame", "Sync Frame Header Data:"));
  EXPECT_TRUE(logged_error("A5 30 77 77 08 10 22 10"));
  EXPECT_TRUE(logged_error("22 00 00 00 00 00 00 00"));
  bytes header_read(20, 0xFF);
  header_read[0] = 0xA7;
  header_read[1] = header_read[2] = 0;
  EXPECT_EQ(spi_sent()[0], header_read);
  EXPECT_EQ(mem_reads(), (std::vector<std::pair<uint32_t, size_t>>{{kDataAt, 1196}}));
  EXPECT_EQ(std::tie(ms.nodes, ms.force_len, ms.sense_len), std::make_tuple(544, 16, 34));
  EXPECT_EQ(ms.data[0], le(data, 8));
  EXPECT_EQ(ms.data[543], le(data, 1094));
  EXPECT_EQ(ss.force_data[0], le(data, 1096));
  EXPECT_EQ(ss.force_data[15], le(data, 1126));
  EXPECT_EQ(ss.sense_data[0], le(data, 1128));
  EXPECT_EQ(ss.sense_data[33], le(data, 1194));
  clean_mutual_frame(&ms);
  clean_self_frame(&ss);

  // Only bit 0 of each flag counts.
  mutual_frame m2 = new_mutual_frame();
  self_frame s2 = new_self_frame();
  ASSERT_EQ(read_sync_frame(&m2, &s2, 2, 3), 0u);
  EXPECT_EQ(m2.data, nullptr);
  EXPECT_EQ(m2.force_len, 0);
  EXPECT_EQ(s2.sense_len, 34);
  EXPECT_EQ(s2.sense_data[1], le(data, 1130));
  clean_self_frame(&s2);
}

TEST_F(DiagData, RawFrameFromTheChipsMsRawAddress) {
  ASSERT_EQ(read_chip_info(&sys_info), 0u);
  const bytes values = pattern(1088, 71);
  sim::mem_write(0x20011234, values);
  sim::clear_recording();
  mutual_frame ms = new_mutual_frame();
  ASSERT_EQ(read_ms_frame(&ms), 0u);
  EXPECT_EQ(mem_reads(), (std::vector<std::pair<uint32_t, size_t>>{{0x20011234, 1088}}));
  EXPECT_EQ(std::tie(ms.nodes, ms.force_len, ms.sense_len), std::make_tuple(544, 16, 34));
  for (size_t i = 0; i < 544; ++i) {
    ASSERT_EQ(ms.data[i], le(values, 2 * i)) << i;
  }
  clean_mutual_frame(&ms);
}

// Every transfer a reader makes can fail: the reader's code and message,
// nothing left on the heap (checked at tear-down and after each case).
TEST_F(DiagData, FailedStepsGiveTheirCodeAndMessage) {
  ASSERT_EQ(read_chip_info(&sys_info), 0u);
  mutual_frame ms = new_mutual_frame();
  self_frame ss = new_self_frame();
  ss_cx_data ix = new_ss_cx_data();
  ss_cx_data cx = new_ss_cx_data();
  auto clean = [&] {
    clean_mutual_frame(&ms);
    clean_self_frame(&ss);
    clean_ss_cx_data(&ix);
    clean_ss_cx_data(&cx);
  };
  const std::function<uint32_t()> ms_cx = [&] { return read_ms_cx_data(0x51, &ms); };
  const std::function<uint32_t()> ss_cx = [&] { return read_ss_cx_data(0x53, &ix, &cx); };
  const std::function<uint32_t()> raw = [&] { return read_ms_frame(&ms); };
  const std::function<uint32_t()> sync = [&] { return read_sync_frame(&ms, &ss, 1, 1); };
  const struct {
    const char *name;
    std::function<uint32_t()> call;
    uint8_t op; // the transfer that fails
    const char *tag;
    const char *message;
  } cases[] = {
      {"ms header", ms_cx, 0xA7, "read_ms_cx_data", "Error reading CX header"},
      {"ms data", ms_cx, 0xFB, "read_ms_cx_data", "Error reading CX data"},
      {"ss header", ss_cx, 0xA7, "read_ss_cx_data", "Error reading CX header"},
      {"ss data", ss_cx, 0xFB, "read_ss_cx_data", "Error reading CX data"},
      {"raw data", raw, 0xFB, "read_ms_frame", "Error reading the frame"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const int nth = transfer_index(c.op, c.call);
    ASSERT_GT(nth, 0);
    clean();
    clear_log();
    sim::fail_spi_transfer(nth, EIO);
    EXPECT_EQ(c.call(), 1u);
    EXPECT_TRUE(logged_error(c.tag, c.message));
    clean();
    EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
  }

  // A data set the chip never loads: the request times out after a second.
  sim::block_never_loads(0x51);
  const int64_t before = sim::slept_us();
  EXPECT_EQ(ms_cx(), 1u);
  EXPECT_GE(sim::slept_us() - before, 1'000'000);
  EXPECT_TRUE(logged_error("request_host_data", "Timeout after requesting host data type 51"));
  EXPECT_TRUE(logged_error("read_ms_cx_data", "Error requesting CX data 51"));

  // The sync frame's data read fails after every buffer was made.
  place_sync({8, 16, 34, 16, 34}, pattern(1196, 3));
  sim::transfer_error_at(kDataAt + 100, sim::transfer_dir::read, EIO);
  EXPECT_EQ(sync(), 1u);
  EXPECT_TRUE(logged_error("read_sync_frame", "Error reading the sync frame"));
  clean();
}

// Each allocation a reader makes can fail; a failure of its own gives 128
// and "Error allocating memory", one inside a transfer a read failure (1).
TEST_F(DiagData, EveryAllocationFailureIsReportedAndFreed) {
  ASSERT_EQ(read_chip_info(&sys_info), 0u);
  mutual_frame ms = new_mutual_frame();
  self_frame ss = new_self_frame();
  ss_cx_data ix = new_ss_cx_data();
  ss_cx_data cx = new_ss_cx_data();
  const bytes sync_data = pattern(1196, 5);
  const struct {
    const char *tag;
    std::function<uint32_t()> call;
    int own_allocations;
  } cases[] = {
      {"read_ms_cx_data", [&] { return read_ms_cx_data(0x50, &ms); }, 2},
      {"read_ss_cx_data", [&] { return read_ss_cx_data(0x12, &ix, &cx); }, 5},
      {"read_ms_frame", [&] { return read_ms_frame(&ms); }, 2},
      {"read_sync_frame",
       [&] {
         place_sync({8, 16, 34, 16, 34}, sync_data);
         return read_sync_frame(&ms, &ss, 1, 1);
       },
       4},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.tag);
    int own = 0;
    for (int nth = 1; nth < 40; ++nth) {
      clear_log();
      sim::fail_allocation(nth);
      const uint32_t r = c.call();
      sim::fail_allocation(0);
      clean_mutual_frame(&ms);
      clean_self_frame(&ss);
      clean_ss_cx_data(&ix);
      clean_ss_cx_data(&cx);
      EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_) << nth;
      // A failure in the sync frame's unchecked header read, or past the
      // call's last allocation, leaves nothing to report.
      if (r == 128) {
        EXPECT_TRUE(logged_error(c.tag, "Error allocating memory")) << nth;
        ++own;
      } else if (r != 0) {
        EXPECT_EQ(r, 1u) << nth;
      }
    }
    EXPECT_EQ(own, c.own_allocations);
  }
}

} // namespace
