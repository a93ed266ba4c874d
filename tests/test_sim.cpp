// Self-tests of the simulated driver, chip and panel, driven through the
// OS seam table exactly as the library reaches them. Request numbers,
// opcodes and addresses are written out here on purpose, so that a slip in
// the simulator's own constants shows up.
#include <gtest/gtest.h>

#include <boost/crc.hpp>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <thread>

#include "platform/os.h"
#include "sim/sim.h"

namespace {

constexpr unsigned long kGetFrame = 0xC018B801;
constexpr unsigned long kSetReset = 0x4004B802;
constexpr unsigned long kSetTimeout = 0x4004B803;
constexpr unsigned long kSpiSync = 0xC018B804;
constexpr unsigned long kSetBlock = 0x4004B806;
constexpr unsigned long kSetIrq = 0x4004B807;
constexpr unsigned long kGetFrameCount = 0x4004B808;
constexpr unsigned long kClearFrameBuffer = 0x4004B809;

using bytes = std::vector<uint8_t>;

// The driver's 24-byte records: two pointers, a u32 length, a reserved u32.
struct record {
  alignas(8) uint8_t raw[24] = {};
  record(const void *first, const void *second, uint32_t length) {
    const auto a = reinterpret_cast<uint64_t>(first);
    const auto b = reinterpret_cast<uint64_t>(second);
    std::memcpy(raw, &a, 8);
    std::memcpy(raw + 8, &b, 8);
    std::memcpy(raw + 16, &length, 4);
  }
  unsigned long arg() { return reinterpret_cast<unsigned long>(raw); }
};

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

  bytes xfer(const bytes &tx) {
    bytes rx(tx.size(), 0xEE);
    record r(tx.data(), rx.data(), static_cast<uint32_t>(tx.size()));
    EXPECT_EQ(os().ioctl(fd_, kSpiSync, r.arg()), 0);
    return rx;
  }
  bytes mem_read(uint32_t a, size_t n) {
    bytes tx = {0xFB, uint8_t(a >> 24), uint8_t(a >> 16), uint8_t(a >> 8), uint8_t(a)};
    tx.resize(6 + n, 0xFF);
    bytes rx = xfer(tx);
    return bytes(rx.begin() + 6, rx.end());
  }
  void mem_write(uint32_t a, const bytes &data) {
    bytes tx = {0xFA, uint8_t(a >> 24), uint8_t(a >> 16), uint8_t(a >> 8), uint8_t(a)};
    tx.insert(tx.end(), data.begin(), data.end());
    xfer(tx);
  }
  bytes cfg_read(uint16_t a, size_t n) {
    bytes tx = {0xA9, uint8_t(a >> 8), uint8_t(a)};
    tx.resize(4 + n, 0xFF);
    bytes rx = xfer(tx);
    return bytes(rx.begin() + 4, rx.end());
  }
  bytes pop_event() {
    bytes rx = xfer({0x87, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
    return bytes(rx.begin() + 2, rx.end());
  }
  // Sends a command and lets the echo delay pass.
  void command(const bytes &cmd) {
    xfer(cmd);
    os().usleep(10'000);
  }
  // GET_FRAME into buf; returns 0 or errno.
  int get_frame(bytes &buf, int64_t stamp[2]) {
    record r(buf.data(), stamp, static_cast<uint32_t>(buf.size()));
    return os().ioctl(fd_, kGetFrame, r.arg()) == 0 ? 0 : errno;
  }
  uint32_t frame_count() {
    uint32_t n = 0xDEAD;
    EXPECT_EQ(os().ioctl(fd_, kGetFrameCount, reinterpret_cast<unsigned long>(&n)), 0);
    return n;
  }

  int fd_ = -1;
};

uint16_t le16(const bytes &b, size_t at) {
  return uint16_t(b[at] | (b[at + 1] << 8));
}
uint32_t le32(const bytes &b, size_t at) {
  return uint32_t(b[at]) | uint32_t(b[at + 1]) << 8 | uint32_t(b[at + 2]) << 16 |
         uint32_t(b[at + 3]) << 24;
}

bytes echo_of(const bytes &cmd) {
  bytes e = {0x43, 0x01, 0, 0, 0, 0, 0, 0};
  std::copy_n(cmd.begin(), std::min<size_t>(cmd.size(), 4), e.begin() + 2);
  return e;
}

// ---- CRC and frame format -------------------------------------------------

uint32_t boost_frame_crc(const bytes &data, size_t length) {
  boost::crc_optimal<32, 0xE89061DB, 0, 0, false, false> crc;
  for (size_t at = 20; at < length; at += 4) {
    for (int k = 3; k >= 0; --k) {
      crc.process_byte(at + k < length ? data[at + k] : 0);
    }
  }
  return crc.checksum();
}

TEST(SimCrc, MatchesBoostCrcForEveryTailLength) {
  std::mt19937 rng(7);
  for (size_t length : {20u, 21u, 22u, 23u, 24u, 25u, 64u, 1252u, 1253u, 3001u}) {
    bytes data(length);
    for (auto &b : data) {
      b = static_cast<uint8_t>(rng());
    }
    EXPECT_EQ(sim::frame_crc(data.data(), length), boost_frame_crc(data, length))
        << "length " << length;
  }
  bytes ones(40, 0xFF);
  EXPECT_NE(sim::frame_crc(ones.data(), 40), 0u);
}

TEST(SimCrc, BuiltFrameCarriesItsLayoutAndCrc) {
  sim::frame_fields fields;
  fields.counter = 0x1234;
  fields.index = 77;
  fields.fw_counter = 0x0F0E;
  fields.scan_mode = 2;
  fields.rate_code = 0x3F;
  fields.freq_khz = 145;
  fields.noise_level = 9;
  fields.stddev[2] = 0xBEEF;
  fields.mutual.assign(16 * 34, 0);
  fields.mutual[0] = -100;
  fields.mutual[16 * 34 - 1] = 300;
  fields.self_force.assign(16, 5);
  fields.self_sense.assign(34, -7);
  const bytes f = sim::build_frame(fields);

  ASSERT_EQ(f.size(), 1254u);
  EXPECT_EQ(f[0], 0xA5);
  EXPECT_EQ(f[1], 0x3A);
  EXPECT_EQ(le16(f, 2), 0x1234);
  EXPECT_EQ(f[23], 9);
  EXPECT_EQ(f[24], 2);
  EXPECT_EQ(f[25], 0x3F);
  EXPECT_EQ(le16(f, 26), 145);
  EXPECT_EQ(le16(f, 28), 77);
  EXPECT_EQ(le16(f, 30), 0x0F0E);
  EXPECT_EQ(le16(f, 36), 0xBEEF);
  EXPECT_EQ(f[48], 34);
  EXPECT_EQ(f[49], 16);
  EXPECT_EQ(int16_t(le16(f, 64)), -100);
  EXPECT_EQ(int16_t(le16(f, 64 + 2 * 543)), 300);
  EXPECT_EQ(int16_t(le16(f, 64 + 2 * 544)), 5);
  EXPECT_EQ(int16_t(le16(f, 64 + 2 * 560)), -7);
  EXPECT_EQ(le16(f, 1252), 0x1234);
  const size_t body = 64 + 2 * (544 + 16 + 34);
  EXPECT_EQ(le32(f, 4), boost_frame_crc(f, body));

  // The CRC leaves out the first 20 bytes and the trailer.
  bytes g = f;
  g[10] ^= 0xFF;
  g[1253] ^= 0xFF;
  EXPECT_EQ(sim::frame_crc(g.data(), body), le32(f, 4));
  g[20] ^= 0x01;
  EXPECT_NE(sim::frame_crc(g.data(), body), le32(f, 4));
}

// ---- Driver ------------------------------------------------------------------

TEST_F(SimSelfTest, OpenCloseAndBadDescriptors) {
  EXPECT_EQ(os().open("/dev/other", O_RDWR), -1);
  EXPECT_EQ(errno, ENOENT);
  sim::fail_open(EACCES, 2);
  EXPECT_EQ(os().open("/dev/kvr", O_RDWR), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(os().open("/dev/kvr", O_RDWR), -1);
  const int second = os().open("/dev/kvr", O_RDWR);
  EXPECT_GE(second, 1);
  EXPECT_EQ(sim::driver().open_calls, 5);
  EXPECT_EQ(os().close(second), 0);
  EXPECT_EQ(os().close(second), -1);
  EXPECT_EQ(errno, EBADF);

  EXPECT_EQ(os().ioctl(-1, kSetTimeout, 253), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(os().ioctl(fd_, 0x4004B805, 0), -1);
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_TRUE(sim::driver().open);
}

TEST_F(SimSelfTest, ValueRequestsSetTheDriverAndAreRecorded) {
  sim::clear_recording();
  EXPECT_EQ(sim::driver().frame_timeout_ms, 0u);
  ASSERT_EQ(os().ioctl(fd_, kSetTimeout, 1471), 0);
  ASSERT_EQ(os().ioctl(fd_, kSetBlock, 0), 0);
  ASSERT_EQ(os().ioctl(fd_, kSetIrq, 0), 0);
  ASSERT_EQ(os().ioctl(fd_, kSetReset, 1), 0);
  const auto d = sim::driver();
  EXPECT_EQ(d.frame_timeout_ms, 1471u);
  EXPECT_FALSE(d.blocking);
  EXPECT_FALSE(d.irq_enabled);
  EXPECT_EQ(d.reset_line, 1u);

  const auto all = sim::ioctls();
  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[0].request, kSetTimeout);
  EXPECT_EQ(all[0].value, 1471u);
  EXPECT_TRUE(all[0].argument.empty());
  EXPECT_EQ(sim::ioctls(kSetIrq).size(), 1u);

  // A pointer request keeps its 24 record bytes.
  bytes tx = {0xA2, 0x00, 0x00}, rx(3);
  record r(tx.data(), rx.data(), 3);
  ASSERT_EQ(os().ioctl(fd_, kSpiSync, r.arg()), 0);
  const auto spi = sim::ioctls(kSpiSync);
  ASSERT_EQ(spi.size(), 1u);
  EXPECT_EQ(spi[0].argument, bytes(r.raw, r.raw + 24));
}

TEST_F(SimSelfTest, MalformedRecordsAreRefused) {
  bytes tx(4, 0), rx(4);
  record reserved(tx.data(), rx.data(), 4);
  reserved.raw[20] = 1;
  EXPECT_EQ(os().ioctl(fd_, kSpiSync, reserved.arg()), -1);
  EXPECT_EQ(errno, EINVAL);
  record no_rx(tx.data(), nullptr, 4);
  EXPECT_EQ(os().ioctl(fd_, kSpiSync, no_rx.arg()), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(os().ioctl(fd_, kGetFrameCount, 0), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_TRUE(sim::spi_transfers().empty());
}

// ---- SPI decoding --------------------------------------------------------------

TEST_F(SimSelfTest, MemoryReadAndWriteFraming) {
  EXPECT_EQ(mem_read(0x00104000, 4), bytes(4, 0)); // never written
  mem_write(0x00100FFE, {1, 2, 3, 4, 5});          // across a page edge
  EXPECT_EQ(mem_read(0x00100FFD, 7), (bytes{0, 1, 2, 3, 4, 5, 0}));
  EXPECT_EQ(sim::mem_read(0x00101000, 3), (bytes{3, 4, 5}));

  // Exactly what crossed the wire: the dummy byte sits between address and data.
  sim::clear_recording();
  const bytes tx = {0xFB, 0x00, 0x10, 0x0F, 0xFE, 0xFF, 0xFF, 0xFF};
  const bytes rx = xfer(tx);
  const auto t = sim::spi_transfers();
  ASSERT_EQ(t.size(), 1u);
  EXPECT_EQ(t[0].tx, tx);
  EXPECT_EQ(t[0].rx, rx);
  EXPECT_EQ(rx[6], 1);
  EXPECT_EQ(rx[7], 2);
  EXPECT_TRUE(sim::fw_commands().empty());

  // The chip id registers ignore the host's dummy write.
  const bytes id = mem_read(0x20000000, 8);
  mem_write(0x20000000, {0, 0});
  EXPECT_EQ(mem_read(0x20000000, 8), id);
  EXPECT_EQ(id[0], 0x36);
  EXPECT_EQ(id[1], 0x48);
}

TEST_F(SimSelfTest, ConfigurationSpaceIsSeededAndWritable) {
  EXPECT_EQ(cfg_read(0x0030, 2), (bytes{34, 16}));
  EXPECT_EQ(cfg_read(0x0219, 1)[0] & 3, 3);
  const bytes t = cfg_read(0x00EC, 2);
  const uint32_t t_cycle = t[0] | t[1] << 8;
  const bytes points = cfg_read(0x021A, 4);
  for (uint8_t p : points) {
    const uint32_t khz = 32'000'000 / (2 * (t_cycle + p)) / 1000;
    EXPECT_GE(khz, 50u);
    EXPECT_LE(khz, 400u);
  }
  EXPECT_NE(cfg_read(0x0087, 1)[0], 0);

  xfer({0xA8, 0x00, 0x42, 0x19});
  EXPECT_EQ(sim::cfg_read(0x0042, 1), bytes{0x19});
  EXPECT_EQ(cfg_read(0x0042, 1), bytes{0x19});
}

// ---- Events and firmware commands --------------------------------------------

TEST_F(SimSelfTest, EchoArrivesAfterItsDelayWithTheCommandBytes) {
  sim::set_echo_delay_ms(6);
  xfer({0xA0, 0x03, 0x00});
  EXPECT_EQ(pop_event(), bytes(8, 0)); // not yet
  os().usleep(5000);
  EXPECT_EQ(pop_event(), bytes(8, 0));
  os().usleep(1000);
  EXPECT_EQ(pop_event(), echo_of({0xA0, 0x03, 0x00}));
  EXPECT_EQ(pop_event(), bytes(8, 0));
  EXPECT_TRUE(sim::ic().sensing);

  // Two bytes are echoed as two; long commands as their first four.
  command({0xC0, 0x02});
  EXPECT_EQ(pop_event(), (bytes{0x43, 0x01, 0xC0, 0x02, 0, 0, 0, 0}));
  command({0xA4, 0x04, 0xFF, 0x01, 0x77});
  EXPECT_EQ(pop_event(), (bytes{0x43, 0x01, 0xA4, 0x04, 0xFF, 0x01, 0, 0}));
  const auto cmds = sim::fw_commands();
  ASSERT_EQ(cmds.size(), 3u);
  EXPECT_EQ(cmds[1], (bytes{0xC0, 0x02}));
}

TEST_F(SimSelfTest, EventOrderErrorFlushAndReady) {
  sim::push_event({0x16, 0x01});
  sim::error_before_echo(1);
  command({0xA2, 0x00, 0x00});
  EXPECT_EQ(pop_event()[0], 0x16);
  EXPECT_EQ(pop_event()[0], 0xF3);
  EXPECT_EQ(pop_event(), echo_of({0xA2, 0x00, 0x00}));
  command({0xA2, 0x00, 0x00}); // the error came once only
  EXPECT_EQ(pop_event(), echo_of({0xA2, 0x00, 0x00}));

  // A flush drops what waits, but its own echo follows it.
  sim::push_event({0x16, 0x02});
  command({0xA4, 0x00, 0x01});
  EXPECT_EQ(pop_event(), echo_of({0xA4, 0x00, 0x01}));
  EXPECT_EQ(pop_event(), bytes(8, 0));

  // A system reset stops sensing and raises controller-ready later.
  command({0xA0, 0x03, 0x00});
  pop_event();
  mem_write(0x20000024, {0x80});
  EXPECT_EQ(sim::ic().resets, 1);
  EXPECT_FALSE(sim::ic().sensing);
  EXPECT_EQ(pop_event(), bytes(8, 0));
  os().usleep(50'000);
  EXPECT_EQ(pop_event(), (bytes{0x03, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(SimSelfTest, DroppedEchoesAndFatalEvents) {
  sim::drop_echoes(1);
  command({0xA2, 0x00, 0x00});
  EXPECT_EQ(pop_event(), bytes(8, 0));
  command({0xA2, 0x00, 0x00});
  EXPECT_EQ(pop_event(), echo_of({0xA2, 0x00, 0x00}));

  sim::fatal_on_next_command(true);
  command({0xA0, 0x03, 0x00});
  EXPECT_EQ(pop_event()[0], 0xF2);
  EXPECT_EQ(pop_event(), bytes(8, 0)); // no echo
  EXPECT_FALSE(sim::ic().sensing);     // and the command was lost
  EXPECT_NE(mem_read(0x2001EF80, 128)[0], 0);

  sim::fatal_on_next_command(false);
  command({0xA0, 0x03, 0x00});
  EXPECT_EQ(pop_event()[0], 0xF2);
  EXPECT_EQ(mem_read(0x2001EF80, 128), bytes(128, 0));

  // Frame status: answered by 43 09, never echoed.
  command({0xC0, 0x07});
  EXPECT_EQ(pop_event(), (bytes{0x43, 0x09, 0x00, 0, 0, 0, 0, 0}));
  command({0xA0, 0x03, 0x00});
  pop_event();
  command({0xC0, 0x07});
  EXPECT_EQ(pop_event(), (bytes{0x43, 0x09, 0x01, 0, 0, 0, 0, 0}));
  EXPECT_EQ(pop_event(), bytes(8, 0));
}

TEST_F(SimSelfTest, CommandEffectsOnScanState) {
  command({0xA0, 0x03, 0x02});
  EXPECT_TRUE(sim::ic().sensing);
  EXPECT_TRUE(sim::ic().idle);
  command({0xA0, 0x03, 0x05});
  EXPECT_EQ(sim::ic().forced_freq_index, 1);
  command({0xA0, 0x03, 0x09}); // beyond the four points: ignored
  EXPECT_EQ(sim::ic().forced_freq_index, 1);
  command({0xC0, 0x00, 0x01});
  EXPECT_EQ(sim::ic().forced_rate_index, 1);
  command({0xA0, 0x03, 0x00});
  EXPECT_FALSE(sim::ic().idle);
  EXPECT_EQ(sim::ic().forced_freq_index, -1);
  EXPECT_EQ(sim::ic().forced_rate_index, 1);
  command({0xA0, 0x00, 0x00});
  EXPECT_FALSE(sim::ic().sensing);
}

// ---- Host data -----------------------------------------------------------------

TEST_F(SimSelfTest, ChipInfoBlockLoadsOnRequest) {
  sim::chip_identity id;
  id.fw_ver = 0xA1B2;
  id.chip1_id = 0x7755;
  id.cfg_ver = 0x0102;
  id.cx_cfg_ver = 0x0304;
  id.afe_ver_cfg = 2;
  id.panel_cfg = 1;
  id.ext_id_high = 0xCAFEF00D;
  id.ms_raw_addr = 0x0ABC;
  sim::set_identity(id);

  const bytes before = mem_read(0x20010000, 4);
  command({0xA4, 0x06, 0x01});
  EXPECT_EQ(pop_event(), bytes(8, 0)); // no echo for a host-data request
  const bytes b = mem_read(0x20010000, 250);
  EXPECT_EQ(b[0], 0xA5);
  EXPECT_EQ(b[1], 0x01);
  EXPECT_NE(le16(b, 2), le16(before, 2));
  EXPECT_EQ(b[15], 0x55);         // chip1 id low byte
  EXPECT_EQ(le16(b, 16), 0xA1B2); // the fw version owns byte 16
  EXPECT_EQ(le16(b, 20), 0x0102);
  EXPECT_EQ(le16(b, 24), 0x0304);
  EXPECT_EQ(b[28], 2);
  EXPECT_EQ(b[30], 1);
  EXPECT_EQ(le32(b, 52), 0xCAFEF00Du);
  EXPECT_EQ(b[84], 16);
  EXPECT_EQ(b[85], 34);
  EXPECT_EQ(le16(b, 136), 0x0ABC);
  // The 16-byte header read with A7 sees the same area.
  const bytes a7 = xfer({0xA7, 0x00, 0x00, 0xFF, 0, 0, 0, 0});
  EXPECT_EQ(bytes(a7.begin() + 4, a7.end()), bytes(b.begin(), b.begin() + 4));

  // Each load moves the counter; panel init copies the afe version.
  command({0xA4, 0x00, 0x02});
  command({0xA4, 0x06, 0x01});
  const bytes c = mem_read(0x20010000, 31);
  EXPECT_EQ(le16(c, 2), uint16_t(le16(b, 2) + 1));
  EXPECT_EQ(c[30], 2);

  sim::host_data_never_loads(true);
  command({0xA4, 0x06, 0x01});
  os().usleep(100'000);
  EXPECT_EQ(mem_read(0x20010000, 4), bytes(c.begin(), c.begin() + 4));
}

// ---- Frames --------------------------------------------------------------------

TEST_F(SimSelfTest, FramesFlowWhileSensingWithTheirStamps) {
  ASSERT_EQ(os().ioctl(fd_, kSetTimeout, 253), 0);
  command({0xA0, 0x03, 0x00});
  bytes f1(3000), f2(3000);
  int64_t s1[2], s2[2];
  ASSERT_EQ(get_frame(f1, s1), 0);
  ASSERT_EQ(get_frame(f2, s2), 0);

  for (const bytes *f : {&f1, &f2}) {
    EXPECT_EQ((*f)[0], 0xA5);
    EXPECT_EQ((*f)[48], 34);
    EXPECT_EQ((*f)[49], 16);
    EXPECT_EQ((*f)[24], 4);
    EXPECT_GE((*f)[25], 0x40); // 120 Hz
    EXPECT_EQ(le16(*f, 26), 160);
    EXPECT_EQ(le16(*f, 2), le16(*f, 1252));
    EXPECT_EQ(le32(*f, 4), sim::frame_crc(f->data(), 1252));
  }
  EXPECT_EQ(le16(f2, 28), le16(f1, 28) + 1);
  EXPECT_EQ(le16(f2, 30), le16(f1, 30) + 1);
  const int64_t d = (s2[0] - s1[0]) * 1'000'000 + (s2[1] - s1[1]);
  EXPECT_EQ(d, 1'000'000 / 120);
  EXPECT_LT(s1[1], 1'000'000);

  // A pinned frequency point, the faster rate and idle all show in the frame.
  command({0xA0, 0x03, 0x05});
  command({0xC0, 0x00, 0x01});
  ASSERT_EQ(os().ioctl(fd_, kClearFrameBuffer, 0), 0);
  EXPECT_EQ(frame_count(), 0u);
  ASSERT_EQ(get_frame(f1, s1), 0);
  EXPECT_EQ(le16(f1, 26), 32'000'000 / (2 * (100 + 10)) / 1000);
  EXPECT_LT(f1[25], 0x40);
  ASSERT_EQ(get_frame(f2, s2), 0);
  EXPECT_EQ((s2[0] - s1[0]) * 1'000'000 + (s2[1] - s1[1]), 1'000'000 / 180);
  command({0xA0, 0x03, 0x02});
  os().ioctl(fd_, kClearFrameBuffer, 0);
  ASSERT_EQ(get_frame(f1, s1), 0);
  EXPECT_EQ(f1[24], 2);
}

TEST_F(SimSelfTest, FrameWaitTimesOutOnTheVirtualClock) {
  ASSERT_EQ(os().ioctl(fd_, kSetTimeout, 253), 0);
  bytes f(3000);
  int64_t s[2];
  const int64_t t0 = sim::now_us();
  EXPECT_EQ(get_frame(f, s), ETIMEDOUT);
  EXPECT_EQ(sim::now_us() - t0, 253'000);
  EXPECT_EQ(sim::slept_us(), 0);

  ASSERT_EQ(os().ioctl(fd_, kSetBlock, 0), 0);
  EXPECT_EQ(get_frame(f, s), EAGAIN);
  EXPECT_EQ(sim::now_us() - t0, 253'000);

  // stop_frames: sensing on, yet nothing reaches the driver.
  ASSERT_EQ(os().ioctl(fd_, kSetBlock, 1), 0);
  sim::stop_frames(true);
  command({0xA0, 0x03, 0x00});
  EXPECT_EQ(get_frame(f, s), ETIMEDOUT);
  EXPECT_EQ(sim::frames_produced(), 0u);
  sim::stop_frames(false);
  EXPECT_EQ(get_frame(f, s), 0);
}

TEST_F(SimSelfTest, DriverQueueIsBoundedCountedAndCapacityLimited) {
  command({0xA0, 0x03, 0x00});
  sim::advance_us(50'000);
  EXPECT_EQ(frame_count(), 7u); // 60 ms at 120 Hz
  EXPECT_EQ(sim::driver().queued_frames, 7u);
  sim::advance_us(1'000'000);
  EXPECT_EQ(frame_count(), 16u); // the driver keeps the newest 16

  bytes small(100, 0xCC);
  int64_t s[2];
  ASSERT_EQ(get_frame(small, s), 0);
  EXPECT_EQ(small[0], 0xA5);
  bytes big(1300, 0xCC);
  ASSERT_EQ(get_frame(big, s), 0);
  EXPECT_EQ(big[1254], 0xCC); // nothing written past the frame

  ASSERT_EQ(os().ioctl(fd_, kClearFrameBuffer, 0), 0);
  ASSERT_EQ(os().ioctl(fd_, kSetIrq, 0), 0);
  sim::advance_us(100'000);
  EXPECT_EQ(frame_count(), 0u);
}

TEST_F(SimSelfTest, TouchesShowInTheSignal) {
  sim::set_noise(0);
  sim::set_touches({{10.0f, 5.0f, 0.0f, 0.0f, 800.0f}});
  command({0xA0, 0x03, 0x00});
  bytes f(3000);
  int64_t s[2];
  ASSERT_EQ(get_frame(f, s), 0);
  auto mutual = [&](int force, int sense) {
    return int16_t(le16(f, 64 + 2 * (force * 34 + sense)));
  };
  EXPECT_EQ(mutual(5, 10), 800);
  EXPECT_LT(mutual(5, 12), mutual(5, 11));
  EXPECT_EQ(mutual(15, 33), 0);
  EXPECT_EQ(int16_t(le16(f, 64 + 2 * (544 + 5))), 400); // self force at the touch
  EXPECT_EQ(int16_t(le16(f, 64 + 2 * (560 + 10))), 400);
}

TEST_F(SimSelfTest, CorruptFramesCarryExactlyTheirFault) {
  // No time passes before the first fault is set, so no clean frame waits.
  xfer({0xA0, 0x03, 0x00});
  bytes f(3000);
  int64_t s[2];
  auto valid_crc = [&] { return le32(f, 4) == sim::frame_crc(f.data(), 1252); };

  sim::corrupt_tag(1);
  ASSERT_EQ(get_frame(f, s), 0);
  EXPECT_FALSE(f[0] == 0xA5 && f[1] == 0x3A);
  sim::corrupt_counter(1);
  ASSERT_EQ(get_frame(f, s), 0);
  EXPECT_NE(le16(f, 2), le16(f, 1252));
  sim::corrupt_crc(1);
  ASSERT_EQ(get_frame(f, s), 0);
  EXPECT_FALSE(valid_crc());
  ASSERT_EQ(get_frame(f, s), 0);
  EXPECT_TRUE(valid_crc());
  const uint16_t index = le16(f, 28);

  sim::drop_frames(2);
  ASSERT_EQ(get_frame(f, s), 0);
  EXPECT_EQ(le16(f, 28), index + 3);

  sim::bad_channel_counts(200, 200, 1);
  ASSERT_EQ(get_frame(f, s), 0);
  EXPECT_EQ(f[48], 200);
  EXPECT_EQ(f[49], 200);
  ASSERT_EQ(get_frame(f, s), 0);
  EXPECT_EQ(f[49], 16);
}

// ---- Faults, heap ------------------------------------------------------------------

TEST_F(SimSelfTest, IoctlFaultsOnceAlwaysAndNth) {
  sim::fail_ioctl(kSetTimeout, EIO);
  EXPECT_EQ(os().ioctl(fd_, kSetTimeout, 253), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(sim::driver().frame_timeout_ms, 0u); // a failed call changes nothing
  EXPECT_EQ(os().ioctl(fd_, kSetTimeout, 253), 0);

  sim::fail_ioctl(kSetBlock, EBUSY, sim::fault_when::always);
  EXPECT_EQ(os().ioctl(fd_, kSetBlock, 1), -1);
  EXPECT_EQ(os().ioctl(fd_, kSetBlock, 1), -1);
  const auto recorded = sim::ioctls(kSetBlock);
  ASSERT_EQ(recorded.size(), 2u);
  EXPECT_EQ(recorded[1].result, -1);
  EXPECT_EQ(recorded[1].error, EBUSY);
  sim::clear_faults();
  EXPECT_EQ(os().ioctl(fd_, kSetBlock, 1), 0);

  sim::clear_recording();
  sim::fail_spi_transfer(2, EREMOTEIO);
  const bytes tx = {0xA2, 0x00, 0x00};
  bytes rx(3);
  record r(tx.data(), rx.data(), 3);
  EXPECT_EQ(os().ioctl(fd_, kSpiSync, r.arg()), 0);
  EXPECT_EQ(os().ioctl(fd_, kSpiSync, r.arg()), -1);
  EXPECT_EQ(errno, EREMOTEIO);
  EXPECT_EQ(os().ioctl(fd_, kSpiSync, r.arg()), 0);
  EXPECT_EQ(sim::spi_transfers().size(), 2u); // the failed one never reached the chip
  EXPECT_EQ(sim::fw_commands().size(), 2u);
}

TEST_F(SimSelfTest, HeapCountsLiveBlocksAndFailsOnRequest) {
  const size_t base = sim::heap_live_blocks();
  void *a = os().malloc(10);
  void *b = os().malloc(0);
  EXPECT_EQ(sim::heap_live_blocks(), base + 2);
  sim::fail_allocation(2);
  void *c = os().malloc(4);
  EXPECT_EQ(os().malloc(4), nullptr);
  void *d = os().malloc(4);
  EXPECT_NE(d, nullptr);
  for (void *p : {a, b, c, d}) {
    os().free(p);
  }
  os().free(nullptr);
  EXPECT_EQ(sim::heap_live_blocks(), base);

  os().android_log(6, "afehal", "text");
  ASSERT_EQ(sim::android_log().size(), 1u);
  EXPECT_EQ(sim::android_log()[0].text, "text");
}

// ---- Flash -------------------------------------------------------------------------

class SimFlashTest : public SimSelfTest {
protected:
  void prepare() {
    mem_write(0x20000024, {0x80});
    mem_write(0x20000024, {0x01});
    mem_write(0x20000025, {0x20});
    mem_write(0x2000006B, {0x00});
    mem_write(0x200000DE, {0x03});
  }
  void erase(uint8_t page) {
    mem_write(0x2000006B, {0x00});
    mem_write(0x2000006A, {uint8_t(page | 0x80)});
  }
  void program(uint32_t offset, const bytes &data) {
    mem_write(0x00100000, data);
    const uint32_t w = offset / 4, n = uint32_t(data.size() / 4 - 1);
    mem_write(0x20000072, {0, 0, uint8_t(w), uint8_t(w >> 8), uint8_t(n), uint8_t(n >> 8), 0});
    mem_write(0x2000006B, {0x00, 0x40, 0x42, 0x0F, 0x00, 0x00, 0xC0});
  }
};

TEST_F(SimFlashTest, EraseProgramAndResetReportNewVersions) {
  sim::set_erase_busy_ms(40);
  prepare();
  EXPECT_TRUE(sim::ic().core_held);
  erase(0);
  EXPECT_EQ(mem_read(0x2000006A, 1)[0], 0x80);
  os().usleep(40'000);
  EXPECT_EQ(mem_read(0x2000006A, 1)[0], 0x00);

  const bytes code = {'C', 'O', 'D', 'E', 0x99, 0x00, 0x42, 0x00};
  program(0, code);
  EXPECT_NE(mem_read(0x20000071, 1)[0] & 0x80, 0);
  os().usleep(100'000);
  EXPECT_EQ(mem_read(0x20000071, 1)[0] & 0x80, 0);
  const bytes flash = sim::flash();
  EXPECT_EQ(bytes(flash.begin(), flash.begin() + 8), code);
  ASSERT_EQ(sim::dma_transfers().size(), 1u);
  EXPECT_EQ(sim::dma_transfers()[0].length, 8u);
  EXPECT_EQ(sim::erased_pages(), std::vector<int>{0});

  EXPECT_EQ(sim::identity().fw_ver, 0x0084); // not before the reset
  mem_write(0x20000024, {0x80});
  EXPECT_EQ(sim::identity().fw_ver, 0x0099);
  EXPECT_EQ(sim::identity().svn_rev, 0x0042);
  EXPECT_FALSE(sim::ic().core_held);
}

TEST_F(SimFlashTest, FlashRulesAndFaults) {
  // Without the core held and the flash unlocked nothing happens.
  erase(3);
  program(0, {1, 2, 3, 4});
  EXPECT_TRUE(sim::erased_pages().empty());
  EXPECT_TRUE(sim::dma_transfers().empty());

  prepare();
  // Programming only clears bits: a page not erased reads back wrong.
  program(0, {0x0F, 0x0F, 0x0F, 0x0F});
  program(0, {0xF0, 0xFF, 0xFF, 0xFF});
  EXPECT_EQ(sim::flash()[0], 0x00);
  EXPECT_EQ(sim::flash()[1], 0x0F);

  // The DMA descriptor: word address and word count less one.
  program(0x1F000, bytes(3380, 0xAB));
  EXPECT_EQ(sim::dma_transfers().back().flash_offset, 0x1F000u);
  EXPECT_EQ(sim::dma_transfers().back().length, 3380u);
  const auto tx = sim::spi_transfers();
  const bytes descriptor = {0xFA, 0x20, 0x00, 0x00, 0x72, 0x00, 0x00, 0x00, 0x7C, 0x4C, 0x03, 0x00};
  EXPECT_EQ(tx[tx.size() - 2].tx, descriptor);

  sim::erase_stuck(true);
  erase(31);
  os().usleep(5'000'000);
  EXPECT_NE(mem_read(0x2000006A, 1)[0] & 0x80, 0);
  sim::dma_stuck(true);
  program(0x1F000, bytes(8, 0));
  os().usleep(5'000'000);
  EXPECT_NE(mem_read(0x20000071, 1)[0] & 0x80, 0);
  sim::clear_faults();
  EXPECT_EQ(mem_read(0x20000071, 1)[0] & 0x80, 0);

  // Versions that stick after flashing.
  sim::versions_stick(true);
  erase(31);
  program(126976, {'C', 'N', 'F', 'G', 0x77, 0x00, 0x88, 0x00, 0x05, 0, 0, 0});
  mem_write(0x20000024, {0x80});
  EXPECT_EQ(sim::identity().cfg_ver, 0x0051);
  const bytes flash = sim::flash();
  EXPECT_EQ(bytes(flash.begin() + 126976, flash.begin() + 126980), (bytes{'C', 'N', 'F', 'G'}));
}

// ---- Real clock ------------------------------------------------------------------

TEST(SimRealClock, FrameThreadAndControlThreadShareTheChip) {
  sim::install(sim::clock_mode::real_clock);
  const int fd = os().open("/dev/kvr", O_RDWR);
  ASSERT_GE(fd, 1);
  auto spi = [fd](bytes tx) {
    bytes rx(tx.size());
    record r(tx.data(), rx.data(), static_cast<uint32_t>(tx.size()));
    return os().ioctl(fd, kSpiSync, r.arg());
  };
  ASSERT_EQ(os().ioctl(fd, kSetTimeout, 200), 0);
  ASSERT_EQ(spi({0xA0, 0x03, 0x00}), 0);

  std::atomic<int> frames{0};
  std::thread reader([&] {
    bytes f(3000);
    int64_t s[2];
    for (int i = 0; i < 10; ++i) {
      record r(f.data(), s, 3000);
      if (os().ioctl(fd, kGetFrame, r.arg()) == 0 && f[0] == 0xA5) {
        ++frames;
      }
    }
  });
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(spi({0xA2, 0x00, 0x00}), 0);
    EXPECT_EQ(spi({0x87, 0, 0, 0, 0, 0, 0, 0, 0, 0}), 0);
    os().usleep(2000);
  }
  reader.join();
  EXPECT_EQ(frames.load(), 10);

  // With sensing off the wait really ends in a time-out.
  ASSERT_EQ(spi({0xA0, 0x00, 0x00}), 0);
  ASSERT_EQ(os().ioctl(fd, kClearFrameBuffer, 0), 0);
  ASSERT_EQ(os().ioctl(fd, kSetTimeout, 20), 0);
  bytes f(3000);
  int64_t s[2];
  record r(f.data(), s, 3000);
  EXPECT_EQ(os().ioctl(fd, kGetFrame, r.arg()), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  os().close(fd);
  sim::uninstall();
}

} // namespace
