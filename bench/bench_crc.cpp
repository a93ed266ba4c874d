// The frame checksum next to a plain byte-wise table CRC of the same
// parameters (Boost.CRC) and next to copying the same bytes.
#include <benchmark/benchmark.h>

#include <boost/crc.hpp>
#include <cstring>
#include <string>
#include <vector>

#include "chip/ops/frame_parse.h"
#include "chip/transport/simd_target.h"
#include "sim/sim.h"

namespace {

// A full 16 x 34 frame; the checksum covers bytes 20 up to the trailing
// counter.
struct crc_input {
  std::vector<uint8_t> frame;
  uint32_t length = 0;   // bytes given to calculate_crc
  uint32_t covered = 0;  // bytes the checksum runs over
  uint32_t expected = 0; // the CRC the frame carries
  // The covered bytes in the order the checksum consumes them: each
  // little-endian word most significant byte first.
  std::vector<uint8_t> fed_order;
};

uint32_t le32(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

crc_input make_input() {
  sim::frame_fields fields;
  fields.force = PANEL_FORCE;
  fields.sense = PANEL_SENSE;
  fields.mutual.resize(size_t{PANEL_FORCE} * PANEL_SENSE);
  for (size_t i = 0; i < fields.mutual.size(); ++i) {
    fields.mutual[i] = static_cast<int16_t>((i * 2654435761u) >> 20);
  }
  fields.self_force.assign(PANEL_FORCE, 1234);
  fields.self_sense.assign(PANEL_SENSE, -4321);
  crc_input in;
  in.frame = sim::build_frame(fields);
  in.length = static_cast<uint32_t>(in.frame.size() - 2);
  in.covered = in.length - CRC_START;
  in.expected = le32(in.frame.data() + 4);
  const uint32_t words = (in.covered + 3) / 4;
  in.fed_order.assign(size_t{words} * 4, 0);
  for (uint32_t w = 0; w < words; ++w) {
    for (uint32_t b = 0; b < 4; ++b) {
      const uint32_t src = CRC_START + 4 * w + b;
      in.fed_order[4 * w + (3 - b)] = src < in.length ? in.frame[src] : 0;
    }
  }
  return in;
}

const crc_input &input() {
  static const crc_input in = make_input();
  return in;
}

void BM_FrameCrc(benchmark::State &state) {
  build_crc_table();
  const crc_input &in = input();
  if (calculate_crc(in.frame.data(), in.length) != in.expected) {
    state.SkipWithError("calculate_crc disagrees with the CRC in the frame");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(in.frame.data());
    uint32_t crc = calculate_crc(in.frame.data(), in.length);
    benchmark::DoNotOptimize(crc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * in.covered);
  state.counters["frame_bytes"] = static_cast<double>(in.frame.size());
}
BENCHMARK(BM_FrameCrc);

// The same on each target this machine runs, forced ("portable" is the
// table code).
void frame_crc_on(benchmark::State &state, int64_t target) {
  simd::force_target(target);
  BM_FrameCrc(state);
  simd::force_target(-1);
}

[[maybe_unused]] const bool crc_targets_registered = [] {
  for (int64_t target : simd::runnable_targets()) {
    const std::string name = std::string("BM_FrameCrc/") + simd::target_name(target);
    benchmark::RegisterBenchmark(name.c_str(), frame_crc_on, target);
  }
  return true;
}();

using boost_frame_crc = boost::crc_optimal<32, 0xE89061DB, 0, 0, false, false>;

void BM_BoostCrc(benchmark::State &state) {
  const crc_input &in = input();
  boost_frame_crc check;
  check.process_bytes(in.fed_order.data(), in.fed_order.size());
  if (check.checksum() != in.expected) {
    state.SkipWithError("Boost.CRC over the same bytes disagrees with the frame's CRC");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(in.fed_order.data());
    boost_frame_crc crc;
    crc.process_bytes(in.fed_order.data(), in.fed_order.size());
    uint32_t sum = crc.checksum();
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * in.covered);
}
BENCHMARK(BM_BoostCrc);

void BM_MemcpyFrameBytes(benchmark::State &state) {
  const crc_input &in = input();
  std::vector<uint8_t> dest(in.covered);
  for (auto _ : state) {
    std::memcpy(dest.data(), in.frame.data() + CRC_START, in.covered);
    benchmark::DoNotOptimize(dest.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * in.covered);
}
BENCHMARK(BM_MemcpyFrameBytes);

} // namespace
