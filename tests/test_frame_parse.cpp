// Frame parsing: the checksum, the checks that reject a frame, the header
// fields and status bits, shift tracking, loss accounting, and the
// conversion of the raw values into the service's orientation.
#include <boost/crc.hpp>

#include <algorithm>
#include <iterator>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "chip/chip.h"
#include "chip/ops/frame_parse.h"
#include "chip/ops/lifecycle.h"
#include "platform/ioctrl.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using strings = std::vector<std::string>;
constexpr uint32_t kF = PANEL_FORCE;
constexpr uint32_t kS = PANEL_SENSE;
constexpr uint32_t kFullBody = 64 + 2 * (kF * kS + kF + kS); // 1,252
constexpr uint16_t kZero = 0x8000;
constexpr uint32_t kShift = KVR_AFE_STATUS_SHIFT_DONE;
constexpr uint8_t kNone = WORK_PARM_NO_REQUEST;

// An independent CRC: Boost's generic table-driven CRC with the same
// parameters, fed the bytes of each word in the order +3, +2, +1, +0.
uint32_t reference_crc(const uint8_t *data, size_t length) {
  boost::crc_optimal<32, 0xE89061DB, 0, 0, false, false> crc;
  for (size_t group = 20; group < length; group += 4) {
    for (int k = 3; k >= 0; --k) {
      crc.process_byte(group + k < length ? data[group + k] : 0);
    }
  }
  return crc.checksum();
}

// A frame of this panel with all raw values zero, by default at the working
// point the tests start from (160 kHz, rate code 0x40 = 120 Hz).
sim::frame_fields frame(uint16_t index, uint16_t freq = 160, uint8_t rate_code = 0x40) {
  sim::frame_fields desc;
  desc.counter = desc.index = desc.fw_counter = index;
  desc.freq_khz = freq;
  desc.rate_code = rate_code;
  desc.mutual.assign(kF * kS, 0);
  desc.self_force.assign(kF, 0);
  desc.self_sense.assign(kS, 0);
  return desc;
}

// The logged messages that contain part.
strings messages_with(const std::string &part) {
  strings all = log_messages(), found;
  std::copy_if(all.begin(), all.end(), std::back_inserter(found),
               [&](const std::string &msg) { return msg.find(part) != std::string::npos; });
  return found;
}

class FrameParseTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    uint16_t freqs[] = {160, 200, 240}, rates[] = {120, 180};
    kvr_hw_cap cap{};
    cap.freq_list = freqs;
    cap.freq_count = 3;
    cap.rate_list = rates;
    cap.rate_count = 2;
    publish_hw_cap(cap);
  }

  // Parses the bytes from the receive area, cut down to area bytes if given;
  // the Android log then holds only what this frame reported.
  bool parse(const bytes &data, uint32_t area = 0) {
    sim::clear_recording();
    ioctrl_framedata *req = vendor_get_ioctrl_framedata();
    std::copy(data.begin(), data.end(), req->buf);
    req->size = area != 0 ? area : req->size;
    return vendor_parse_ioctrl_frame(req, &record_);
  }
  bool parse(const sim::frame_fields &desc) { return parse(sim::build_frame(desc)); }

  kvr_frame_data record_{};
};

TEST(FrameCrc, MatchesAnIndependentCrcForEveryTailLengthAfterATableRebuild) {
  crc_table[0x5A] ^= 0x00010000; // a damaged table is rebuilt, not kept
  crc_table[0xFF] = 0;
  build_crc_table();
  std::mt19937 rng(7);
  bytes data(1300);
  std::generate(data.begin(), data.end(), [&] { return static_cast<uint8_t>(rng()); });
  // Nothing before byte 20 is covered; lengths 21..24 and 1249..1252 cover
  // every size of the padded last word.
  for (uint32_t length : {20u, 21u, 22u, 23u, 24u, 25u, 37u, 99u, 1249u, 1250u, 1251u, 1252u}) {
    EXPECT_EQ(calculate_crc(data.data(), length), reference_crc(data.data(), length)) << length;
  }
}

TEST_F(FrameParseTest, HeaderFieldsAndDataTransposedReversedAndGainCorrected) {
  // A raw value and where it lands: gain x raw truncated toward zero, low 16
  // bits, XOR 0x8000. Mutual output is sense-major with both axes reversed;
  // self output is force then sense, each reversed.
  using F = sim::frame_fields;
  const std::tuple<std::vector<int16_t> F::*, uint32_t, int16_t, uint32_t, uint16_t> values[] = {
      {&F::mutual, 15 * kS + 33, 1533, 0, 1533 ^ kZero}, // gain 1.0 corners
      {&F::mutual, 15 * kS + 0, 1500, 33 * kF, 1500 ^ kZero},
      {&F::mutual, 0 * kS + 0, -100, 33 * kF + 15, 0x7F9C},
      {&F::mutual, 1 * kS + 1, 101, 32 * kF + 14, 0x80D1},  // gain 2.0776: 209.84 -> 209
      {&F::mutual, 1 * kS + 2, -101, 31 * kF + 14, 0x7F2E}, // gain 2.0833: -210.41 -> -210
      {&F::mutual, 0 * kS + 32, 32767, kF + 15, 0xE5D9},    // gain 2.7958: 91609, low 16 bits
      {&F::self_force, 15, 25, 0, 25 ^ kZero},              // gain 1.0
      {&F::self_force, 14, 24, 1, 22 ^ kZero},              // gain 0.938: 22.5
      {&F::self_sense, 33, 1000, kF, 990 ^ kZero},          // gain 0.990
      {&F::self_sense, 0, 300, kF + 33, 211 ^ kZero},       // gain 0.705: 211.5
      {&F::self_sense, 5, -50, kF + 28, 0x7FDC},            // gain 0.729: -36.45 -> -36
  };
  sim::frame_fields desc = frame(42, 200, 0x3F);
  for (auto [list, at, raw, pos, out] : values) {
    (desc.*list)[at] = raw;
  }
  desc.noise_level = 9;
  const uint16_t stddev[] = {1, 300, 65535, 4};
  std::copy(stddev, stddev + 4, desc.stddev);
  ASSERT_TRUE(parse(desc));
  EXPECT_TRUE(logged("vendor_parse_ioctrl_frame", "Frame 42 checksum OK"));
  EXPECT_EQ(record_.frame_index, 42u);
  EXPECT_EQ(record_.freq_khz, 200);
  EXPECT_EQ(record_.rate_hz, 180);
  EXPECT_TRUE(logged("Noise level: 9, stddev r0: 1, r1: 300, r2: 65535, r3: 4"));
  EXPECT_TRUE(logged("Frame index: 42, size: 16 X 34, scan mode: 04, freq: 200KHz, rate: 180Hz"));
  for (auto [list, at, raw, pos, out] : values) {
    EXPECT_EQ((list == &F::mutual ? record_.mutual : record_.self)[pos], out) << raw;
  }
  EXPECT_EQ(std::count(record_.mutual, record_.mutual + kF * kS, kZero), kF * kS - 6);
  EXPECT_EQ(std::count(record_.self, record_.self + kF + kS, kZero), kF + kS - 5);
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
  ASSERT_TRUE(parse(desc));
  // Raw node index f*3 + s picks gain_ms[f*3 + s]; only index 0 is 1.0.
  EXPECT_EQ(record_.mutual[5], 1 ^ kZero);                                     // raw (0,0)
  EXPECT_EQ(record_.mutual[0], static_cast<uint16_t>(gain_ms[5] * 6) ^ kZero); // raw (1,2)
  EXPECT_EQ(record_.self[0], static_cast<uint16_t>(gain_ss_force[1] * 8) ^ kZero);
  EXPECT_EQ(record_.self[2], static_cast<uint16_t>(gain_ss_sense[2] * 11) ^ kZero);
}

TEST_F(FrameParseTest, ScanModeAndFlagsMakeTheStatusBits) {
  // Idle 0x01, active 0x02, calibration done 0x08, recalibration request 0x80.
  const std::tuple<uint8_t, uint8_t, uint8_t, uint32_t, std::string> cases[] = {
      {4, 0, 0, 0x02, "Active status: 00000002"},
      {2, 0, 0, 0x01, "Idle status: 00000001"},
      {3, 0, 0, 0x00, "None status: 00000000"},
      {4, 1, 0, 0x0A, "Calibration done status: 0000000A"},
      {4, 0, 1, 0x82, "Recal request status: 00000082"},
  };
  for (const auto &[mode, calibrated, recal, status, log] : cases) {
    sim::frame_fields desc = frame(43);
    desc.scan_mode = mode;
    calibration_done.store(calibrated);
    recal_request.store(recal);
    ASSERT_TRUE(parse(desc));
    EXPECT_EQ(record_.status, status) << log; // at the working point: no shift
    EXPECT_TRUE(logged(log));
  }
}

TEST_F(FrameParseTest, BadFramesAreRejectedBeforeTheChecksumAndLeaveTheRecordAlone) {
  // Bytes written at an offset of a good frame 5, and the error reported.
  const std::string panel = " (panel 16 X 34, area 3000 bytes)";
  const std::tuple<size_t, bytes, std::string> cases[] = {
      {0, {0xA5, 0x3B}, "Invalid header information found A5 3B"},
      {0, {0x00, 0x3A}, "Invalid header information found 00 3A"},
      {kFullBody, {6}, "Counter not matched: 5/6"}, // the trailer one off
      {48, {34, 17}, "Impossible channel count: force 17, sense 34" + panel},
      {48, {35, 16}, "Impossible channel count: force 16, sense 35" + panel},
      {48, {255, 255}, "Impossible channel count: force 255, sense 255" + panel},
      {48, {1, 40}, "Impossible channel count: force 40, sense 1" + panel},
  };
  const bytes good = sim::build_frame(frame(5));
  // The area the driver filled must hold the whole frame; the next request
  // lends the whole area again.
  EXPECT_TRUE(parse(good, 1254));
  EXPECT_FALSE(parse(good, 1253));
  EXPECT_EQ(
      android_errors(),
      strings{"Impossible channel count: force 16, sense 34 (panel 16 X 34, area 1253 bytes)"});
  EXPECT_FALSE(vendor_parse_ioctrl_frame(nullptr, &record_));
  ASSERT_TRUE(parse(good));
  uint16_t *mutual = record_.mutual;
  for (const auto &[at, with, error] : cases) {
    bytes data = good;
    std::copy(with.begin(), with.end(), data.begin() + static_cast<long>(at));
    record_.status = 0x1234;
    clear_log();
    EXPECT_FALSE(parse(data)) << error;
    EXPECT_EQ(android_errors(), strings{error});
    EXPECT_EQ(messages_with("checksum"), strings{});
    EXPECT_EQ(record_.mutual, mutual);
    EXPECT_EQ(record_.status, 0x1234u);
  }
}

TEST_F(FrameParseTest, LossesAndChecksumErrorsAreCountedUntilAStateReset) {
  // Frame index and firmware counter; the first frame after load compares
  // with 0, and a repeated index is no loss either.
  for (auto [index, fw_counter] : {std::pair{1, 1}, {7, 20}, {10, 23}, {11, 24}, {11, 25}}) {
    sim::frame_fields desc = frame(static_cast<uint16_t>(index));
    desc.fw_counter = static_cast<uint16_t>(fw_counter);
    ASSERT_TRUE(parse(desc));
  }

  bytes data = sim::build_frame(frame(12));
  const uint32_t stored = reference_crc(data.data(), kFullBody);
  data[100] ^= 0x01;
  const uint32_t computed = reference_crc(data.data(), kFullBody);
  EXPECT_FALSE(parse(data));
  char text[160];
  snprintf(text, sizeof text,
           "Error frame 12 checksum, error count 1, header CRC = %08X, calculated CRC = %08X",
           stored, computed);
  EXPECT_EQ(android_errors(), strings{text});
  ASSERT_TRUE(parse(frame(12))); // a good frame keeps the count
  EXPECT_EQ(crc_error_count.load(), 1u);
  EXPECT_EQ(messages_with("Frame missing"),
            (strings{"Frame missing: drop 5 frames, FW drops 19 frames",
                     "Frame missing: drop 2 frames, FW drops 3 frames"}));

  calibration_done.store(1);
  frame_parse_reset_state();
  EXPECT_EQ(crc_error_count.load(), 0u);
  EXPECT_EQ(calibration_done.load(), 0);
  clear_log();
  ASSERT_TRUE(parse(frame(3))); // compared with 0 again
  EXPECT_TRUE(logged("Frame missing: drop 2 frames, FW drops 3 frames"));
}

TEST_F(FrameParseTest, ShiftsAreTrackedPerAxisOrForBothRequestedAxes) {
  // Lists: 160/200/240 kHz, 120/180 Hz (rate code 0x10 = 180 Hz). Each step
  // sets the requests, parses a frame and expects the shift bit, the shift
  // log and the working point after it; the parser never clears a request.
  const std::tuple<uint8_t, uint8_t, uint16_t, uint8_t, bool, std::string, uint8_t, uint8_t>
      steps[] = {
          {kNone, kNone, 240, 0x40, true, "Frequency shift done: 160 -> 240KHz", 2, 0},
          {kNone, kNone, 240, 0x10, true, "Scan rate shift done: 120 -> 180Hz", 2, 1},
          // A frequency outside the list falls back to index 0.
          {kNone, kNone, 175, 0x10, true, "Frequency shift done: 240 -> 175KHz", 0, 1},
          // Both axes requested: done only when both have arrived.
          {1, 0, 200, 0x10, false,
           "Shift not all effective yet, print prev/cur/target, freq: 160/200/200, rate: "
           "180/180/120",
           0, 1},
          {1, 0, 200, 0x40, true,
           "Frequency and Scan rate shift are done, freq: 160 -> 200KHz, rate: 180 -> 120", 1, 0},
          // One axis requested: not before it arrives, then on every frame
          // until the service acknowledges it.
          {2, kNone, 200, 0x40, false, "", 1, 0},
          {2, kNone, 240, 0x40, true, "Frequency shift done: 200 -> 240KHz", 2, 0},
          {2, kNone, 240, 0x40, true, "Frequency shift done: 240 -> 240KHz", 2, 0},
          {kNone, kNone, 240, 0x40, false, "", 2, 0},
          {kNone, 1, 240, 0x40, false, "", 2, 0},
      };
  uint16_t index = 1;
  for (const auto &[req_f, req_r, freq, rate_code, shift, log, cur_f, cur_r] : steps) {
    SCOPED_TRACE(index);
    work_parm_request[WP_FREQ_INDEX].store(req_f);
    work_parm_request[WP_RATE_INDEX].store(req_r);
    clear_log();
    ASSERT_TRUE(parse(frame(index++, freq, rate_code)));
    EXPECT_EQ((record_.status & kShift) != 0, shift);
    EXPECT_EQ(messages_with("hift"), log.empty() ? strings{} : strings{log});
    EXPECT_EQ(work_parm[WP_FREQ_INDEX].load(), cur_f);
    EXPECT_EQ(work_parm[WP_RATE_INDEX].load(), cur_r);
    EXPECT_EQ(work_parm_request[WP_FREQ_INDEX].load(), req_f);
    EXPECT_EQ(work_parm_request[WP_RATE_INDEX].load(), req_r);
  }

  // Without capability lists every frame is a shift to index 0.
  publish_hw_cap(kvr_hw_cap{});
  ASSERT_TRUE(parse(frame(index)));
  EXPECT_NE(record_.status & kShift, 0u);
  EXPECT_EQ(work_parm[WP_FREQ_INDEX].load(), 0);
}

TEST_F(SimTest, NeedSosReportsTheSosEvenWhenTheResetFails) {
  ASSERT_EQ(kvr_afe_open(), 0u);
  set_sos_flag(1);
  sim::fail_spi_transfer(1, 5);
  EXPECT_TRUE(vendor_need_sos());
  EXPECT_TRUE(logged("vendor_need_sos", "System rest in SOS failed"));
}

TEST_F(SimTest, FrameProcessAddsTheOffsetAfterTruncationWithTheChosenTable) {
  bytes src(2 * kF * kS, 0);
  std::vector<uint16_t> dest(kF * kS, 0xAAAA);
  src[0] = 0xF6; // raw 0: -10
  src[1] = 0xFF;
  src[2 * 33] = 0xE8; // raw 33: 1000
  src[2 * 33 + 1] = 0x03;
  frame_process(src.data(), dest.data(), kF, kS, 5, GAIN_MS);
  EXPECT_EQ(dest[kF * kS - 1], 0xFFFB); // node (0, 0), gain 1.0: -10 + 5, not XORed
  EXPECT_EQ(std::count(dest.begin(), dest.end(), 5), static_cast<long>(kF * kS - 2));
  frame_process(src.data(), dest.data(), 1, kS, 0, GAIN_SS_SENSE); // one row: sense gains
  EXPECT_EQ(dest[0], 990);                                         // sense 33, gain 0.990

  // Unknown gain indices and tables too small for the request are refused.
  const std::vector<uint16_t> untouched = dest;
  for (int32_t index : {0, 4, -1}) {
    frame_process(src.data(), dest.data(), kF, kS, 0, index);
    EXPECT_TRUE(logged("frame_process", "Cannot find gain index " + std::to_string(index)));
  }
  frame_process(src.data(), dest.data(), kF, 2, 0, GAIN_SS_FORCE); // 32 values, 16 force gains
  frame_process(src.data(), dest.data(), kF + 1, kS, 0, GAIN_MS);  // 17 force rows
  EXPECT_EQ(android_errors().size(), 5u);
  EXPECT_EQ(dest, untouched);
}

TEST(GainTables, MutualTableHasTheFixedEntries) {
  EXPECT_EQ(std::count(std::begin(gain_ms), std::end(gain_ms), 1.0f), 6);
  for (size_t i : {0, 33, 271, 305, 510, 543}) {
    EXPECT_EQ(gain_ms[i], 1.0f) << i;
  }
  const auto slice = [](uint32_t f, uint32_t from, uint32_t to) {
    return std::vector<float>(gain_ms + f * kS + from, gain_ms + f * kS + to);
  };
  EXPECT_EQ(slice(0, 0, 6),
            (std::vector<float>{1.0f, 2.3095f, 2.3328f, 2.3456f, 2.4058f, 2.3544f}));
  EXPECT_EQ(slice(0, 31, 34), (std::vector<float>{2.6636f, 2.7958f, 1.0f}));
  EXPECT_EQ(slice(1, 31, 34), (std::vector<float>{2.2802f, 2.2660f, 2.7538f}));
}

} // namespace
