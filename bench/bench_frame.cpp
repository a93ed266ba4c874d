// One frame through the library: parse and convert a raw frame, and
// kvr_afe_get_frame end to end against the simulated driver.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "bench/bench_support.h"
#include "chip/chip.h"
#include "chip/ops/frame_parse.h"
#include "chip/ops/lifecycle.h"
#include "chip/transport/simd_target.h"
#include "platform/ioctrl.h"
#include "platform/log.h"

namespace {

// Checks, bookkeeping and conversion of one frame into the frame record.
// The library is started on the simulator first so that the capability
// record and the working point are those of a running panel; the frame is
// at that working point, so only the per-frame status line is logged.
void parse_benchmark(benchmark::State &state, bool quiet_android_log) {
  if (!bench::start_on_simulator()) {
    state.SkipWithError("the library did not start on the simulator");
    bench::stop_on_simulator();
    return;
  }
  const std::vector<uint8_t> frame = bench::steady_state_frame(hw_cap);
  init_work_parm();
  build_crc_table();
  const afehal_os_ops *simulator_ops = quiet_android_log ? bench::install_quiet_os() : &os();

  static uint8_t buffer[FRAME_BUFFER_SIZE];
  int64_t stamp[2] = {0, 0};
  std::memcpy(buffer, frame.data(), frame.size());
  ioctrl_framedata request{buffer, stamp, FRAME_BUFFER_SIZE, 0};
  kvr_frame_data record{};
  const uint32_t crc_errors = crc_error_count.load();
  if (!vendor_parse_ioctrl_frame(&request, &record) || record.mutual == nullptr) {
    state.SkipWithError("the frame was rejected");
  } else {
    for (auto _ : state) {
      benchmark::DoNotOptimize(buffer);
      bool ok = vendor_parse_ioctrl_frame(&request, &record);
      benchmark::DoNotOptimize(ok);
      benchmark::ClobberMemory();
    }
    if (crc_error_count.load() != crc_errors || record.status != KVR_AFE_STATUS_ACTIVE) {
      state.SkipWithError("frames were rejected or showed a shift during the run");
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  os_install(simulator_ops);
  bench::stop_on_simulator();
}

void BM_ParseConvertFrame(benchmark::State &state) {
  parse_benchmark(state, true);
}
BENCHMARK(BM_ParseConvertFrame);

// The same with the CRC and the conversion forced onto the portable code,
// for comparison in the same run.
void BM_ParseConvertFramePortable(benchmark::State &state) {
  simd::force_target(simd::kPortable);
  parse_benchmark(state, true);
  simd::force_target(-1);
}
BENCHMARK(BM_ParseConvertFramePortable);

// The same with the per-frame Android log copy going into the simulator's
// recorder, as in the tests and the tool.
void BM_ParseConvertFrameSimAndroidLog(benchmark::State &state) {
  parse_benchmark(state, false);
}
BENCHMARK(BM_ParseConvertFrameSimAndroidLog);

// The mutual-data conversion alone (gain, transpose, reversal) over the
// same frame, through frame_process with the mutual gain table.
void BM_ConvertMutualOnly(benchmark::State &state) {
  sim::frame_fields fields;
  fields.force = PANEL_FORCE;
  fields.sense = PANEL_SENSE;
  fields.mutual.assign(size_t{PANEL_FORCE} * PANEL_SENSE, 0);
  for (size_t i = 0; i < fields.mutual.size(); ++i) {
    fields.mutual[i] = static_cast<int16_t>(static_cast<int>(i % 97) * 9 - 400);
  }
  const std::vector<uint8_t> frame = sim::build_frame(fields);
  static uint16_t out[FRAME_MUTUAL_CAPACITY];
  for (auto _ : state) {
    benchmark::DoNotOptimize(frame.data());
    frame_process(frame.data() + FRAME_HEADER_SIZE, out, PANEL_FORCE, PANEL_SENSE, 0x8000, GAIN_MS);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_ConvertMutualOnly);

// One error-level line with no sink installed and the Android copy
// dropped: what each per-frame status line costs the frame path.
void BM_LogErrorQuiet(benchmark::State &state) {
  sim::install(sim::clock_mode::virtual_clock);
  const afehal_os_ops *simulator_ops = bench::install_quiet_os();
  log_callback.store(nullptr);
  uint32_t status = KVR_AFE_STATUS_ACTIVE;
  for (auto _ : state) {
    benchmark::DoNotOptimize(status);
    log_error("vendor_parse_ioctrl_frame", "Active status: %08X", status);
  }
  os_install(simulator_ops);
  sim::uninstall();
}
BENCHMARK(BM_LogErrorQuiet);

// kvr_afe_get_frame on the simulator with the virtual clock: the frame-count
// and get-frame ioctls, the command pass, the simulated panel scanning and
// building the frame, and the parse. Most of the time is the simulator's.
void BM_GetFrameEndToEnd(benchmark::State &state) {
  if (!bench::start_on_simulator()) {
    state.SkipWithError("the library did not start on the simulator");
    bench::stop_on_simulator();
    return;
  }
  int64_t missing = 0;
  for (auto _ : state) {
    kvr_frame_data *frame = kvr_afe_get_frame();
    benchmark::DoNotOptimize(frame);
    if (frame == nullptr) {
      ++missing;
    }
  }
  if (missing != 0) {
    state.SkipWithError("some calls returned no frame");
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  bench::stop_on_simulator();
}
BENCHMARK(BM_GetFrameEndToEnd);

} // namespace
