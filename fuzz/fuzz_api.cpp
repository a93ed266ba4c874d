// The API-sequence fuzzer: the input chooses kvr_afe_* calls with their
// arguments, interleaved with faults of the simulated driver, IC and panel.
// After every call: the state word is one of the four states, and a call
// made in a state that does not allow it was refused with its documented
// code (or NULL) without changing the state. At the end, with the faults
// cleared, the library must still close, open, start, deliver a frame,
// stop and close, and hold no heap block.
#include <cerrno>
#include <cmath>
#include <fuzzer/FuzzedDataProvider.h>
#include <string>

#include "fuzz/fuzz_support.h"

namespace {

constexpr uint32_t C = KVR_STATE_CLOSED, P = KVR_STATE_PREWORKING, W = KVR_STATE_WORKING,
                   S = KVR_STATE_STANDBY, ANY = C | P | W | S;
constexpr uint64_t kNull = ~uint64_t{0}; // a NULL pointer result
constexpr uint64_t kAnyResult = kNull - 1;
constexpr int kMaxSteps = 48;

// One call: the states that allow it, what a refusal returns, and the call.
struct api_call {
  uint32_t allowed;
  uint64_t refusal;
  uint64_t (*run)(FuzzedDataProvider &in);
};

uint64_t code(uint32_t result) {
  return result;
}

uint64_t pointer(const void *p) {
  return p == nullptr ? kNull : kAnyResult;
}

uint64_t frames(FuzzedDataProvider &in) {
  uint64_t last = kNull;
  for (int n = in.ConsumeIntegralInRange(1, 6); n > 0; --n) {
    last = pointer(kvr_afe_get_frame());
  }
  return last;
}

uint64_t deprecated(FuzzedDataProvider &in) {
  switch (in.ConsumeIntegralInRange(0, 4)) {
  case 0:
    return code(kvr_afe_reset_freq_state());
  case 1:
    return code(kvr_afe_set_freq_point_min_hold_time(in.ConsumeIntegral<uint16_t>()));
  case 2:
    return code(kvr_afe_set_idle_scan_rate(in.ConsumeIntegral<uint8_t>()));
  case 3:
    return code(kvr_afe_start_freq_shift());
  default:
    return code(kvr_afe_set_wakeup_gesture_scan_rate(in.ConsumeIntegral<uint8_t>()));
  }
}

uint64_t log_settings(FuzzedDataProvider &in) {
  const uint8_t level = in.ConsumeIntegralInRange<uint8_t>(0, 7);
  const uint32_t r = kvr_afe_set_log_level(level);
  fuzz::check(r == (level < 6 ? 0u : 7u), "set_log_level result");
  fuzz::check(kvr_afe_set_log_callback_func(nullptr) == 7, "NULL sink accepted");
  return code(kvr_afe_set_log_callback_func(fuzz::drop_line));
}

uint64_t inspect_buffers(FuzzedDataProvider &) {
  const bool all = kvr_afe_get_inspect_grid_data() && kvr_afe_get_inspect_line_data() &&
                   kvr_afe_get_inspect_noise() && kvr_afe_get_inspect_calib_grid_data() &&
                   kvr_afe_get_inspect_calib_line_data();
  fuzz::check(all, "an inspection buffer is NULL");
  return 0;
}

uint64_t pure_calls(FuzzedDataProvider &in) {
  const uint32_t x = in.ConsumeIntegral<uint32_t>();
  const uint64_t root = sqrt32(x);
  fuzz::check(root * root <= x && (root + 1) * (root + 1) > x, "sqrt32 not the floor root");
  fuzz::check(kvr_afe_hal_spec_version() == 70400, "interface version");
  return code(kvr_afe_set_calib_data_callback_func(nullptr, nullptr));
}

const api_call kCalls[] = {
    {C, 4, [](FuzzedDataProvider &) { return code(kvr_afe_open()); }},
    {C, 4,
     [](FuzzedDataProvider &in) {
       return code(kvr_afe_open_project(in.ConsumeRandomLengthString(16).c_str()));
     }},
    {P, 4, [](FuzzedDataProvider &) { return code(kvr_afe_close()); }},
    {P | W | S, 4, [](FuzzedDataProvider &) { return code(kvr_afe_screen_on()); }},
    {W, 4, [](FuzzedDataProvider &) { return code(kvr_afe_screen_off()); }},
    {P | W, 4, [](FuzzedDataProvider &) { return code(kvr_afe_start()); }},
    {W, 4, [](FuzzedDataProvider &) { return code(kvr_afe_stop()); }},
    {W, kNull, [](FuzzedDataProvider &) { return pointer(kvr_afe_get_info()); }},
    {W, 7, [](FuzzedDataProvider &) { return code(kvr_afe_enter_tui()); }},
    {W, 7, [](FuzzedDataProvider &) { return code(kvr_afe_exit_tui()); }},
    {ANY, 0, log_settings},
    {W | S, kNull, frames},
    {W | S, kNull, frames},
    {W, 4, [](FuzzedDataProvider &) { return code(kvr_afe_enable_freq_shift()); }},
    {W, 4, [](FuzzedDataProvider &) { return code(kvr_afe_disable_freq_shift()); }},
    {W, 4, [](FuzzedDataProvider &) { return code(kvr_afe_start_calibration()); }},
    {W, 4, [](FuzzedDataProvider &) { return code(kvr_afe_start_autotune()); }},
    {W, 4,
     [](FuzzedDataProvider &in) {
       return code(kvr_afe_clear_status(in.ConsumeIntegral<uint32_t>()));
     }},
    {W, 4,
     [](FuzzedDataProvider &in) {
       return code(kvr_afe_set_baseline_update_interval(in.ConsumeIntegral<uint16_t>()));
     }},
    {W, 4,
     [](FuzzedDataProvider &in) {
       return code(kvr_afe_set_idle_touch_threshold(in.ConsumeIntegral<uint16_t>()));
     }},
    {W, 7, [](FuzzedDataProvider &) { return code(kvr_afe_reset_idle_baseline()); }},
    {W, 7, [](FuzzedDataProvider &) { return code(kvr_afe_enter_idle()); }},
    {W, 7, [](FuzzedDataProvider &) { return code(kvr_afe_force_exit_idle()); }},
    {W, 7,
     [](FuzzedDataProvider &in) {
       return code(kvr_afe_force_to_freq_point(in.ConsumeIntegral<uint8_t>()));
     }},
    {W, 7,
     [](FuzzedDataProvider &in) {
       return code(kvr_afe_force_to_scan_rate(in.ConsumeIntegral<uint8_t>()));
     }},
    {W, kNull, [](FuzzedDataProvider &) { return pointer(kvr_afe_get_hw_cap()); }},
    {W | S, 7,
     [](FuzzedDataProvider &in) {
       return code(kvr_afe_enable_wakeup_gesture(in.ConsumeIntegral<uint32_t>()));
     }},
    {W | S, 7, [](FuzzedDataProvider &) { return code(kvr_afe_disable_wakeup_gesture()); }},
    {ANY, 0, deprecated},
    {P | W, KVR_AFE_INSPECT_REFUSED, [](FuzzedDataProvider &) { return code(kvr_afe_inspect()); }},
    {ANY, 0, inspect_buffers},
    {ANY, 0, pure_calls},
};
constexpr int kCallCount = sizeof kCalls / sizeof kCalls[0];

constexpr unsigned long kRequests[] = {KVR_IOCTL_GET_FRAME,       KVR_IOCTL_SET_RESET,
                                       KVR_IOCTL_SET_TIMEOUT,     KVR_IOCTL_SPI_SYNC,
                                       KVR_IOCTL_SET_BLOCK,       KVR_IOCTL_SET_IRQ,
                                       KVR_IOCTL_GET_FRAME_COUNT, KVR_IOCTL_CLEAR_FRAME_BUFFER};
constexpr int kErrors[] = {EIO, ETIMEDOUT, EINVAL, EBUSY, EFAULT};

// A fault of the driver, the IC, the panel or the flash.
void inject_fault(FuzzedDataProvider &in) {
  const int n = in.ConsumeIntegralInRange(-1, 4);
  const int err = in.PickValueInArray(kErrors);
  const int kind = in.ConsumeIntegralInRange(0, 15);
  if (std::getenv("FUZZ_API_TRACE") != nullptr) {
    std::fprintf(stderr, "fault %d: n %d, errno %d\n", kind, n, err);
  }
  switch (kind) {
  case 0:
    sim::fail_ioctl(in.PickValueInArray(kRequests), err,
                    static_cast<sim::fault_when>(in.ConsumeIntegralInRange(0, 2)), n);
    break;
  case 1:
    sim::drop_echoes(n);
    break;
  case 2:
    sim::fatal_on_next_command(in.ConsumeBool());
    break;
  case 3:
    sim::corrupt_crc(n);
    break;
  case 4:
    sim::corrupt_tag(n);
    break;
  case 5:
    sim::corrupt_counter(n);
    break;
  case 6:
    sim::drop_frames(n);
    break;
  case 7:
    sim::bad_channel_counts(in.ConsumeIntegral<uint8_t>(), in.ConsumeIntegral<uint8_t>(), n);
    break;
  case 8: {
    // Old firmware on the chip: the next start updates it, perhaps on a
    // flash that never finishes.
    sim::chip_identity id = sim::identity();
    id.fw_ver = 0x0010;
    sim::set_identity(id);
    sim::erase_stuck(in.ConsumeBool());
    sim::dma_stuck(in.ConsumeBool());
    break;
  }
  case 9:
    sim::fail_spi_transfer(in.ConsumeIntegralInRange(1, 8), err);
    break;
  case 10:
    sim::host_data_never_loads(in.ConsumeBool());
    break;
  case 11:
    sim::stop_frames(in.ConsumeBool());
    break;
  case 12:
    sim::fail_open(err, n);
    break;
  case 13:
    sim::error_before_echo(n);
    break;
  case 14:
    sim::firmware_stops_after(in.ConsumeIntegralInRange(0, 20));
    break;
  default:
    sim::advance_us(in.ConsumeIntegralInRange<int64_t>(0, 2000000));
    break;
  }
}

uint32_t state() {
  return gu32AFEStatus.load();
}

bool one_of_four(uint32_t s) {
  return s == C || s == P || s == W || s == S;
}

// FUZZ_API_TRACE=1 in the environment prints every step (for reading a
// crash input).
const bool kTrace = std::getenv("FUZZ_API_TRACE") != nullptr;

void step(FuzzedDataProvider &in) {
  const int choice = in.ConsumeIntegralInRange(0, kCallCount + 7);
  if (choice >= kCallCount) {
    inject_fault(in);
    return;
  }
  const api_call &call = kCalls[choice];
  const uint32_t before = state();
  const uint64_t result = call.run(in);
  const uint32_t after = state();
  if (kTrace) {
    std::fprintf(stderr, "call %d: state %u -> %u, result 0x%llx\n", choice, before, after,
                 static_cast<unsigned long long>(result));
  }
  fuzz::check(one_of_four(after), "state word not one of the four states");
  if ((call.allowed & before) == 0) {
    fuzz::check(result == call.refusal, "a call in a state that forbids it was not refused");
    fuzz::check(after == before, "a refused call changed the state");
  } else if (call.allowed == ANY) {
    fuzz::check(result == call.refusal, "an any-state call did not return 0");
  }
}

// From any state back to CLOSED through the lifecycle calls.
void wind_down() {
  if (state() == S) {
    kvr_afe_screen_on();
    fuzz::check(state() == W, "screen_on did not leave STANDBY");
  }
  if (state() == W) {
    kvr_afe_stop();
    fuzz::check(state() == P, "stop did not leave WORKING");
  }
  if (state() == P) {
    fuzz::check(kvr_afe_close() == 0, "close refused in PREWORKING");
  }
  fuzz::check(state() == C, "not CLOSED after winding down");
}

// With the faults cleared the library works as on a fresh load.
void expect_usable() {
  sim::clear_faults();
  wind_down();
  fuzz::expect_heap_empty();
  fuzz::check(kvr_afe_open() == 0, "open failed after the sequence");
  // A start may still fail on the chip side (an IC left held by a failed
  // flash is not updated again while a wake-up gesture is armed); the frame
  // path then recovers the IC with its SOS reset.
  kvr_afe_start();
  fuzz::check(state() == W, "start did not reach WORKING after the sequence");
  // The driver's IRQ is switched on again only at the end of an inspection,
  // and a failure there is ignored: the driver then delivers no frame until
  // an inspection runs again. Every other sequence must end with frames
  // (after an SOS record or two while the IC recovers).
  const bool irq = sim::driver().irq_enabled;
  if (irq) {
    bool framed = false;
    for (int i = 0; i < 10 && !framed; ++i) {
      const kvr_frame_data *f = kvr_afe_get_frame();
      framed = f != nullptr && (f->status & KVR_AFE_STATUS_SOS) == 0;
      // After an SOS reset the IC no longer scans: the service restarts.
      if (f != nullptr && !framed) {
        kvr_afe_start();
      }
    }
    fuzz::check(framed, "no frame after the sequence");
  }
  // Once frames flow the IC answers: stop succeeds.
  fuzz::check(kvr_afe_stop() == 0 || !irq, "stop failed after frames");
  fuzz::check(kvr_afe_close() == 0, "close failed after the sequence");
  fuzz::expect_heap_empty();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::begin_input(true);
  FuzzedDataProvider in(data, size);
  for (int i = 0; i < kMaxSteps && in.remaining_bytes() > 0; ++i) {
    step(in);
  }
  log_callback.store(fuzz::drop_line);
  log_level.store(LOG_LEVEL_ENTRY);
  expect_usable();
  return 0;
}
