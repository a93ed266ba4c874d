// Self-tests of the simulated driver, chip and panel, driven through the
// OS seam table exactly as the library reaches them. Request numbers,
// opcodes and addresses are written out here on purpose, so that a slip in
// the simulator's own constants shows up.
#include <gtest/gtest.h>

#include <boost/crc.hpp>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <random>
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

uint32_t boost_frame_crc(const bytes &data, size_t length) {
  boost::crc_optimal<32, 0xE89061DB, 0, 0, false, false> crc;
  for (size_t at = 20; at < length; at += 4) {
    for (int k = 3; k >= 0; --k) {
      crc.process_byte(at + k < length ? data[at + k] : 0);
    }
  }
  return crc.checksum();
}

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

TEST_F(SimSelfTest, FrameCrcMatchesBoostForEveryTailLength) {
  std::mt19937 rng(7);
  for (size_t length : {20u, 21u, 22u, 23u, 24u, 25u, 64u, 1252u, 1253u, 3001u}) {
    bytes data(length);
    std::generate(data.begin(), data.end(), [&] { return uint8_t(rng()); });
    EXPECT_EQ(sim::frame_crc(data.data(), length), boost_frame_crc(data, length)) << length;
  }
}

TEST_F(SimSelfTest, SeamRefusesBadCallsAndFailsOnRequest) {
  EXPECT_EQ(fails(os().open("/dev/other", O_RDWR)), ENOENT);
  sim::fail_open(EACCES, 1);
  EXPECT_EQ(fails(os().open("/dev/kvr", O_RDWR)), EACCES);
  EXPECT_EQ(fails(os().ioctl(-1, kSetTimeout, 253)), EBADF);
  EXPECT_EQ(fails(io(0x4004B805, 0)), ENOTTY);
  const bytes nop = {0xA2, 0x00, 0x00};
  bytes rx(3);
  EXPECT_EQ(fails(io(kSpiSync, record{nop.data(), rx.data(), 3, 1}.arg())), EINVAL);
  EXPECT_EQ(fails(io(kSpiSync, record{nop.data(), nullptr, 3}.arg())), EFAULT);
  EXPECT_EQ(fails(io(kGetFrameCount, 0)), EFAULT);

  sim::fail_ioctl(kSetTimeout, EIO);
  EXPECT_EQ(fails(io(kSetTimeout, 253)), EIO);
  EXPECT_EQ(sim::driver().frame_timeout_ms, 0u); // a failed call changes nothing
  EXPECT_EQ(io(kSetTimeout, 253), 0);
  sim::fail_spi_transfer(1, EREMOTEIO);
  EXPECT_EQ(fails(io(kSpiSync, record{nop.data(), rx.data(), 3}.arg())), EREMOTEIO);
  EXPECT_TRUE(sim::spi_transfers().empty()); // nothing refused or failed reached the chip

  const size_t base = sim::heap_live_blocks();
  sim::fail_allocation(2);
  void *a = os().malloc(0);
  EXPECT_EQ(os().malloc(4), nullptr);
  void *b = os().malloc(4);
  EXPECT_EQ(sim::heap_live_blocks(), base + 2);
  os().free(a);
  os().free(b);
  os().free(nullptr);
  EXPECT_EQ(sim::heap_live_blocks(), base);
  EXPECT_EQ(os().close(fd_), 0);
  EXPECT_EQ(fails(os().close(fd_)), EBADF);
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
  mem_write(0x20000000, {0, 0}); // the chip id registers ignore the dummy write
  EXPECT_EQ(mem_read(0x20000000, 2), (bytes{0x36, 0x48}));
  EXPECT_EQ(xfer({0xA9, 0x00, 0x30, 0xFF, 0xFF, 0xFF}), (bytes{0xEE, 0xEE, 0xEE, 0xEE, 34, 16}));
  xfer({0xA8, 0x00, 0x42, 0x19});
  EXPECT_EQ(sim::cfg_read(0x0042, 1), bytes{0x19});
  EXPECT_EQ(read({0xA9, 0x00, 0x42}, 4, 1), bytes{0x19});
}

TEST_F(SimSelfTest, CommandsAreAnsweredByTheirEventsOrTheirFaults) {
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
  const bytes loaded = mem_read(0x20010000, 4);     // the host-data area
  EXPECT_EQ(at(loaded, 0, 2), (bytes{0xA5, 0x01})); // signature and type
  sim::host_data_never_loads(true);
  command({0xA4, 0x06, 0x01});
  EXPECT_EQ(mem_read(0x20010000, 4), loaded);

  // An event leaves the FIFO only once all 8 bytes are out: 7 show it and
  // leave it; 16 take two.
  for (uint8_t id : {0x51, 0x52, 0x53}) {
    sim::push_event({id, 1, 2, 3, 4, 5, 6, id});
  }
  EXPECT_EQ(read({0x87}, 2, 7), (bytes{0x51, 1, 2, 3, 4, 5, 6}));
  const bytes two = read({0x87}, 2, 16);
  EXPECT_EQ(std::tuple(two[7], two[8], two[15]), std::tuple(0x51, 0x52, 0x52));
  EXPECT_EQ(pop_event()[0], 0x53);

  const bytes nop = {0xA2, 0x00, 0x00}, echo = {0x43, 0x01, 0xA2, 0x00, 0x00, 0, 0, 0};
  sim::error_before_echo(1);
  command(nop);
  EXPECT_EQ(pop_event()[0], 0xF3);
  EXPECT_EQ(pop_event(), echo);
  sim::drop_echoes(1);
  command(nop); // no error this time, and no echo
  EXPECT_EQ(pop_event(), bytes(8, 0));
  command(nop);
  EXPECT_EQ(pop_event(), echo);
  // The command after a fatal error is lost; the dump is there only when asked for.
  sim::fatal_on_next_command(true);
  command({0xA0, 0x03, 0x00});
  EXPECT_EQ(pop_event()[0], 0xF2);
  EXPECT_EQ(pop_event(), bytes(8, 0));
  EXPECT_FALSE(sim::ic().sensing);
  EXPECT_NE(mem_read(0x2001EF80, 128)[0], 0);
  sim::fatal_on_next_command(false);
  command(nop);
  EXPECT_EQ(pop_event()[0], 0xF2);
  EXPECT_EQ(mem_read(0x2001EF80, 128), bytes(128, 0));
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
  bytes small(100, 0xCC), big(1300, 0xCC);
  ASSERT_EQ(next_frame(small), 0);
  ASSERT_EQ(next_frame(big), 0);
  EXPECT_EQ(std::tuple(small[0], big[1254]), std::tuple(0xA5, 0xCC)); // nothing past the frame

  ASSERT_EQ(io(kClearFrameBuffer, 0), 0);
  ASSERT_EQ(io(kSetIrq, 0), 0); // frames are lost while the IRQ is off
  const int64_t t0 = sim::now_us(), slept = sim::slept_us();
  EXPECT_EQ(next_frame(), ETIMEDOUT);
  EXPECT_EQ(std::tuple(sim::now_us() - t0, sim::slept_us() - slept, sim::driver().queued_frames),
            std::tuple(253'000, 0, 0u));
  ASSERT_EQ(io(kSetIrq, 1), 0);
  sim::stop_frames(true); // sensing on, yet nothing reaches the driver
  EXPECT_EQ(next_frame(), ETIMEDOUT);
  sim::stop_frames(false);
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

TEST_F(SimSelfTest, FlashRulesAndFaults) {
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
  sim::erase_stuck(true);
  erase(31);
  sim::dma_stuck(true);
  program(0x1F000, bytes(8, 0));
  os().usleep(5'000'000);
  EXPECT_EQ(std::tuple(busy(0x2000006A), busy(0x20000071)), std::tuple(true, true));
  sim::clear_faults();
  sim::versions_stick(true); // a reset after flashing keeps reporting the old versions
  program(0, {'C', 'O', 'D', 'E', 0x99, 0x00, 0x42, 0x00});
  mem_write(0x20000024, {0x80});
  EXPECT_EQ(std::tuple(sim::identity().fw_ver, sim::ic().core_held), std::tuple(0x0084, false));
  EXPECT_EQ(at(sim::flash(), 0, 4), (bytes{'C', 'O', 'D', 'E'}));
}

} // namespace
