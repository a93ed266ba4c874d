// Frame parsing: the checksum, the checks that reject a frame, the header
// fields and status bits, shift tracking, loss accounting, and the
// conversion of the raw values into the service's orientation.
#include <boost/crc.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "chip/chip.h"
#include "chip/ops/frame_parse.h"
#include "chip/ops/lifecycle.h"
#include "chip/transport/fw_cmd.h"
#include "platform/ioctrl.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using strings = std::vector<std::string>;
constexpr uint32_t kF = 16;
constexpr uint32_t kS = 34;
constexpr uint32_t kFullBody = 64 + 2 * (kF * kS + kF + kS); // 1,252
constexpr uint16_t kZero = 0x8000;
constexpr uint32_t kShift = KVR_AFE_STATUS_SHIFT_DONE;
constexpr uint8_t kNone = WORK_PARM_NO_REQUEST;

// The panel's gain factors, kept here as a copy of the panel's calibration
// data so that a changed factor in the library shows (mutual: one force
// line per row, sense 0..33).
// clang-format off
const float kGainMs[kF * kS] = {
    1.0000f, 2.3095f, 2.3328f, 2.3456f, 2.4058f, 2.3544f, 2.3618f, 2.3391f, 2.3384f, 2.3659f, 2.3829f, 2.3506f, 2.3540f, 2.3774f, 2.3830f, 2.4074f, 2.3963f, 2.3995f, 2.4256f, 2.4330f, 2.4490f, 2.4681f, 2.4719f, 2.5249f, 2.5227f, 2.5443f, 2.5433f, 2.5889f, 2.6023f, 2.5915f, 2.6343f, 2.6636f, 2.7958f, 1.0000f,
    2.3024f, 2.0776f, 2.0833f, 2.0478f, 2.0957f, 2.0916f, 2.0860f, 2.1074f, 2.1154f, 2.1197f, 2.1214f, 2.1301f, 2.1337f, 2.1278f, 2.1431f, 2.1459f, 2.1572f, 2.1647f, 2.1597f, 2.1863f, 2.1817f, 2.1933f, 2.2007f, 2.2027f, 2.2156f, 2.2318f, 2.2534f, 2.2566f, 2.2549f, 2.2679f, 2.2733f, 2.2802f, 2.2660f, 2.7538f,
    2.2905f, 2.0775f, 2.0859f, 2.0886f, 2.0883f, 2.0947f, 2.0878f, 2.1042f, 2.0897f, 2.1089f, 2.0975f, 2.1201f, 2.1130f, 2.1231f, 2.1440f, 2.1387f, 2.1579f, 2.1580f, 2.1533f, 2.1739f, 2.1782f, 2.1984f, 2.1874f, 2.2186f, 2.2140f, 2.2252f, 2.2390f, 2.2410f, 2.2631f, 2.2649f, 2.2788f, 2.2972f, 2.2591f, 2.7421f,
    2.3153f, 2.0660f, 2.0791f, 2.0726f, 2.0824f, 2.0877f, 2.0828f, 2.0927f, 2.0923f, 2.0867f, 2.0915f, 2.1171f, 2.1116f, 2.1229f, 2.1234f, 2.1310f, 2.1472f, 2.1501f, 2.1678f, 2.1661f, 2.1768f, 2.1899f, 2.1989f, 2.2073f, 2.2185f, 2.2182f, 2.2322f, 2.2285f, 2.2506f, 2.2500f, 2.2697f, 2.2775f, 2.2728f, 2.7583f,
    2.3100f, 2.0614f, 2.0599f, 2.0634f, 2.0790f, 2.0639f, 2.0816f, 2.0854f, 2.0774f, 2.0982f, 2.1077f, 2.0943f, 2.0992f, 2.1227f, 2.1175f, 2.1285f, 2.1409f, 2.1501f, 2.1481f, 2.1506f, 2.1651f, 2.1781f, 2.1897f, 2.1971f, 2.2132f, 2.2131f, 2.2339f, 2.2312f, 2.2336f, 2.2596f, 2.2593f, 2.2829f, 2.2759f, 2.7664f,
    2.3119f, 2.0553f, 2.0533f, 2.0640f, 2.0653f, 2.0707f, 2.0792f, 2.0730f, 2.0891f, 2.0890f, 2.0936f, 2.0848f, 2.1061f, 2.0997f, 2.1243f, 2.1105f, 2.1377f, 2.1418f, 2.1462f, 2.1575f, 2.1720f, 2.1803f, 2.1893f, 2.2002f, 2.2004f, 2.2192f, 2.2117f, 2.2225f, 2.2298f, 2.2531f, 2.2676f, 2.2595f, 2.2430f, 2.7495f,
    2.2932f, 2.0536f, 2.0607f, 2.0593f, 2.0630f, 2.0625f, 2.0612f, 2.0608f, 2.0724f, 2.0864f, 2.0853f, 2.0987f, 2.0925f, 2.1097f, 2.1206f, 2.1061f, 2.1234f, 2.1305f, 2.1387f, 2.1372f, 2.1574f, 2.1659f, 2.1827f, 2.1785f, 2.1968f, 2.1965f, 2.2149f, 2.2176f, 2.2322f, 2.2432f, 2.2449f, 2.2674f, 2.2568f, 2.7509f,
    2.2786f, 2.0600f, 2.0477f, 2.0481f, 2.0585f, 2.0657f, 2.0513f, 2.0592f, 2.0771f, 2.0775f, 2.0704f, 2.0848f, 2.1003f, 2.1040f, 2.1142f, 2.1147f, 2.1163f, 2.1244f, 2.1384f, 2.1293f, 2.1606f, 2.1632f, 2.1732f, 2.1700f, 2.1735f, 2.1925f, 2.2140f, 2.2103f, 2.2217f, 2.2400f, 2.2456f, 2.2615f, 2.2363f, 1.0000f,
    2.2884f, 2.0422f, 2.0511f, 2.0434f, 2.0492f, 2.0460f, 2.0704f, 2.0751f, 2.0642f, 2.0826f, 2.0797f, 2.0875f, 2.0843f, 2.1038f, 2.1019f, 2.1011f, 2.1176f, 2.1329f, 2.1341f, 2.1469f, 2.1591f, 2.1680f, 2.1627f, 2.1686f, 2.1830f, 2.1876f, 2.1967f, 2.2040f, 2.2165f, 2.2368f, 2.2460f, 2.2630f, 2.2346f, 1.0000f,
    2.2876f, 2.0562f, 2.0597f, 2.0543f, 2.0673f, 2.0635f, 2.0708f, 2.0757f, 2.0809f, 2.0827f, 2.0912f, 2.0860f, 2.0944f, 2.1004f, 2.1155f, 2.1048f, 2.1234f, 2.1296f, 2.1490f, 2.1425f, 2.1648f, 2.1657f, 2.1765f, 2.1915f, 2.1827f, 2.1904f, 2.2038f, 2.2158f, 2.2211f, 2.2397f, 2.2623f, 2.2660f, 2.2592f, 2.7483f,
    2.2853f, 2.0530f, 2.0596f, 2.0540f, 2.0699f, 2.0579f, 2.0703f, 2.0755f, 2.0695f, 2.0809f, 2.0807f, 2.0915f, 2.1068f, 2.1118f, 2.1243f, 2.1130f, 2.1390f, 2.1429f, 2.1517f, 2.1626f, 2.1617f, 2.1619f, 2.1760f, 2.1791f, 2.1955f, 2.2188f, 2.2079f, 2.2242f, 2.2416f, 2.2373f, 2.2565f, 2.2698f, 2.2687f, 2.7376f,
    2.2994f, 2.0773f, 2.0753f, 2.0657f, 2.0713f, 2.0807f, 2.0715f, 2.0778f, 2.0852f, 2.0930f, 2.1079f, 2.0957f, 2.1051f, 2.1118f, 2.1289f, 2.1401f, 2.1412f, 2.1372f, 2.1478f, 2.1656f, 2.1684f, 2.1769f, 2.1868f, 2.2033f, 2.2070f, 2.2163f, 2.2232f, 2.2283f, 2.2393f, 2.2533f, 2.2654f, 2.2702f, 2.2622f, 2.7626f,
    2.2857f, 2.0787f, 2.0690f, 2.0665f, 2.0861f, 2.0758f, 2.0834f, 2.0878f, 2.0911f, 2.1053f, 2.1080f, 2.1059f, 2.1111f, 2.1273f, 2.1355f, 2.1273f, 2.1445f, 2.1478f, 2.1549f, 2.1663f, 2.1790f, 2.1863f, 2.1822f, 2.2038f, 2.2161f, 2.2124f, 2.2242f, 2.2468f, 2.2452f, 2.2712f, 2.2662f, 2.2746f, 2.2752f, 2.7715f,
    2.2942f, 2.0784f, 2.0862f, 2.0752f, 2.0751f, 2.0900f, 2.0789f, 2.0873f, 2.0931f, 2.1149f, 2.1185f, 2.1105f, 2.1096f, 2.1228f, 2.1238f, 2.1413f, 2.1558f, 2.1557f, 2.1747f, 2.1753f, 2.1792f, 2.1866f, 2.2007f, 2.2002f, 2.2231f, 2.2176f, 2.2404f, 2.2468f, 2.2544f, 2.2566f, 2.2858f, 2.2975f, 2.2825f, 2.7532f,
    2.3168f, 2.0792f, 2.0807f, 2.0920f, 2.0997f, 2.0842f, 2.1040f, 2.1083f, 2.1174f, 2.1204f, 2.1253f, 2.1232f, 2.1185f, 2.1452f, 2.1443f, 2.1351f, 2.1454f, 2.1571f, 2.1658f, 2.1694f, 2.1883f, 2.2028f, 2.2048f, 2.2232f, 2.2342f, 2.2338f, 2.2319f, 2.2633f, 2.2528f, 2.2837f, 2.2918f, 2.2856f, 2.2520f, 2.7759f,
    1.0000f, 2.3485f, 2.3492f, 2.3731f, 2.3598f, 2.3823f, 2.3729f, 2.3833f, 2.3801f, 2.3708f, 2.3743f, 2.4123f, 2.4065f, 2.3998f, 2.3928f, 2.4181f, 2.4431f, 2.4345f, 2.4732f, 2.4471f, 2.4841f, 2.5016f, 2.4845f, 2.5292f, 2.5452f, 2.5635f, 2.5809f, 2.5972f, 2.6291f, 2.6448f, 2.6355f, 2.6662f, 2.7075f, 1.0000f,
};
const float kGainSsForce[kF] = {1.0f, 0.938f, 0.938f, 0.938f, 0.938f, 0.938f, 0.938f, 0.938f, 0.938f, 0.938f, 0.938f, 0.938f, 0.938f, 0.938f, 0.938f, 1.0f};
const float kGainSsSense[kS] = {
    0.705f, 0.686f, 0.677f, 0.718f, 0.714f, 0.729f, 0.746f, 0.742f, 0.778f, 0.787f, 0.791f, 0.805f, 0.818f, 0.804f, 0.805f, 0.804f, 0.845f, 0.856f, 0.852f, 0.882f, 0.874f, 0.928f, 0.926f, 0.904f, 0.936f, 0.921f, 0.928f, 0.935f, 0.947f, 0.931f, 0.956f, 0.971f, 0.982f, 0.990f};
// clang-format on

// gain x raw in single precision, truncated toward zero, low 16 bits kept.
uint16_t converted(float gain, int16_t raw) {
  return static_cast<uint16_t>(static_cast<int32_t>(gain * static_cast<float>(raw)));
}

// A raw value from seed on whose product with gain truncates differently in
// double precision; seed itself for an exact gain such as 1.0.
int16_t precision_sensitive_raw(float gain, int seed) {
  for (int step = 0; step < 65536; ++step) {
    const auto raw = static_cast<int16_t>(seed + step);
    if (static_cast<uint16_t>(static_cast<double>(gain) * raw) != converted(gain, raw)) {
      return raw;
    }
  }
  return static_cast<int16_t>(seed);
}

// Counts the outputs of a force x sense grid that differ from the gain
// corrected raw node (F-1-i, S-1-o) at output o*F + i, plus offset.
int wrong_nodes(const uint16_t *out, const int16_t *raw, const float *gains, uint32_t force,
                uint32_t sense, uint16_t offset) {
  int wrong = 0;
  for (uint32_t o = 0; o < sense; ++o) {
    for (uint32_t i = 0; i < force; ++i) {
      const uint32_t e = (force - 1 - i) * sense + (sense - 1 - o);
      wrong += out[o * force + i] != static_cast<uint16_t>(converted(gains[e], raw[e]) + offset);
    }
  }
  return wrong;
}

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
// point a start leaves (160 kHz, rate code 0x40 = 120 Hz).
sim::frame_fields frame(uint16_t index, uint16_t freq = 160, uint8_t rate_code = 0x40) {
  sim::frame_fields desc; // short value vectors are zero-filled
  desc.counter = desc.index = desc.fw_counter = index;
  desc.freq_khz = freq;
  desc.rate_code = rate_code;
  return desc;
}

// The logged messages that contain part.
strings messages_with(const std::string &part) {
  strings all = log_messages(), found;
  std::copy_if(all.begin(), all.end(), std::back_inserter(found),
               [&](const std::string &msg) { return msg.find(part) != std::string::npos; });
  return found;
}

// Empty for no message, else exactly that message once, at level 1 with
// its Android copy.
void expect_only_message(const std::string &part, const std::string &message) {
  EXPECT_EQ(messages_with(part), message.empty() ? strings{} : strings{message});
  EXPECT_TRUE(message.empty() || logged_error("vendor_parse_ioctrl_frame", message));
}

class FrameParseTest : public IoSimTest {
protected:
  void SetUp() override {
    IoSimTest::SetUp();
    // The simulated chip's points 160, 145, 133, 123 kHz and rates 120,
    // 180 Hz; the working point and the checksum table as a start leaves
    // them.
    ASSERT_NE(vendor_update_hw_cap(), nullptr);
    init_work_parm();
    clear_log();
    sim::clear_recording();
  }

  // Parses the bytes from the receive area, cut down to area bytes if given.
  bool parse(const bytes &data, uint32_t area = 0) {
    ioctrl_framedata *req = vendor_get_ioctrl_framedata();
    std::copy(data.begin(), data.end(), req->buf);
    req->size = area != 0 ? area : req->size;
    return vendor_parse_ioctrl_frame(req, &record_);
  }
  bool parse(const sim::frame_fields &desc) { return parse(sim::build_frame(desc)); }

  kvr_frame_data record_{};
};

TEST_F(FrameParseTest, EveryNodeIsGainCorrectedInSinglePrecisionAndReordered) {
  EXPECT_TRUE(std::equal(std::begin(kGainMs), std::end(kGainMs), gain_ms));
  EXPECT_TRUE(std::equal(std::begin(kGainSsForce), std::end(kGainSsForce), gain_ss_force));
  EXPECT_TRUE(std::equal(std::begin(kGainSsSense), std::end(kGainSsSense), gain_ss_sense));
  // Mutual output is sense-major with both axes reversed; self output is
  // force then sense, each reversed; zero signal reads 0x8000. Each node
  // carries a raw value whose product truncates differently in double.
  for (const auto &[force, sense] : {std::pair{kF, kS}, std::pair{2u, 3u}}) {
    SCOPED_TRACE(std::to_string(force) + " X " + std::to_string(sense));
    sim::frame_fields desc = frame(9);
    desc.force = static_cast<uint8_t>(force);
    desc.sense = static_cast<uint8_t>(sense);
    int seed = -32768;
    auto fill = [&seed](std::vector<int16_t> &raw, uint32_t n, const float *gains) {
      raw.resize(n);
      for (uint32_t e = 0; e < n; ++e) {
        raw[e] = precision_sensitive_raw(gains[e], seed += 997);
      }
    };
    fill(desc.mutual, force * sense, kGainMs);
    fill(desc.self_force, force, kGainSsForce);
    fill(desc.self_sense, sense, kGainSsSense);
    ASSERT_TRUE(parse(desc));
    uint16_t *self = record_.self;
    EXPECT_EQ(wrong_nodes(record_.mutual, desc.mutual.data(), kGainMs, force, sense, kZero), 0);
    EXPECT_EQ(wrong_nodes(self, desc.self_force.data(), kGainSsForce, 1, force, kZero), 0);
    EXPECT_EQ(wrong_nodes(self + force, desc.self_sense.data(), kGainSsSense, 1, sense, kZero), 0);
  }
}

TEST_F(FrameParseTest, FrameProcessConvertsTheWholeRawRangeWithTheChosenTable) {
  // Table, geometry and copy; the offset is added after truncation.
  const std::tuple<int32_t, uint8_t, uint8_t, const float *> tables[] = {
      {GAIN_MS, kF, kS, kGainMs},
      {GAIN_SS_FORCE, 1, kF, kGainSsForce},
      {GAIN_SS_SENSE, 1, kS, kGainSsSense}};
  for (const auto &[table, force, sense, gains] : tables) {
    SCOPED_TRACE(table);
    std::vector<int16_t> src(static_cast<size_t>(force) * sense);
    std::vector<uint16_t> dest(src.size());
    int wrong = 0;
    for (int raw = -32768; raw <= 32767; ++raw) {
      std::fill(src.begin(), src.end(), static_cast<int16_t>(raw));
      frame_process(reinterpret_cast<const uint8_t *>(src.data()), dest.data(), force, sense, 5,
                    table);
      wrong += wrong_nodes(dest.data(), src.data(), gains, force, sense, 5);
    }
    EXPECT_EQ(wrong, 0);
  }

  // Nothing is written without sense channels, for an unknown table or for
  // more nodes than the table has.
  std::vector<int16_t> src(kF * kS, 100);
  std::vector<uint16_t> dest(kF * kS, 0xAAAA);
  const auto *raw = reinterpret_cast<const uint8_t *>(src.data());
  frame_process(raw, dest.data(), kF, 0, 0, GAIN_MS);
  for (int32_t index : {0, 4, -1}) {
    frame_process(raw, dest.data(), kF, kS, 0, index);
    EXPECT_TRUE(logged_error("frame_process", "Cannot find gain index " + std::to_string(index)));
  }
  frame_process(raw, dest.data(), kF, 2, 0, GAIN_SS_FORCE);
  frame_process(raw, dest.data(), kF + 1, kS, 0, GAIN_MS);
  EXPECT_EQ(android_errors().size(), 5u);
  EXPECT_EQ(std::count(dest.begin(), dest.end(), 0xAAAA), static_cast<long>(kF * kS));
}

TEST_F(FrameParseTest, HeaderFieldsRateCodeScanModeAndCalibrationMakeTheRecord) {
  // Scan mode, rate code, calibrated; status at the working point (no
  // shift) and its lines. Rate codes below 0x40 are 180 Hz.
  const std::tuple<uint8_t, uint8_t, bool, uint32_t, strings> cases[] = {
      {4, 0x40, false, 0x02, {"Active status: 00000002"}},
      {2, 0x3F, false, 0x01, {"Idle status: 00000001"}},
      {3, 0x40, false, 0x00, {"None status: 00000000"}},
      {4, 0x40, true, 0x0A, {"Active status: 00000002", "Calibration done status: 0000000A"}},
      {0, 0x40, true, 0x08, {"None status: 00000000", "Calibration done status: 00000008"}},
  };
  uint16_t index = 40;
  for (const auto &[mode, code, calibrated, status, lines] : cases) {
    SCOPED_TRACE(status);
    vendor_clear_status(KVR_AFE_STATUS_CALIBRATION_DONE);
    ASSERT_TRUE(!calibrated || vendor_calibration());
    work_parm[WP_FREQ_INDEX].store(1); // 145 kHz: the frame shows no shift
    work_parm[WP_RATE_INDEX].store(code < 0x40 ? 1 : 0);
    sim::frame_fields desc = frame(++index, 145, code);
    desc.scan_mode = mode;
    desc.noise_level = 9;
    const uint16_t stddev[] = {1, 300, 65535, index};
    std::copy(stddev, stddev + 4, desc.stddev);
    clear_log();
    ASSERT_TRUE(parse(desc));
    const int rate = code < 0x40 ? 180 : 120;
    EXPECT_EQ(std::tuple(record_.frame_index, record_.freq_khz, record_.rate_hz, record_.status),
              std::tuple(uint32_t{index}, uint32_t{145}, static_cast<uint32_t>(rate), status));
    EXPECT_EQ(messages_with(" status: "), lines);
    for (const auto &line : lines) {
      EXPECT_TRUE(logged_error("vendor_parse_ioctrl_frame", line));
    }
    EXPECT_TRUE(logged_at(4, "Frame " + std::to_string(index) + " checksum OK"));
    char line[96];
    snprintf(line, sizeof line,
             "Frame index: %d, size: 16 X 34, scan mode: %02d, freq: 145KHz, rate: %dHz", index,
             mode, rate);
    EXPECT_TRUE(logged_at(3, "vendor_parse_ioctrl_frame", line));
    snprintf(line, sizeof line, "Noise level: 9, stddev r0: 1, r1: 300, r2: 65535, r3: %d", index);
    EXPECT_TRUE(logged_at(3, "vendor_parse_ioctrl_frame", line));
  }
  EXPECT_FALSE(vendor_loop_get_frame());
}

TEST_F(FrameParseTest, BadFramesAreRejectedAndLeaveTheRecordButTheIndex) {
  // Bytes written at an offset of a good frame 5, the error reported, and
  // whether the frame index reached the record before the rejection.
  const std::string panel = " (panel 16 X 34, area 3000 bytes)";
  const std::tuple<size_t, bytes, std::string, bool> cases[] = {
      {0, {0xA5, 0x3B}, "Invalid header information found A5 3B", false},
      {0, {0x00, 0x3A}, "Invalid header information found 00 3A", false},
      {kFullBody, {6}, "Counter not matched: 5/6", true}, // the trailer one off
      {2, {4}, "Counter not matched: 4/5", true},
      {48, {34, 17}, "Impossible channel count: force 17, sense 34" + panel, true},
      {48, {35, 16}, "Impossible channel count: force 16, sense 35" + panel, true},
  };
  const bytes good = sim::build_frame(frame(5));
  // The area the driver filled must hold the whole frame; the next request
  // lends the whole area again.
  EXPECT_TRUE(parse(good, 1254));
  EXPECT_FALSE(parse(good, 1253));
  EXPECT_TRUE(logged_error(
      "vendor_parse_ioctrl_frame",
      "Impossible channel count: force 16, sense 34 (panel 16 X 34, area 1253 bytes)"));
  EXPECT_EQ(vendor_get_ioctrl_framedata()->size, 3000u);
  EXPECT_FALSE(parse(good, 4));
  EXPECT_TRUE(logged_error("vendor_parse_ioctrl_frame", "Frame area of 4 bytes is too small"));
  EXPECT_FALSE(vendor_parse_ioctrl_frame(nullptr, &record_));
  EXPECT_TRUE(logged_error("No frame to parse"));
  ASSERT_TRUE(parse(good));
  uint16_t *mutual = record_.mutual;
  for (const auto &[at, with, error, indexed] : cases) {
    SCOPED_TRACE(error);
    bytes data = good;
    std::copy(with.begin(), with.end(), data.begin() + static_cast<long>(at));
    record_.status = 0x1234;
    record_.frame_index = 77;
    clear_log();
    EXPECT_FALSE(parse(data));
    EXPECT_EQ(android_errors(), strings{error});
    EXPECT_TRUE(logged_error("vendor_parse_ioctrl_frame", error));
    EXPECT_EQ(count_logged_starting(4, "Buffer total length"), 0); // no checksum computed
    EXPECT_EQ(std::tuple(record_.mutual, record_.status, record_.frame_index),
              std::tuple(mutual, 0x1234u, indexed ? 5u : 77u));
  }
}

TEST_F(FrameParseTest, ChecksumLossesAndChecksumErrorsAreCounted) {
  // The checksum against an independent CRC: nothing before byte 20 is
  // covered; lengths 21..24 and 1249..1252 cover every padded last word.
  std::mt19937 rng(7);
  bytes random(1300);
  std::generate(random.begin(), random.end(), [&] { return static_cast<uint8_t>(rng()); });
  for (uint32_t length : {20u, 21u, 22u, 23u, 24u, 25u, 37u, 99u, 1249u, 1250u, 1251u, 1252u}) {
    EXPECT_EQ(calculate_crc(random.data(), length), reference_crc(random.data(), length)) << length;
  }
  EXPECT_TRUE(logged_at(4, "calculate_crc", "Buffer total length = 1252"));

  // Frame index, firmware counter, the loss reported. The first frame after
  // load compares with 0; a repeated or older index is no loss.
  const std::tuple<uint16_t, uint16_t, std::string> frames[] = {
      {3, 3, "Frame missing: drop 2 frames, FW drops 3 frames"},
      {7, 20, "Frame missing: drop 3 frames, FW drops 17 frames"},
      {8, 21, ""},
      {8, 22, ""},
      {7, 23, ""},
      {9, 23, "Frame missing: drop 1 frames, FW drops 0 frames"},
  };
  for (const auto &[index, fw_counter, loss] : frames) {
    SCOPED_TRACE(index);
    sim::frame_fields desc = frame(index);
    desc.fw_counter = fw_counter;
    clear_log();
    ASSERT_TRUE(parse(desc));
    expect_only_message("Frame missing", loss);
  }

  // Each checksum error counts; a good frame in between keeps the count.
  for (int error = 1; error <= 2; ++error) {
    bytes data = sim::build_frame(frame(12));
    const uint32_t stored = reference_crc(data.data(), kFullBody);
    data[100 + error] ^= 0x01;
    record_.frame_index = 0;
    EXPECT_FALSE(parse(data));
    EXPECT_EQ(record_.frame_index, 12u);
    char text[160];
    snprintf(text, sizeof text,
             "Error frame 12 checksum, error count %d, header CRC = %08X, calculated CRC = %08X",
             error, stored, reference_crc(data.data(), kFullBody));
    EXPECT_TRUE(logged_error("vendor_parse_ioctrl_frame", text));
    ASSERT_TRUE(parse(frame(12)));
  }
}

TEST_F(FrameParseTest, ShiftsAreTrackedPerAxisOrForBothRequestedAxes) {
  // Lists: 160/145/133/123 kHz, 120/180 Hz (rate code 0x3F = 180 Hz). Each
  // step sets the requests, parses a frame and expects the shift bit, the
  // shift log and the working point after it; the parser never clears a
  // request.
  // clang-format off
  const std::tuple<uint8_t, uint8_t, uint16_t, uint8_t, bool, std::string, uint8_t, uint8_t> steps[] = {
      {kNone, kNone, 133, 0x40, true, "Frequency shift done: 160 -> 133KHz", 2, 0},
      {kNone, kNone, 133, 0x3F, true, "Scan rate shift done: 120 -> 180Hz", 2, 1},
      // A frequency outside the list falls back to index 0.
      {kNone, kNone, 175, 0x3F, true, "Frequency shift done: 133 -> 175KHz", 0, 1},
      // Both axes requested: done only when both have arrived.
      {1, 0, 145, 0x3F, false, "Shift not all effective yet, print prev/cur/target, freq: 160/145/145, rate: 180/180/120", 0, 1},
      {1, 0, 145, 0x40, true, "Frequency and Scan rate shift are done, freq: 160 -> 145KHz, rate: 180 -> 120", 1, 0},
      // One axis requested: not before it arrives, then on every frame
      // until the service acknowledges it.
      {2, kNone, 145, 0x40, false, "", 1, 0},
      {2, kNone, 133, 0x40, true, "Frequency shift done: 145 -> 133KHz", 2, 0},
      {2, kNone, 133, 0x40, true, "Frequency shift done: 133 -> 133KHz", 2, 0},
      {kNone, kNone, 133, 0x40, false, "", 2, 0},
      {kNone, 1, 133, 0x40, false, "", 2, 0},
      {kNone, 1, 133, 0x3F, true, "Scan rate shift done: 120 -> 180Hz", 2, 1},
      {kNone, 1, 133, 0x3F, true, "Scan rate shift done: 180 -> 180Hz", 2, 1},
  };
  // clang-format on
  uint16_t index = 1;
  for (const auto &[req_f, req_r, freq, rate_code, shift, log, cur_f, cur_r] : steps) {
    SCOPED_TRACE(index);
    work_parm_request[WP_FREQ_INDEX].store(req_f);
    work_parm_request[WP_RATE_INDEX].store(req_r);
    clear_log();
    ASSERT_TRUE(parse(frame(index++, freq, rate_code)));
    EXPECT_EQ((record_.status & kShift) != 0, shift);
    expect_only_message("hift", log);
    EXPECT_EQ(work_parm[WP_FREQ_INDEX].load(), cur_f);
    EXPECT_EQ(work_parm[WP_RATE_INDEX].load(), cur_r);
    EXPECT_EQ(work_parm_request[WP_FREQ_INDEX].load(), req_f);
    EXPECT_EQ(work_parm_request[WP_RATE_INDEX].load(), req_r);
  }

  // Without a frequency list no entry matches, not even a frequency of 0:
  // every frame is a shift to the first point.
  sim::fail_spi_transfer(3, EIO); // the T cycle: the list cannot be read
  ASSERT_NE(vendor_update_hw_cap(), nullptr);
  ASSERT_EQ(hw_cap.freq_list, nullptr);
  work_parm_request[WP_RATE_INDEX].store(kNone);
  work_parm[WP_RATE_INDEX].store(0); // 120 Hz, as the frames
  for (uint16_t freq : {160, 0}) {
    clear_log();
    ASSERT_TRUE(parse(frame(index++, freq)));
    EXPECT_NE(record_.status & kShift, 0u);
    EXPECT_EQ(count_logged_starting(1, "Frequency shift done: "), 1);
    EXPECT_EQ(work_parm[WP_FREQ_INDEX].load(), 0);
  }
}

TEST_F(FrameParseTest, NeedSosResetsTheChipAndWaitsForItWhenTheFlagIsUp) {
  EXPECT_FALSE(vendor_need_sos());
  EXPECT_TRUE(sim::spi_transfers().empty());
  // Two unanswered attempts of a command raise the flag.
  sim::drop_echoes(2);
  ASSERT_NE(zeno_sense_on(), 0u);
  ASSERT_EQ(sos_flag.load(), 1);
  const int resets = sim::ic().resets;
  clear_log();
  const int64_t start = sim::now_us();
  EXPECT_TRUE(vendor_need_sos());
  EXPECT_EQ(sim::ic().resets, resets + 1);
  // The reset waits for the chip's ready event (10 ms) instead of sleeping
  // a fixed 100 ms.
  EXPECT_EQ(count_logged_starting(3, "Controller ready event found"), 1);
  EXPECT_LT(sim::now_us() - start, 50000);
  sim::fail_spi_transfer(1, EIO);
  EXPECT_TRUE(vendor_need_sos());
  EXPECT_TRUE(logged_error("vendor_need_sos", "System rest in SOS failed"));
}

} // namespace
