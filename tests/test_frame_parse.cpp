// Frame parsing: the checksum, the checks that reject a frame, the header
// fields and status bits, shift tracking, loss accounting, and the
// conversion of the raw values into the service's orientation.
#include <boost/crc.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "platform/ioctrl.h"
#include "support/fixture.h"
#include "vendor/ops/frame_parse.h"
#include "vendor/ops/lifecycle.h"
#include "vendor/transport/fw_cmd.h"
#include "vendor/vendor.h"

namespace {

constexpr uint32_t kF = PANEL_FORCE;
constexpr uint32_t kS = PANEL_SENSE;
constexpr uint32_t kFullBody = 64 + 2 * (kF * kS + kF + kS); // 1,252
constexpr uint16_t kZero = 0x8000;

// An independent CRC: Boost's generic table-driven CRC with the same
// parameters, fed the bytes of each word in the order +3, +2, +1, +0.
uint32_t reference_crc(const uint8_t *bytes, size_t length) {
  boost::crc_optimal<32, 0xE89061DB, 0, 0, false, false> crc;
  for (size_t group = 20; group < length; group += 4) {
    for (int k = 3; k >= 0; --k) {
      crc.process_byte(group + k < length ? bytes[group + k] : 0);
    }
  }
  return crc.checksum();
}

uint32_t le32(const std::vector<uint8_t> &bytes, size_t offset) {
  return bytes[offset] | (bytes[offset + 1] << 8) | (bytes[offset + 2] << 16) |
         (static_cast<uint32_t>(bytes[offset + 3]) << 24);
}

void put16(std::vector<uint8_t> &bytes, size_t offset, uint16_t value) {
  bytes[offset] = static_cast<uint8_t>(value);
  bytes[offset + 1] = static_cast<uint8_t>(value >> 8);
}

// A frame of this panel with all raw values zero.
sim::frame_fields zero_frame(uint16_t index = 1) {
  sim::frame_fields desc;
  desc.counter = index;
  desc.index = index;
  desc.fw_counter = index;
  desc.mutual.assign(kF * kS, 0);
  desc.self_force.assign(kF, 0);
  desc.self_sense.assign(kS, 0);
  return desc;
}

// The raw mutual value of force row f and sense column s.
int16_t &node(sim::frame_fields &desc, uint32_t f, uint32_t s) {
  return desc.mutual[f * kS + s];
}

// Output position of raw node (f, s): sense-major, both axes reversed.
size_t out_index(uint32_t f, uint32_t s) {
  return (kS - 1 - s) * kF + (kF - 1 - f);
}

class FrameParseTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    hw_cap.freq_list = freqs_;
    hw_cap.freq_count = 3;
    hw_cap.rate_list = rates_;
    hw_cap.rate_count = 2;
  }
  void TearDown() override {
    hw_cap.freq_list = nullptr;
    hw_cap.freq_count = 0;
    hw_cap.rate_list = nullptr;
    hw_cap.rate_count = 0;
    SimTest::TearDown();
  }

  // Puts the bytes into the receive area as the driver would and parses.
  bool parse(const std::vector<uint8_t> &bytes) {
    ioctrl_framedata *req = vendor_get_ioctrl_framedata();
    std::fill(req->buf, req->buf + FRAME_BUFFER_SIZE, 0);
    std::memcpy(req->buf, bytes.data(), std::min<size_t>(bytes.size(), FRAME_BUFFER_SIZE));
    return vendor_parse_ioctrl_frame(req, &record_);
  }
  bool parse(const sim::frame_fields &desc) { return parse(sim::build_frame(desc)); }

  // A 120 Hz frame at the current working point (160 kHz, 120 Hz).
  sim::frame_fields steady_frame(uint16_t index) {
    sim::frame_fields desc = zero_frame(index);
    desc.freq_khz = 160;
    desc.rate_code = 0x40;
    return desc;
  }

  uint16_t freqs_[3] = {160, 200, 240};
  uint16_t rates_[2] = {120, 180};
  kvr_frame_data record_{};
};

// ---- Checksum ---------------------------------------------------------------

TEST(FrameCrc, MatchesAnIndependentCrcForEveryTailLength) {
  build_crc_table();
  std::mt19937 rng(7);
  std::vector<uint8_t> bytes(1300);
  for (auto &b : bytes) {
    b = static_cast<uint8_t>(rng());
  }
  // Lengths 21..24 and 1249..1252 cover every size of the padded last word.
  for (uint32_t length : {21u, 22u, 23u, 24u, 25u, 36u, 37u, 99u, 1249u, 1250u, 1251u, 1252u}) {
    EXPECT_EQ(calculate_crc(bytes.data(), length), reference_crc(bytes.data(), length))
        << "length " << length;
  }
  // Nothing before byte 20 is covered.
  EXPECT_EQ(calculate_crc(bytes.data(), 20), 0u);
  const uint32_t before = calculate_crc(bytes.data(), 1252);
  bytes[19] ^= 0xFF;
  EXPECT_EQ(calculate_crc(bytes.data(), 1252), before);
}

TEST(FrameCrc, TableIsMsbFirstAndARebuildRepairsIt) {
  build_crc_table();
  EXPECT_EQ(crc_table[0], 0u);
  EXPECT_EQ(crc_table[1], CRC_POLYNOMIAL);
  EXPECT_EQ(crc_table[0x80], 0xC03BF443u);
  EXPECT_EQ(crc_table[0xFF], 0x7FD2A782u);

  std::vector<uint8_t> bytes(200);
  for (size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<uint8_t>(i * 37 + 11);
  }
  const uint32_t good = reference_crc(bytes.data(), bytes.size());
  crc_table[0x5A] ^= 0x00010000;
  crc_table[0xFF] = 0;
  build_crc_table();
  EXPECT_EQ(calculate_crc(bytes.data(), static_cast<uint32_t>(bytes.size())), good);
}

TEST_F(FrameParseTest, SimulatorFramesCarryTheChecksumTheParserComputes) {
  sim::frame_fields desc = zero_frame(3);
  for (size_t i = 0; i < desc.mutual.size(); ++i) {
    desc.mutual[i] = static_cast<int16_t>(i * 53 - 9000);
  }
  const std::vector<uint8_t> bytes = sim::build_frame(desc);
  ASSERT_EQ(bytes.size(), kFullBody + 2);
  EXPECT_EQ(le32(bytes, 4), calculate_crc(bytes.data(), kFullBody));
  EXPECT_EQ(sim::frame_crc(bytes.data(), kFullBody), calculate_crc(bytes.data(), kFullBody));
  EXPECT_TRUE(parse(bytes));
  EXPECT_TRUE(logged("vendor_parse_ioctrl_frame", "Frame 3 checksum OK"));
  EXPECT_TRUE(logged("calculate_crc", "Buffer total length = 1252"));
}

// ---- Conversion -------------------------------------------------------------

TEST_F(FrameParseTest, MutualDataIsTransposedReversedAndGainCorrected) {
  sim::frame_fields desc = zero_frame();
  node(desc, 0, 0) = -100;   // gain 1.0 corner
  node(desc, 15, 33) = 1533; // gain 1.0 corner
  node(desc, 0, 33) = 33;    // gain 1.0 corner
  node(desc, 15, 0) = 1500;  // gain 1.0 corner
  node(desc, 7, 33) = 733;   // gain 1.0
  node(desc, 1, 1) = 101;    // gain 2.0776: 209.84 -> 209
  node(desc, 1, 2) = -101;   // gain 2.0833: -210.41 -> -210 (toward zero)
  node(desc, 0, 32) = 32767; // gain 2.7958: 91609, only the low 16 bits kept
  ASSERT_TRUE(parse(desc));

  EXPECT_EQ(record_.mutual[0], 1533 ^ kZero); // output starts at raw (15, 33)
  EXPECT_EQ(record_.mutual[15], 33 ^ kZero);
  EXPECT_EQ(record_.mutual[33 * kF], 1500 ^ kZero);
  EXPECT_EQ(record_.mutual[33 * kF + 15], 0x7F9C); // raw (0, 0): -100
  EXPECT_EQ(record_.mutual[out_index(0, 0)], 0x7F9C);
  EXPECT_EQ(record_.mutual[out_index(7, 33)], 733 ^ kZero);
  EXPECT_EQ(record_.mutual[out_index(1, 1)], 0x80D1);
  EXPECT_EQ(record_.mutual[out_index(1, 2)], static_cast<uint16_t>(-210) ^ kZero);
  EXPECT_EQ(record_.mutual[out_index(0, 32)], 0xE5D9);
  // Everything else stayed at zero signal.
  const size_t nonzero = static_cast<size_t>(std::count_if(record_.mutual, record_.mutual + kF * kS,
                                                           [](uint16_t v) { return v != kZero; }));
  EXPECT_EQ(nonzero, 8u);
}

TEST_F(FrameParseTest, SelfDataKeepsForceThenSenseEachReversed) {
  sim::frame_fields desc = zero_frame();
  for (uint32_t r = 0; r < kF; ++r) {
    desc.self_force[r] = static_cast<int16_t>(10 + r);
  }
  desc.self_sense[0] = 300;   // gain 0.705: 211.5 -> 211
  desc.self_sense[33] = 1000; // gain 0.990
  desc.self_sense[5] = -50;   // gain 0.729: -36.45 -> -36
  ASSERT_TRUE(parse(desc));

  EXPECT_EQ(record_.self[0], 25 ^ kZero);  // force 15, gain 1.0
  EXPECT_EQ(record_.self[1], 22 ^ kZero);  // force 14: 0.938 x 24 = 22.5
  EXPECT_EQ(record_.self[15], 10 ^ kZero); // force 0, gain 1.0
  EXPECT_EQ(record_.self[kF + 0], 990 ^ kZero);
  EXPECT_EQ(record_.self[kF + 33], 211 ^ kZero);
  EXPECT_EQ(record_.self[kF + 28], static_cast<uint16_t>(-36) ^ kZero);
  // Zero signal reads as the midpoint.
  EXPECT_EQ(std::count(record_.self + kF, record_.self + kF + kS, kZero), 31);
}

TEST_F(FrameParseTest, SmallerPanelsUseTheirOwnGeometryAndAPaddedChecksum) {
  // 2 x 3 channels: the checksummed body is 86 bytes, 66 from byte 20, so
  // the last word is padded.
  sim::frame_fields desc;
  desc.force = 2;
  desc.sense = 3;
  desc.mutual = {1, 2, 3, 4, 5, 6};
  desc.self_force = {7, 8};
  desc.self_sense = {9, 10, 11};
  const std::vector<uint8_t> bytes = sim::build_frame(desc);
  ASSERT_EQ(bytes.size(), 88u);
  ASSERT_TRUE(parse(bytes));
  // Raw node index f*3 + s picks gain_ms[f*3 + s]; only index 0 is 1.0.
  EXPECT_EQ(record_.mutual[5], 1 ^ kZero);                                     // raw (0,0)
  EXPECT_EQ(record_.mutual[0], static_cast<uint16_t>(gain_ms[5] * 6) ^ kZero); // raw (1,2)
  EXPECT_EQ(record_.self[0], static_cast<uint16_t>(gain_ss_force[1] * 8) ^ kZero);
  EXPECT_EQ(record_.self[2], static_cast<uint16_t>(gain_ss_sense[2] * 11) ^ kZero);
}

// ---- Header fields and status -----------------------------------------------

TEST_F(FrameParseTest, HeaderFieldsAndScanModeStatus) {
  sim::frame_fields desc = zero_frame(42);
  desc.freq_khz = 200;
  desc.rate_code = 0x3F;
  desc.scan_mode = 4;
  desc.noise_level = 9;
  desc.stddev[0] = 1;
  desc.stddev[1] = 300;
  desc.stddev[2] = 65535;
  desc.stddev[3] = 4;
  ASSERT_TRUE(parse(desc));
  EXPECT_EQ(record_.frame_index, 42u);
  EXPECT_TRUE(logged("Noise level: 9, stddev r0: 1, r1: 300, r2: 65535, r3: 4"));
  EXPECT_EQ(record_.freq_khz, 200);
  EXPECT_EQ(record_.rate_hz, 180);
  EXPECT_EQ(record_.status & 0x03u, static_cast<uint32_t>(KVR_AFE_STATUS_ACTIVE));
  EXPECT_TRUE(logged("Active status: 00000002"));
  EXPECT_TRUE(logged("Frame index: 42, size: 16 X 34, scan mode: 04, freq: 200KHz, rate: 180Hz"));

  desc = zero_frame(43);
  desc.rate_code = 0x40;
  desc.scan_mode = 2;
  ASSERT_TRUE(parse(desc));
  EXPECT_EQ(record_.rate_hz, 120);
  EXPECT_EQ(record_.status & 0x03u, static_cast<uint32_t>(KVR_AFE_STATUS_IDLE));
  EXPECT_TRUE(logged("Idle status: 00000001"));

  desc = zero_frame(44);
  desc.scan_mode = 3;
  ASSERT_TRUE(parse(desc));
  EXPECT_EQ(record_.status & 0x03u, 0u);
  EXPECT_TRUE(logged("None status: 00000000"));
}

TEST_F(FrameParseTest, CalibrationAndRecalRequestShowInTheStatus) {
  calibration_done.store(1);
  ASSERT_TRUE(parse(steady_frame(1)));
  EXPECT_EQ(record_.status,
            static_cast<uint32_t>(KVR_AFE_STATUS_ACTIVE | KVR_AFE_STATUS_CALIBRATION_DONE));
  EXPECT_TRUE(logged("Calibration done status: 0000000A"));

  recal_request.store(1);
  ASSERT_TRUE(parse(steady_frame(2)));
  EXPECT_EQ(record_.status,
            static_cast<uint32_t>(KVR_AFE_STATUS_ACTIVE | KVR_AFE_STATUS_CALIBRATION_DONE |
                                  KVR_AFE_STATUS_RECAL_REQUEST));
  EXPECT_TRUE(logged("Recal request status: 0000008A"));

  calibration_done.store(0);
  ASSERT_TRUE(parse(steady_frame(3)));
  EXPECT_EQ(record_.status,
            static_cast<uint32_t>(KVR_AFE_STATUS_ACTIVE | KVR_AFE_STATUS_RECAL_REQUEST));
}

// ---- Rejections -------------------------------------------------------------

TEST_F(FrameParseTest, BadTagIsRejectedAndLeavesTheRecordsDataAlone) {
  ASSERT_TRUE(parse(zero_frame(1)));
  uint16_t *mutual = record_.mutual;
  record_.status = 0x1234;
  std::vector<uint8_t> bytes = sim::build_frame(zero_frame(2));
  bytes[1] = 0x3B;
  EXPECT_FALSE(parse(bytes));
  EXPECT_TRUE(logged("vendor_parse_ioctrl_frame", "Invalid header information found A5 3B"));
  EXPECT_EQ(android_errors().back(), "Invalid header information found A5 3B");
  EXPECT_EQ(record_.mutual, mutual);
  EXPECT_EQ(record_.status, 0x1234u);

  bytes[0] = 0x00;
  bytes[1] = 0x3A;
  EXPECT_FALSE(parse(bytes));
  EXPECT_TRUE(logged("Invalid header information found 00 3A"));
}

TEST_F(FrameParseTest, TrailerOneOffIsRejectedBeforeTheChecksum) {
  std::vector<uint8_t> bytes = sim::build_frame(zero_frame(5));
  put16(bytes, kFullBody, 6);
  clear_log();
  EXPECT_FALSE(parse(bytes));
  EXPECT_TRUE(logged("vendor_parse_ioctrl_frame", "Counter not matched: 5/6"));
  EXPECT_EQ(android_errors().back(), "Counter not matched: 5/6");
  EXPECT_FALSE(logged("calculate_crc", "Buffer total length = 1252"));
  for (const std::string &msg : log_messages()) {
    EXPECT_EQ(msg.find("checksum"), std::string::npos) << msg;
  }
  EXPECT_EQ(crc_error_count.load(), 0u);
}

TEST_F(FrameParseTest, ChecksumErrorsAreCountedAndReported) {
  std::vector<uint8_t> bytes = sim::build_frame(zero_frame(9));
  const uint32_t stored = le32(bytes, 4);
  bytes[100] ^= 0x01;
  const uint32_t computed = reference_crc(bytes.data(), kFullBody);
  ASSERT_NE(stored, computed);
  EXPECT_FALSE(parse(bytes));
  char text[160];
  snprintf(text, sizeof text,
           "Error frame 9 checksum, error count 1, header CRC = %08X, calculated CRC = %08X",
           stored, computed);
  EXPECT_TRUE(logged("vendor_parse_ioctrl_frame", text));
  EXPECT_EQ(android_errors().back(), text);
  EXPECT_EQ(crc_error_count.load(), 1u);

  // The stored CRC itself lies outside the checksummed bytes.
  bytes = sim::build_frame(zero_frame(10));
  bytes[4] ^= 0x80;
  EXPECT_FALSE(parse(bytes));
  EXPECT_EQ(crc_error_count.load(), 2u);
  // A good frame does not reset the count.
  EXPECT_TRUE(parse(zero_frame(11)));
  EXPECT_EQ(crc_error_count.load(), 2u);
}

TEST_F(FrameParseTest, ImpossibleChannelCountsAreRejectedWithoutReadingPastTheTables) {
  const std::vector<uint8_t> good = sim::build_frame(zero_frame(1));
  struct counts {
    uint8_t force, sense;
  };
  for (counts c : {counts{17, 34}, counts{16, 35}, counts{255, 255}, counts{40, 1}}) {
    std::vector<uint8_t> bytes = good;
    bytes[49] = c.force;
    bytes[48] = c.sense;
    clear_log();
    EXPECT_FALSE(parse(bytes)) << int(c.force) << " x " << int(c.sense);
    ASSERT_FALSE(android_errors().empty());
    EXPECT_NE(android_errors().back().find("Impossible channel count"), std::string::npos);
    EXPECT_FALSE(logged("calculate_crc", "Buffer total length = 1252"));
  }
  EXPECT_EQ(crc_error_count.load(), 0u);
}

TEST_F(FrameParseTest, AFrameMustFitTheAreaItWasReceivedIn) {
  const std::vector<uint8_t> good = sim::build_frame(zero_frame(1));
  ASSERT_EQ(good.size(), 1254u);
  // An area exactly as large as the frame holds it; one byte less does not,
  // and the parser must not read the missing trailer byte.
  for (size_t size : {size_t{1254}, size_t{1253}}) {
    std::vector<uint8_t> area(good.begin(), good.begin() + static_cast<long>(size));
    int64_t stamp[2] = {};
    ioctrl_framedata req{area.data(), stamp, static_cast<uint32_t>(size), 0};
    EXPECT_EQ(vendor_parse_ioctrl_frame(&req, &record_), size == 1254) << size;
  }
  EXPECT_FALSE(vendor_parse_ioctrl_frame(nullptr, &record_));
}

// ---- Loss accounting --------------------------------------------------------

TEST_F(FrameParseTest, GapsInTheFrameIndexAreReportedWithFirmwareDrops) {
  sim::frame_fields desc = steady_frame(1);
  ASSERT_TRUE(parse(desc)); // the first frame after load compares with 0
  EXPECT_FALSE(logged("Frame missing: drop 0 frames, FW drops 1 frames"));
  desc = steady_frame(7);
  desc.fw_counter = 20;
  ASSERT_TRUE(parse(desc));
  EXPECT_TRUE(
      logged("vendor_parse_ioctrl_frame", "Frame missing: drop 5 frames, FW drops 19 frames"));
  desc = steady_frame(10);
  desc.fw_counter = 23;
  ASSERT_TRUE(parse(desc));
  EXPECT_TRUE(logged("Frame missing: drop 2 frames, FW drops 3 frames"));
  clear_log();
  desc = steady_frame(11);
  ASSERT_TRUE(parse(desc));
  desc = steady_frame(11); // a repeated index is no loss either
  ASSERT_TRUE(parse(desc));
  for (const std::string &msg : log_messages()) {
    EXPECT_EQ(msg.rfind("Frame missing", 0), std::string::npos) << msg;
  }
}

TEST_F(FrameParseTest, ResetStateForgetsThePreviousFrameAndTheErrorCount) {
  ASSERT_TRUE(parse(steady_frame(7)));
  std::vector<uint8_t> bad = sim::build_frame(steady_frame(8));
  bad[200] ^= 1;
  EXPECT_FALSE(parse(bad));
  ASSERT_EQ(crc_error_count.load(), 1u);
  calibration_done.store(1);
  frame_parse_reset_state();
  EXPECT_EQ(crc_error_count.load(), 0u);
  EXPECT_EQ(calibration_done.load(), 0);
  clear_log();
  ASSERT_TRUE(parse(steady_frame(3)));
  EXPECT_TRUE(logged("Frame missing: drop 2 frames, FW drops 3 frames"));
}

// ---- Shift tracking ---------------------------------------------------------

TEST_F(FrameParseTest, UnrequestedChangesAreTrackedPerAxis) {
  // At the current point (index 0 of both lists) nothing has shifted.
  ASSERT_TRUE(parse(steady_frame(1)));
  EXPECT_EQ(record_.status & KVR_AFE_STATUS_SHIFT_DONE, 0u);

  sim::frame_fields desc = steady_frame(1);
  desc.freq_khz = 240;
  ASSERT_TRUE(parse(desc));
  EXPECT_NE(record_.status & KVR_AFE_STATUS_SHIFT_DONE, 0u);
  EXPECT_TRUE(logged("Frequency shift done: 160 -> 240KHz"));
  EXPECT_EQ(work_parm[WP_FREQ_INDEX].load(), 2);
  EXPECT_EQ(work_parm[WP_RATE_INDEX].load(), 0);

  desc = steady_frame(2);
  desc.freq_khz = 240;
  desc.rate_code = 0x10; // 180 Hz
  ASSERT_TRUE(parse(desc));
  EXPECT_NE(record_.status & KVR_AFE_STATUS_SHIFT_DONE, 0u);
  EXPECT_TRUE(logged("Scan rate shift done: 120 -> 180Hz"));
  EXPECT_FALSE(logged("Frequency shift done: 240 -> 240KHz"));
  EXPECT_EQ(work_parm[WP_RATE_INDEX].load(), 1);

  // A frequency outside the list counts as a shift and falls back to index 0.
  desc = steady_frame(3);
  desc.freq_khz = 175;
  desc.rate_code = 0x10;
  ASSERT_TRUE(parse(desc));
  EXPECT_NE(record_.status & KVR_AFE_STATUS_SHIFT_DONE, 0u);
  EXPECT_TRUE(logged("Frequency shift done: 240 -> 175KHz"));
  EXPECT_EQ(work_parm[WP_FREQ_INDEX].load(), 0);
}

TEST_F(FrameParseTest, ARequestForBothAxesCompletesOnlyWhenBothArrive) {
  work_parm_request[WP_FREQ_INDEX].store(1);
  work_parm_request[WP_RATE_INDEX].store(1);
  sim::frame_fields desc = steady_frame(1);
  desc.freq_khz = 200; // frequency arrived, rate not yet
  ASSERT_TRUE(parse(desc));
  EXPECT_EQ(record_.status & KVR_AFE_STATUS_SHIFT_DONE, 0u);
  EXPECT_TRUE(logged(
      "Shift not all effective yet, print prev/cur/target, freq: 160/200/200, rate: 120/120/180"));
  EXPECT_EQ(work_parm[WP_FREQ_INDEX].load(), 0);

  desc = steady_frame(2);
  desc.freq_khz = 200;
  desc.rate_code = 0x00;
  ASSERT_TRUE(parse(desc));
  EXPECT_NE(record_.status & KVR_AFE_STATUS_SHIFT_DONE, 0u);
  EXPECT_TRUE(
      logged("Frequency and Scan rate shift are done, freq: 160 -> 200KHz, rate: 120 -> 180"));
  EXPECT_EQ(work_parm[WP_FREQ_INDEX].load(), 1);
  EXPECT_EQ(work_parm[WP_RATE_INDEX].load(), 1);
  // The request stays until the service acknowledges the shift.
  EXPECT_EQ(work_parm_request[WP_FREQ_INDEX].load(), 1);
  EXPECT_EQ(work_parm_request[WP_RATE_INDEX].load(), 1);
}

TEST_F(FrameParseTest, APendingFrequencyRequestIsReportedUntilAcknowledged) {
  work_parm_request[WP_FREQ_INDEX].store(1);
  // Still at the old point: the request has not taken effect.
  ASSERT_TRUE(parse(steady_frame(1)));
  EXPECT_EQ(record_.status & KVR_AFE_STATUS_SHIFT_DONE, 0u);

  sim::frame_fields desc = steady_frame(2);
  desc.freq_khz = 200;
  ASSERT_TRUE(parse(desc));
  EXPECT_NE(record_.status & KVR_AFE_STATUS_SHIFT_DONE, 0u);
  EXPECT_EQ(work_parm[WP_FREQ_INDEX].load(), 1);
  desc.index = desc.counter = 3;
  ASSERT_TRUE(parse(desc));
  EXPECT_NE(record_.status & KVR_AFE_STATUS_SHIFT_DONE, 0u);

  EXPECT_EQ(vendor_clear_status(KVR_AFE_STATUS_SHIFT_DONE), 0u);
  desc.index = desc.counter = 4;
  ASSERT_TRUE(parse(desc));
  EXPECT_EQ(record_.status & KVR_AFE_STATUS_SHIFT_DONE, 0u);
}

TEST_F(FrameParseTest, NoCapabilityListMeansEveryFrameIsAShiftToIndexZero) {
  hw_cap.freq_list = nullptr;
  hw_cap.freq_count = 0;
  hw_cap.rate_list = nullptr;
  hw_cap.rate_count = 0;
  work_parm[WP_FREQ_INDEX].store(3);
  work_parm_request[WP_FREQ_INDEX].store(0);
  ASSERT_TRUE(parse(steady_frame(1)));
  EXPECT_NE(record_.status & KVR_AFE_STATUS_SHIFT_DONE, 0u);
  EXPECT_EQ(work_parm[WP_FREQ_INDEX].load(), 0);
}

// ---- Frame request and SOS --------------------------------------------------

TEST_F(SimTest, FrameRequestIsStaticAndItsCapacityRestoredOnEveryCall) {
  ioctrl_framedata *req = vendor_get_ioctrl_framedata();
  ASSERT_NE(req->buf, nullptr);
  ASSERT_NE(req->timestamp, nullptr);
  EXPECT_EQ(req->size, 3000u);
  uint8_t *buf = req->buf;
  int64_t *stamp = req->timestamp;
  req->size = 17;
  ioctrl_framedata *again = vendor_get_ioctrl_framedata();
  EXPECT_EQ(again, req);
  EXPECT_EQ(again->buf, buf);
  EXPECT_EQ(again->timestamp, stamp);
  EXPECT_EQ(again->size, 3000u);
  buf[2999] = 1; // the whole area is ours (ASan)
  EXPECT_FALSE(vendor_loop_get_frame());
}

TEST_F(SimTest, NeedSosResetsTheChipOnlyWhenTheFlagIsSet) {
  ASSERT_EQ(kvr_afe_open(), 0u);
  sim::clear_recording();
  EXPECT_FALSE(vendor_need_sos());
  EXPECT_TRUE(sim::spi_transfers().empty());

  const int resets = sim::ic().resets;
  set_sos_flag(1);
  EXPECT_TRUE(vendor_need_sos());
  EXPECT_EQ(sim::ic().resets, resets + 1);
  const auto spi = sim::spi_transfers();
  ASSERT_FALSE(spi.empty());
  EXPECT_EQ(spi.front().tx, (std::vector<uint8_t>{0xFA, 0x20, 0x00, 0x00, 0x24, 0x80}));
  EXPECT_FALSE(logged("System rest in SOS failed"));

  // A failed reset still reports the SOS.
  sim::fail_spi_transfer(1, 5);
  EXPECT_TRUE(vendor_need_sos());
  EXPECT_TRUE(logged("vendor_need_sos", "System rest in SOS failed"));
}

// ---- frame_process ----------------------------------------------------------

TEST(FrameProcess, AddsTheOffsetAfterTruncationWithTheChosenTable) {
  std::vector<uint8_t> src(2 * kF * kS, 0);
  src[0] = static_cast<uint8_t>(-10 & 0xFF); // raw node (0, 0) = -10, gain 1.0
  src[1] = static_cast<uint8_t>((-10 >> 8) & 0xFF);
  std::vector<uint16_t> dest(kF * kS, 0xAAAA);
  frame_process(src.data(), dest.data(), kF, kS, 5, GAIN_MS);
  EXPECT_EQ(dest[out_index(0, 0)], 0xFFFB); // -10 + 5, not XORed
  EXPECT_EQ(std::count(dest.begin(), dest.end(), 5), static_cast<long>(kF * kS - 1));

  // One row of 34 values through the sense gains, one column of 16 through
  // the force gains.
  std::fill(src.begin(), src.end(), 0);
  src[2 * 33] = 1000 & 0xFF;
  src[2 * 33 + 1] = 1000 >> 8;
  frame_process(src.data(), dest.data(), 1, kS, 0, GAIN_SS_SENSE);
  EXPECT_EQ(dest[0], 990); // sense 33, gain 0.990
  EXPECT_EQ(dest[1], 0);
  std::fill(src.begin(), src.end(), 0);
  src[2 * 14] = 24;
  frame_process(src.data(), dest.data(), kF, 1, 0x8000, GAIN_SS_FORCE);
  EXPECT_EQ(dest[1], 0x8000 + 22); // force 14, gain 0.938
}

class FrameProcessTest : public SimTest {};

TEST_F(FrameProcessTest, RefusesUnknownGainIndicesAndOversizedTables) {
  std::vector<uint8_t> src(2 * kF * kS, 1);
  std::vector<uint16_t> dest(kF * kS, 0xAAAA);
  const std::vector<uint16_t> untouched = dest;
  for (int32_t index : {0, 4, -1}) {
    frame_process(src.data(), dest.data(), kF, kS, 0, index);
    EXPECT_TRUE(logged("frame_process", "Cannot find gain index " + std::to_string(index)));
  }
  EXPECT_EQ(android_errors().size(), 3u);
  // 16 x 2 nodes would read past the 16 force gains.
  frame_process(src.data(), dest.data(), kF, 2, 0, GAIN_SS_FORCE);
  // 17 force rows would read past the mutual gains.
  frame_process(src.data(), dest.data(), kF + 1, kS, 0, GAIN_MS);
  EXPECT_EQ(android_errors().size(), 5u);
  // No sense channels: nothing to do, nothing reported.
  frame_process(src.data(), dest.data(), kF, 0, 0, GAIN_MS);
  EXPECT_EQ(android_errors().size(), 5u);
  EXPECT_EQ(dest, untouched);
}

// ---- Gain tables ------------------------------------------------------------

TEST(GainTables, MutualTableHasTheFixedEntriesAndShape) {
  ASSERT_EQ(std::size(gain_ms), 544u);
  std::vector<size_t> ones;
  for (size_t i = 0; i < std::size(gain_ms); ++i) {
    if (gain_ms[i] == 1.0f) {
      ones.push_back(i);
    }
  }
  EXPECT_EQ(ones, (std::vector<size_t>{0, 33, 271, 305, 510, 543}));

  const auto slice = [](uint32_t f, uint32_t from, uint32_t to) {
    return std::vector<float>(gain_ms + f * kS + from, gain_ms + f * kS + to);
  };
  EXPECT_EQ(slice(0, 0, 6),
            (std::vector<float>{1.0f, 2.3095f, 2.3328f, 2.3456f, 2.4058f, 2.3544f}));
  EXPECT_EQ(slice(0, 31, 34), (std::vector<float>{2.6636f, 2.7958f, 1.0f}));
  EXPECT_EQ(slice(1, 0, 4), (std::vector<float>{2.3024f, 2.0776f, 2.0833f, 2.0478f}));
  EXPECT_EQ(slice(1, 31, 34), (std::vector<float>{2.2802f, 2.2660f, 2.7538f}));

  for (uint32_t f = 0; f < kF; ++f) {
    const float *row = gain_ms + f * kS;
    if (f == 0 || f == kF - 1) {
      for (uint32_t s = 1; s < kS - 1; ++s) {
        EXPECT_TRUE(row[s] >= 2.30f && row[s] <= 2.80f) << f << "," << s << " " << row[s];
      }
      continue;
    }
    const float inner_max = *std::max_element(row, row + kS - 1);
    EXPECT_GE(*std::min_element(row, row + kS - 1), 2.02f) << "row " << f;
    EXPECT_LE(inner_max, 2.38f) << "row " << f;
    if (f != 7 && f != 8) {
      EXPECT_GT(row[kS - 1], inner_max) << "row " << f;
    }
  }
  // Calibration data: four decimals.
  for (float g : gain_ms) {
    EXPECT_NEAR(g * 10000.0f, std::round(g * 10000.0f), 0.01f);
  }
}

} // namespace
