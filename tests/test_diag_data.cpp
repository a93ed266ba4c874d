// The diagnostic readers: mutual raw frame, sync frame and the mutual and
// self compensation data, against the simulated chip's host-data blocks
// and against blocks served byte for byte where exact contents matter.
#include <algorithm>
#include <cerrno>

#include "chip/inspect/diag_data.h"
#include "chip/transport/host_data.h"
#include "platform/os.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using reads = std::vector<std::pair<uint32_t, size_t>>;
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

// A 16-byte header: A5, type, load counter, then header bytes 4.. as given.
bytes header(uint8_t type, uint8_t counter, const bytes &tail, const bytes &data) {
  bytes h = {0xA5, type, counter, counter};
  h.insert(h.end(), tail.begin(), tail.end());
  h.resize(16, 0);
  h.insert(h.end(), data.begin(), data.end());
  return h;
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
  g_block = header(type, 0, header_tail, data);
}

// A sync frame header with data written straight into the area (the reader
// does not request it).
void place_sync(const bytes &header_tail, const bytes &data) {
  sim::mem_write(HOST_DATA_ADDRESS, header(0x30, 0x77, header_tail, data));
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

// Each of the n values is the little-endian pair at data[at + 2i].
void expect_le16(const int16_t *values, size_t n, const bytes &data, size_t at) {
  for (size_t i = 0; i < n; ++i) {
    ASSERT_EQ(values[i], le(data, at + 2 * i)) << i;
  }
}

// Memory reads (FB) the chip saw, less the host-data header polls:
// {address, data length}.
reads mem_reads() {
  reads out;
  for (const auto &tx : spi_sent()) {
    const uint32_t at =
        tx.size() < 6 ? 0 : uint32_t{tx[1]} << 24 | tx[2] << 16 | tx[3] << 8 | tx[4];
    if (at != 0 && tx[0] == 0xFB && at != HOST_DATA_ADDRESS) {
      out.push_back({at, tx.size() - 6});
    }
  }
  return out;
}

// The position of the last transfer starting with op in a clean run of call.
template <typename Call> int last_transfer(uint8_t op, Call call) {
  sim::clear_recording();
  call();
  const auto all = spi_sent();
  return static_cast<int>(all.rend() - std::find_if(all.rbegin(), all.rend(),
                                                    [&](const bytes &tx) { return tx[0] == op; }));
}

// The four records the readers fill, freed together.
struct records {
  mutual_frame ms = new_mutual_frame();
  self_frame ss = new_self_frame();
  ss_cx_data ix = new_ss_cx_data();
  ss_cx_data cx = new_ss_cx_data();
  void clean() {
    clean_mutual_frame(&ms);
    clean_self_frame(&ss);
    clean_ss_cx_data(&ix);
    clean_ss_cx_data(&cx);
  }
};

// Every compensation set is asked for and its header read; a usable one is
// then read in one piece and decoded by its width: one byte per value (mutual
// and self IX unsigned, self CX signed) or a signed little-endian pair. An
// unusable one is refused with nothing more read.
TEST_F(DiagData, CompensationSetsAreDecodedByTheirWidthOrRefused) {
  // Bit 1 of the type picks the self sets, 0x50 and up are two bytes wide.
  auto check = [&](uint8_t type, const char *refusal, const bytes &header) {
    const bool self = (type & 0x02) != 0;
    const size_t width = refusal != nullptr ? 0 : type >= 0x50 ? 2 : 1;
    SCOPED_TRACE(type);
    clear_log();
    sim::clear_recording();
    const size_t n = (self ? 100 : 544) * width;
    const bytes data = pattern(n, static_cast<uint8_t>(37 + 2 * type));
    serve(type, header, data);
    records r;
    auto &[ms, ss, ix, cx] = r;
    ms.nodes = 77;
    const char *tag = self ? "read_ss_cx_data" : "read_ms_cx_data";
    const uint32_t result = self ? read_ss_cx_data(type, &ix, &cx) : read_ms_cx_data(type, &ms);
    EXPECT_EQ(std::ranges::count(spi_sent(), bytes{0xA4, 0x06, type}), 1);
    EXPECT_EQ(std::tie(self ? ix.force_len : ms.force_len, self ? cx.sense_len : ms.sense_len),
              std::tie(header[0], header[1]));
    if (refusal != nullptr) {
      EXPECT_EQ(result, 128u);
      EXPECT_TRUE(logged_error(tag, refusal));
      EXPECT_EQ(spi_sent().back()[0], 0xA7);
      EXPECT_TRUE(mem_reads().empty());
      EXPECT_EQ(std::tie(ms.data, ix.force_data), std::make_tuple(nullptr, nullptr));
      return;
    }
    ASSERT_EQ(result, 0u);
    EXPECT_EQ(mem_reads(), (reads{{kDataAt, n}}));
    // The value at i as the chip means it.
    auto value = [&](size_t i, bool is_signed) -> int {
      return width == 2 ? le(data, 2 * i) : is_signed ? static_cast<int8_t>(data[i]) : data[i];
    };
    if (self) {
      EXPECT_TRUE(logged_error(tag, "Read SS IX force 16, IX sense 34, CX force 16, CX sense 34"));
      EXPECT_EQ(std::tie(ix.force_1, ix.sense_1, cx.force_1, cx.sense_1),
                std::make_tuple(uint8_t{0x21}, uint8_t{0x22}, uint8_t{0x23}, uint8_t{0x24}));
      for (size_t i = 0; i < 100; ++i) {
        const ss_cx_data &d = i < 50 ? ix : cx;
        const int16_t got = (i % 50) < 16 ? d.force_data[i % 50] : d.sense_data[i % 50 - 16];
        ASSERT_EQ(got, value(i, i >= 50)) << i;
      }
    } else {
      EXPECT_TRUE(logged_error(tag, "Read MS CX 16X34 in " + std::to_string(n) + " bytes"));
      EXPECT_EQ(ms.nodes, 77);
      for (size_t i = 0; i < 544; ++i) {
        ASSERT_EQ(ms.data[i], value(i, false)) << i;
      }
    }
    r.clean();
    EXPECT_EQ(std::tie(ms.data, ix.force_data, cx.sense_data),
              std::make_tuple(nullptr, nullptr, nullptr));
  };
  const bytes good = {16, 34, 0x21, 0x22, 0x23, 0x24};
  for (uint8_t type : {0x10, 0x11, 0x50, 0x51, 0x12, 0x13, 0x52, 0x53}) {
    check(type, nullptr, good);
  }
  // The last two: 100 x 31 = 3,100 nodes; 200 + 101 = 301 channels.
  const struct {
    uint8_t type;
    const char *refusal;
    bytes header;
  } refused[] = {{0x20, "Unsupported CX type 20", good},
                 {0x22, "Unsupported CX type 22", good},
                 {0x51, "Wrong force/sense length 0/0", {0, 0}},
                 {0x52, "Wrong force/sense length 0/0", {0, 0}},
                 {0x51, "Impossible force/sense length 100/31", {100, 31}},
                 {0x52, "Impossible self force/sense count 200/101", {200, 101}}};
  for (const auto &c : refused) {
    check(c.type, c.refusal, c.header);
  }
}

TEST_F(DiagData, SyncFrameLayoutWhichRecordsAreFilledAndImpossibleSizes) {
  const bytes data = pattern(1196, 29);
  place_sync({8, 16, 34, 16, 34}, data);
  records r;
  auto &[ms, ss, ix, cx] = r;
  ASSERT_EQ(read_sync_frame(&ms, &ss, 1, 1), 0u);
  EXPECT_EQ(android_errors(),
            (std::vector<std::string>{"Sync Frame Header Data:", "A5 30 77 77 08 10 22 10",
                                      "22 00 00 00 00 00 00 00"}));
  EXPECT_TRUE(logged_error("read_sync_frame", "Sync Frame Header Data:"));
  bytes header_read = {0xA7, 0x00, 0x00};
  header_read.resize(20, 0xFF);
  EXPECT_EQ(spi_sent()[0], header_read);
  EXPECT_EQ(mem_reads(), (reads{{kDataAt, 1196}}));
  EXPECT_EQ(std::tie(ms.nodes, ms.force_len, ms.sense_len), std::make_tuple(544, 16, 34));
  expect_le16(ms.data, 544, data, 8);
  expect_le16(ss.force_data, 16, data, 1096);
  expect_le16(ss.sense_data, 34, data, 1128);
  r.clean();

  // Only bit 0 of each flag counts.
  r = records{};
  ASSERT_EQ(read_sync_frame(&ms, &ss, 2, 3), 0u);
  EXPECT_EQ(std::tie(ms.data, ms.force_len, ss.sense_len), std::make_tuple(nullptr, 0, 34));
  EXPECT_EQ(ss.sense_data[1], le(data, 1130));
  r.clean();

  // Sizes this panel cannot have: refused before anything is read, and
  // neither record is touched.
  const struct {
    bytes header;
    const char *message;
  } impossible[] = {
      {{8, 60, 60, 16, 34}, "Impossible force/sense length 60/60"},
      {{8, 16, 34, 200, 101}, "Impossible self force/sense count 200/101"},
  };
  for (const auto &c : impossible) {
    SCOPED_TRACE(c.message);
    sim::clear_recording();
    place_sync(c.header, {});
    r = records{};
    EXPECT_EQ(read_sync_frame(&ms, &ss, 1, 1), 128u);
    EXPECT_TRUE(logged_error("read_sync_frame", c.message));
    EXPECT_EQ(std::tie(ms.nodes, ms.force_len, ss.force_len), std::make_tuple(0, 0, 0));
    EXPECT_TRUE(mem_reads().empty());
  }
}

// The raw frame is read from where the chip info says, in the size it says.
TEST_F(DiagData, RawFrameFromTheChipsMsRawAddress) {
  ASSERT_EQ(read_chip_info(&sys_info), 0u);
  const bytes values = pattern(1088, 71);
  sim::mem_write(0x20011234, values);
  sim::clear_recording();
  mutual_frame ms = new_mutual_frame();
  ASSERT_EQ(read_ms_frame(&ms), 0u);
  EXPECT_EQ(mem_reads(), (reads{{0x20011234, 1088}}));
  EXPECT_EQ(std::tie(ms.nodes, ms.force_len, ms.sense_len), std::make_tuple(544, 16, 34));
  expect_le16(ms.data, 544, values, 0);
  clean_mutual_frame(&ms);

  sim::cfg_write(0x0030, {255, 20}); // 20 x 255
  ASSERT_EQ(read_chip_info(&sys_info), 0u);
  sim::clear_recording();
  EXPECT_EQ(read_ms_frame(&ms), 128u);
  EXPECT_TRUE(logged_error("read_ms_frame", "Impossible force/sense length 20/255"));
  EXPECT_TRUE(spi_sent().empty());
}

// Every transfer and every allocation a reader makes can fail: the reader's
// code and message, and nothing left on the heap.
TEST_F(DiagData, FailedStepsGiveTheirCodeAndMessageAndFreeEverything) {
  ASSERT_EQ(read_chip_info(&sys_info), 0u);
  records r;
  const struct {
    const char *tag;
    std::function<uint32_t()> call;
    const char *header_error; // its header read (A7) failing, if it has one
    const char *data_error;   // its data read failing
    int own_allocations;      // each failing gives 128 and "Error allocating memory"
  } readers[] = {
      {"read_ms_cx_data", [&] { return read_ms_cx_data(0x51, &r.ms); }, "Error reading CX header",
       "Error reading CX data", 2},
      {"read_ss_cx_data", [&] { return read_ss_cx_data(0x53, &r.ix, &r.cx); },
       "Error reading CX header", "Error reading CX data", 5},
      {"read_ms_frame", [&] { return read_ms_frame(&r.ms); }, nullptr, "Error reading the frame",
       2},
      {"read_sync_frame",
       [&] {
         place_sync({8, 16, 34, 16, 34}, pattern(1196, 5));
         return read_sync_frame(&r.ms, &r.ss, 1, 1);
       },
       nullptr, "Error reading the sync frame", 4},
  };
  for (const auto &c : readers) {
    SCOPED_TRACE(c.tag);
    for (const auto &[op, message] : {std::pair{0xA7, c.header_error}, {0xFB, c.data_error}}) {
      if (message != nullptr) {
        const int nth = last_transfer(static_cast<uint8_t>(op), c.call);
        ASSERT_GT(nth, 0);
        r.clean();
        clear_log();
        sim::fail_spi_transfer(nth, EIO);
        EXPECT_EQ(c.call(), 1u);
        EXPECT_TRUE(logged_error(c.tag, message));
        r.clean();
        EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
      }
    }
    // An allocation failing inside a transfer gives 1; one in the sync
    // frame's unchecked header read, or past the call's last, nothing.
    int own = 0;
    for (int nth = 1; nth < 40; ++nth) {
      clear_log();
      sim::fail_allocation(nth);
      const uint32_t result = c.call();
      sim::fail_allocation(0);
      r.clean();
      EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_) << nth;
      if (result == 128) {
        EXPECT_TRUE(logged_error(c.tag, "Error allocating memory")) << nth;
        ++own;
      } else if (result != 0) {
        EXPECT_EQ(result, 1u) << nth;
      }
    }
    EXPECT_EQ(own, c.own_allocations);
  }

  // A data set the chip never loads: the request times out after a second.
  sim::block_never_loads(0x51);
  const int64_t before = sim::slept_us();
  EXPECT_EQ(readers[0].call(), 1u);
  EXPECT_GE(sim::slept_us() - before, 1'000'000);
  EXPECT_TRUE(logged_error("request_host_data", "Timeout after requesting host data type 51"));
  EXPECT_TRUE(logged_error("read_ms_cx_data", "Error requesting CX data 51"));
}

} // namespace
