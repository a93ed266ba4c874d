// Self-tests of the simulated driver, chip and panel, driven through the
// OS seam table exactly as the library reaches them. Request numbers,
// opcodes and addresses are written out here on purpose, so that a slip in
// the simulator's own constants shows up.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <tuple>

#include "platform/os.h"
#include "sim/sim.h"

namespace {

constexpr unsigned long kGetFrame = 0xC018B801;
constexpr unsigned long kSetTimeout = 0x4004B803;
constexpr unsigned long kSpiSync = 0xC018B804;
constexpr unsigned long kSetIrq = 0x4004B807;
constexpr unsigned long kGetFrameCount = 0x4004B808;
constexpr unsigned long kClearFrameBuffer = 0x4004B809;

using bytes = std::vector<uint8_t>;

// The driver's 24-byte records: two pointers, a u32 length, a reserved u32.
struct record {
  const void *first, *second;
  uint32_t length, reserved = 0;
  unsigned long arg() const { return reinterpret_cast<unsigned long>(this); }
};
static_assert(sizeof(record) == 24);

class SimSelfTest : public ::testing::Test {
protected:
  void SetUp() override {
    sim::install(sim::clock_mode::virtual_clock);
    fd_ = os().open("/dev/kvr", O_RDWR);
    ASSERT_GE(fd_, 1);
  }
  void TearDown() override {
    os().close(fd_);
    sim::uninstall();
  }

  static bytes at(const bytes &b, size_t i, size_t n) { return bytes(&b[i], &b[i] + n); }
  static uint32_t u16(const bytes &b, size_t i) { return b[i] | b[i + 1] << 8; }
  static uint32_t u32(const bytes &b, size_t i) { return u16(b, i) | u16(b, i + 2) << 16; }
  static int fails(int result) { return result == -1 ? errno : 0; } // its errno, or 0

  int io(unsigned long request, unsigned long arg) { return os().ioctl(fd_, request, arg); }
  bytes xfer(const bytes &tx) {
    bytes rx(tx.size(), 0xEE);
    EXPECT_EQ(io(kSpiSync, record{tx.data(), rx.data(), uint32_t(tx.size())}.arg()), 0);
    return rx;
  }
  // Clocks out the header padded with FF; returns the n bytes after the first skip.
  bytes read(bytes tx, size_t skip, size_t n) {
    tx.resize(skip + n, 0xFF);
    return at(xfer(tx), skip, n);
  }
  static bytes addressed(uint8_t op, uint32_t a, const bytes &tail = {}) {
    bytes b = {op, uint8_t(a >> 24), uint8_t(a >> 16), uint8_t(a >> 8), uint8_t(a)};
    b.insert(b.end(), tail.begin(), tail.end());
    return b;
  }
  bytes mem_read(uint32_t a, size_t n) { return read(addressed(0xFB, a), 6, n); }
  void mem_write(uint32_t a, const bytes &data) { xfer(addressed(0xFA, a, data)); }
  bytes pop_event() { return read({0x87}, 2, 8); }
  // Sends a command and lets the echo delay pass.
  void command(const bytes &cmd) {
    xfer(cmd);
    os().usleep(10'000);
  }
  // GET_FRAME into the buffer (frame_ by default) and stamp_: 0 or errno.
  int next_frame(bytes &into) {
    return io(kGetFrame, record{into.data(), stamp_, uint32_t(into.size())}.arg()) == 0 ? 0 : errno;
  }
  int next_frame() { return next_frame(frame_); }
  int64_t stamp_us() const { return stamp_[0] * 1'000'000 + stamp_[1]; }

  int fd_ = -1;
  bytes frame_ = bytes(3000);
  int64_t stamp_[2] = {};
};

TEST_F(SimSelfTest, DriverRefusesBadCalls) {
  EXPECT_EQ(fails(os().open("/dev/other", O_RDWR)), ENOENT);
  EXPECT_EQ(fails(os().ioctl(-1, kSetTimeout, 253)), EBADF);
  EXPECT_EQ(fails(io(0x4004B805, 0)), ENOTTY);
  const bytes nop = {0xA2, 0x00, 0x00};
  bytes rx(3);
  EXPECT_EQ(fails(io(kSpiSync, record{nop.data(), rx.data(), 3, 1}.arg())), EINVAL);
  EXPECT_EQ(fails(io(kSpiSync, record{nop.data(), nullptr, 3}.arg())), EFAULT);
  EXPECT_EQ(fails(io(kGetFrameCount, 0)), EFAULT);
  EXPECT_TRUE(sim::spi_transfers().empty()); // nothing refused reached the chip
}

TEST_F(SimSelfTest, MemoryAndConfigurationFraming) {
  mem_write(0x00100FFE, {1, 2, 3, 4, 5}); // across a page edge
  EXPECT_EQ(sim::mem_read(0x00101000, 3), (bytes{3, 4, 5}));
  // Exactly what crossed the wire: the dummy byte sits between address and data.
  const bytes tx = {0xFB, 0x00, 0x10, 0x0F, 0xFD, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  const bytes rx = xfer(tx);
  // Only the data phase is driven: opcode, address and dummy keep the host's 0xEE.
  EXPECT_EQ(rx, (bytes{0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0, 1, 2, 3, 4, 5, 0}));
  EXPECT_EQ(std::tie(sim::spi_transfers().back().tx, sim::spi_transfers().back().rx),
            std::tie(tx, rx));                                       // as recorded
  EXPECT_EQ(xfer(addressed(0xFA, 0x00100000, {9})), bytes(6, 0xEE)); // a write drives nothing
  EXPECT_TRUE(sim::fw_commands().empty());
  EXPECT_EQ(xfer({0xA9, 0x00, 0x30, 0xFF, 0xFF, 0xFF}), (bytes{0xEE, 0xEE, 0xEE, 0xEE, 34, 16}));
}

TEST_F(SimSelfTest, CommandsAreAnsweredByTheirEvents) {
  sim::set_echo_delay_ms(6);
  xfer({0xA0, 0x03, 0x00});
  os().usleep(5000);
  EXPECT_EQ(pop_event(), bytes(8, 0)); // not yet
  os().usleep(1000);
  EXPECT_EQ(pop_event(), (bytes{0x43, 0x01, 0xA0, 0x03, 0x00, 0, 0, 0}));
  const struct {
    bytes cmd, event;
  } cases[] = {
      {{0xC0, 0x02}, {0x43, 0x01, 0xC0, 0x02, 0, 0, 0, 0}},
      {{0xA4, 0x04, 0xFF, 0x01, 0x77}, {0x43, 0x01, 0xA4, 0x04, 0xFF, 0x01, 0, 0}},
      {{0xC0, 0x07}, {0x43, 0x09, 0x01, 0, 0, 0, 0, 0}}, // frame status: frames flow
      {{0xA0, 0x00, 0x00}, {0x43, 0x01, 0xA0, 0x00, 0x00, 0, 0, 0}},
      {{0xC0, 0x07}, {0x43, 0x09, 0x00, 0, 0, 0, 0, 0}},
      {{0xA4, 0x06, 0x01}, bytes(8, 0)}, // a host-data request is not echoed
  };
  for (const auto &c : cases) {
    command(c.cmd);
    EXPECT_EQ(pop_event(), c.event);
    EXPECT_EQ(pop_event(), bytes(8, 0));
  }
  EXPECT_EQ(mem_read(0x20010000, 2), (bytes{0xA5, 0x01})); // loaded: signature and type
}

TEST_F(SimSelfTest, FramesShowTheScanState) {
  command({0xA0, 0x03, 0x00});
  bytes f(3000);
  ASSERT_EQ(next_frame(f), 0);
  const int64_t first = stamp_us();
  ASSERT_EQ(next_frame(), 0);
  EXPECT_EQ(std::tuple(f[0], f[24], f[25] >= 0x40, u16(f, 26), f[48], f[49]),
            std::tuple(0xA5, 4, true, 160u, 34, 16)); // active, 120 Hz, first point
  EXPECT_EQ(std::tuple(u16(f, 1252), u32(f, 4)),
            std::tuple(u16(f, 2), sim::frame_crc(f.data(), 1252)));
  EXPECT_EQ(std::tuple(u16(frame_, 28), u16(frame_, 30), stamp_us() - first, stamp_[1] < 1'000'000),
            std::tuple(u16(f, 28) + 1, u16(f, 30) + 1, 1'000'000 / 120, true));

  // A pinned point (one beyond the four is ignored), the faster rate, then idle.
  command({0xA0, 0x03, 0x05});
  command({0xA0, 0x03, 0x09});
  command({0xC0, 0x00, 0x01});
  ASSERT_EQ(io(kClearFrameBuffer, 0), 0);
  ASSERT_EQ(next_frame(f), 0);
  const int64_t pinned = stamp_us();
  ASSERT_EQ(next_frame(), 0);
  EXPECT_EQ(std::tuple(u16(f, 26), f[25] < 0x40, stamp_us() - pinned),
            std::tuple(145u, true, 1'000'000 / 180));
  command({0xA0, 0x03, 0x02});
  ASSERT_EQ(io(kClearFrameBuffer, 0), 0);
  ASSERT_EQ(next_frame(), 0);
  EXPECT_EQ(frame_[24], 2);
  command({0xA0, 0x03, 0x00}); // active again: idle and the pin go, the rate stays
  const auto ic = sim::ic();
  EXPECT_EQ(std::tuple(ic.idle, ic.forced_freq_index, ic.forced_rate_index),
            std::tuple(false, -1, 1));
}

TEST_F(SimSelfTest, DriverQueueIsBoundedAndItsWaitTimesOutOnTheVirtualClock) {
  ASSERT_EQ(io(kSetTimeout, 253), 0);
  command({0xA0, 0x03, 0x00});
  sim::advance_us(50'000);
  uint32_t count = 0;
  ASSERT_EQ(io(kGetFrameCount, reinterpret_cast<unsigned long>(&count)), 0);
  EXPECT_EQ(std::tuple(count, sim::driver().queued_frames), std::tuple(7u, 7u)); // 60 ms
  sim::advance_us(1'000'000);
  EXPECT_EQ(sim::driver().queued_frames, 16u); // the driver keeps the newest 16
  ASSERT_EQ(io(kClearFrameBuffer, 0), 0);
  ASSERT_EQ(io(kSetIrq, 0), 0); // frames are lost while the IRQ is off
  const int64_t t0 = sim::now_us(), slept = sim::slept_us();
  EXPECT_EQ(next_frame(), ETIMEDOUT);
  EXPECT_EQ(std::tuple(sim::now_us() - t0, sim::slept_us() - slept, sim::driver().queued_frames),
            std::tuple(253'000, 0, 0u));
  ASSERT_EQ(io(kSetIrq, 1), 0);
  EXPECT_EQ(next_frame(), 0);
}

TEST_F(SimSelfTest, CorruptFramesCarryExactlyTheirFault) {
  xfer({0xA0, 0x03, 0x00}); // no time passes, so no clean frame waits
  const bytes &f = frame_;
  sim::corrupt_tag(1);
  ASSERT_EQ(next_frame(), 0);
  EXPECT_FALSE(f[0] == 0xA5 && f[1] == 0x3A);
  sim::corrupt_counter(1);
  ASSERT_EQ(next_frame(), 0);
  EXPECT_NE(u16(f, 2), u16(f, 1252));
  sim::corrupt_crc(1);
  ASSERT_EQ(next_frame(), 0);
  EXPECT_NE(u32(f, 4), sim::frame_crc(f.data(), 1252));
  sim::bad_channel_counts(200, 200, 1);
  ASSERT_EQ(next_frame(), 0);
  EXPECT_EQ(std::tuple(f[48], f[49]), std::tuple(200, 200));
  const uint32_t index = u16(f, 28);
  sim::drop_frames(2);
  ASSERT_EQ(next_frame(), 0); // and each fault was for one frame only
  EXPECT_EQ(std::tuple(u16(f, 28), f[0], f[1], u16(f, 1252), u32(f, 4), f[49]),
            std::tuple(index + 3, 0xA5, 0x3A, u16(f, 2), sim::frame_crc(f.data(), 1252), 16));
}

TEST_F(SimSelfTest, FlashRules) {
  auto erase = [&](uint8_t page) {
    mem_write(0x2000006B, {0x00});
    mem_write(0x2000006A, {uint8_t(page | 0x80)});
  };
  auto program = [&](uint32_t offset, const bytes &data) {
    mem_write(0x00100000, data);
    const uint32_t w = offset / 4, n = uint32_t(data.size() / 4 - 1);
    mem_write(0x20000072, {0, 0, uint8_t(w), uint8_t(w >> 8), uint8_t(n), uint8_t(n >> 8), 0});
    mem_write(0x2000006B, {0x00, 0x40, 0x42, 0x0F, 0x00, 0x00, 0xC0});
  };
  auto busy = [&](uint32_t reg) { return (mem_read(reg, 1)[0] & 0x80) != 0; };
  erase(3); // neither core held nor flash unlocked: nothing happens
  program(0, {1, 2, 3, 4});
  EXPECT_TRUE(sim::erased_pages().empty() && sim::dma_transfers().empty());

  mem_write(0x20000024, {0x01}); // hold the core
  mem_write(0x20000025, {0x20}); // and unlock the flash
  mem_write(0x200000DE, {0x03});
  erase(31);
  program(0x1F000, {1, 2, 3, 4, 5, 6, 7, 8});
  EXPECT_EQ(std::tuple(busy(0x2000006A), busy(0x20000071)), std::tuple(true, true));
  os().usleep(5'000'000);
  EXPECT_EQ(std::tuple(busy(0x2000006A), busy(0x20000071)), std::tuple(false, false));
  EXPECT_EQ(std::tuple(sim::erased_pages(), at(sim::flash(), 0x1F000, 8)),
            std::tuple(std::vector<int>{31}, bytes{1, 2, 3, 4, 5, 6, 7, 8}));
  mem_write(0x20000024, {0x80}); // a reset releases the core
  EXPECT_FALSE(sim::ic().core_held);
}

// ---- Diagnostic side ----------------------------------------------------------

class SimDiagTest : public SimSelfTest {
protected:
  // Requests a host-data block and returns its header (16 bytes) and n data bytes.
  bytes block(uint8_t type, size_t n = 0) {
    command({0xA4, 0x06, type});
    bytes b = read({0xA7, 0x00, 0x00}, 4, 16);
    const bytes data = mem_read(0x20010010, n);
    b.insert(b.end(), data.begin(), data.end());
    return b;
  }
  static int16_t s16(const bytes &b, size_t i) { return static_cast<int16_t>(u16(b, i)); }
};

TEST_F(SimDiagTest, SyncFrameIsAScanOfThePanel) {
  sim::set_noise(0);
  sim::set_touches({{10.0f, 5.0f, 0, 0, 900.0f}});
  command({0xA0, 0x03, 0x00});
  os().usleep(20'000);
  ASSERT_EQ(next_frame(), 0);
  const bytes sync = block(0x30, 8 + 1188);
  EXPECT_EQ(at(sync, 0, 9), (bytes{0xA5, 0x30, 1, 0, 8, 16, 34, 16, 34}));
  // Mutual, self force and self sense exactly as the frame has them.
  EXPECT_EQ(at(sync, 16 + 8, 1188), at(frame_, 64, 1188));
  EXPECT_EQ(s16(sync, 24 + 2 * (5 * 34 + 10)), 900);
}

TEST_F(SimDiagTest, CompensationTotalsAreTheirWeightedParts) {
  const bytes ms_lp = block(0x11, 544), ms_lp_total = block(0x51, 1088);
  EXPECT_EQ(at(ms_lp_total, 0, 6), (bytes{0xA5, 0x51, 2, 0, 16, 34}));
  for (size_t i = 0; i < 544; ++i) {
    ASSERT_EQ(s16(ms_lp_total, 16 + 2 * i), ms_lp_total[6] * 8 + ms_lp[16 + i]) << i;
  }
  for (uint8_t type : {0x12, 0x13}) {
    SCOPED_TRACE(type);
    const bytes parts = block(type, 100), totals = block(type + 0x40, 200);
    EXPECT_EQ(at(parts, 4, 6), at(totals, 4, 6)); // lengths and scalars
    for (size_t i = 0; i < 100; ++i) {
      const bool ix = i < 50, force = (i % 50) < 16;
      const int scalar = parts[ix ? (force ? 6 : 7) : (force ? 8 : 9)] * (ix ? 2 : 8);
      const int part = ix ? parts[16 + i] : static_cast<int8_t>(parts[16 + i]);
      ASSERT_EQ(s16(totals, 16 + 2 * i), scalar + part) << i;
    }
  }
}

TEST_F(SimDiagTest, AutotunesMoveTheValuesByTheStepAndDriftOnlyTheChosenOnes) {
  const bytes ms0 = block(0x51, 1088), det0 = block(0x53, 200), act0 = block(0x52, 200);
  sim::set_autotune_step(3);
  sim::drift_after_autotune(sim::comp_set::ms_lp_total, 40, 30001);
  sim::drift_after_autotune(sim::comp_set::ss_detect_sense, 7, 30001);
  command({0xA4, 0x08, 0x01, 0x00});
  EXPECT_EQ(at(block(0x51, 1088), 16, 1088), at(ms0, 16, 1088)); // values unchanged
  command({0xA4, 0x03, 0x03, 0x00});
  command({0xA4, 0x03, 0x0C, 0x00});
  const bytes ms1 = block(0x51, 1088), det1 = block(0x53, 200), act1 = block(0x52, 200);
  auto changes = [&](const bytes &a, const bytes &b, size_t n) {
    std::vector<int> v;
    for (size_t i = 0; i < n; ++i) {
      v.push_back(std::abs(s16(b, 16 + 2 * i) - s16(a, 16 + 2 * i)));
    }
    return v;
  };
  // Every value moves by the step; the chosen ones drift as well. IX
  // (force 0..15, sense 16..49) moves, CX (50..99) stays.
  std::vector<int> ms(544, 3), act(100, 3);
  ms[40] = 30004;
  std::fill(act.begin() + 50, act.end(), 0);
  std::vector<int> det = act;
  det[16 + 7] = 30004;
  EXPECT_EQ(changes(ms0, ms1, 544), ms);
  EXPECT_EQ(changes(act0, act1, 100), act);
  EXPECT_EQ(changes(det0, det1, 100), det);
}

TEST_F(SimDiagTest, ModesAndAFirmwareThatStops) {
  // Factory mode, then the scan lock; a reset leaves both.
  command({0xA0, 0x03, 0x00});
  EXPECT_FALSE(sim::ic().scan_locked);
  command({0xC0, 0x01, 0x02});
  command({0xA0, 0x03, 0x00});
  mem_write(0x20000126, {0x01});
  EXPECT_EQ(std::tuple(sim::ic().factory_mode, sim::ic().scan_locked, sim::ic().auto_release_off),
            std::tuple(true, true, true));
  mem_write(0x20000024, {0x80});
  EXPECT_EQ(std::tuple(sim::ic().factory_mode, sim::ic().scan_locked, sim::ic().auto_release_off),
            std::tuple(false, false, false));
  os().usleep(20'000);
  pop_event(); // controller ready

  // The firmware answers one more command, then nothing until a reset.
  const bytes nop = {0xA2, 0x00, 0x00}, echo = {0x43, 0x01, 0xA2, 0x00, 0x00, 0, 0, 0};
  sim::firmware_stops_after(1);
  command(nop);
  EXPECT_EQ(pop_event(), echo);
  command(nop);
  EXPECT_EQ(pop_event(), bytes(8, 0));
  const bytes before = mem_read(0x20010000, 16);
  EXPECT_EQ(block(0x50), before); // the request is lost too
  mem_write(0x20000024, {0x80});
  os().usleep(20'000);
  pop_event();
  command(nop);
  EXPECT_EQ(pop_event(), echo);
}

} // namespace
