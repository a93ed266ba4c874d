#include "bench/bench_support.h"

#include <cmath>

#include "chip/ops/frame_parse.h"
#include "platform/log.h"
#include "platform/os.h"

namespace bench {

namespace {

int drop_android_log(int, const char *, const char *) {
  return 1;
}

afehal_os_ops g_quiet_ops;

} // namespace

const afehal_os_ops *install_quiet_os() {
  const afehal_os_ops *previous = &os();
  g_quiet_ops = *previous;
  g_quiet_ops.android_log = drop_android_log;
  os_install(&g_quiet_ops);
  return previous;
}

bool start_on_simulator() {
  sim::install(sim::clock_mode::virtual_clock);
  log_level.store(1);
  log_callback.store(nullptr);
  if (kvr_afe_open() != KVR_AFE_OK) {
    return false;
  }
  if (kvr_afe_start() != KVR_AFE_OK) {
    return false;
  }
  return kvr_afe_get_hw_cap() != nullptr;
}

void stop_on_simulator() {
  kvr_afe_stop();
  kvr_afe_close();
  sim::uninstall();
}

std::vector<uint8_t> steady_state_frame(const kvr_hw_cap &cap) {
  sim::frame_fields fields;
  fields.force = PANEL_FORCE;
  fields.sense = PANEL_SENSE;
  fields.scan_mode = 4; // active
  // The first entries of the capability lists are the working point after
  // start, so the frame shows no shift.
  fields.freq_khz = cap.freq_count > 0 && cap.freq_list != nullptr ? cap.freq_list[0] : 0;
  fields.rate_code =
      cap.rate_count > 0 && cap.rate_list != nullptr && cap.rate_list[0] == 180 ? 0x00 : 0x40;
  fields.mutual.resize(size_t{PANEL_FORCE} * PANEL_SENSE);
  for (size_t f = 0; f < PANEL_FORCE; ++f) {
    for (size_t s = 0; s < PANEL_SENSE; ++s) {
      const double d2 = (f - 6.0) * (f - 6.0) + (s - 20.0) * (s - 20.0);
      fields.mutual[f * PANEL_SENSE + s] = static_cast<int16_t>(
          900.0 * std::exp(-d2 / 2.0) + static_cast<double>((f * 7 + s * 3) % 11) - 5.0);
    }
  }
  fields.self_force.assign(PANEL_FORCE, 40);
  fields.self_sense.assign(PANEL_SENSE, -12);
  return sim::build_frame(fields);
}

} // namespace bench
