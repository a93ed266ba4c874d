// The two threads of the touch service on the real clock: a frame thread in
// a kvr_afe_get_frame loop and a control thread issuing every queued
// command, reading the capability and identity, and turning the screen off
// and on. Meant for the ThreadSanitizer build, where any unsynchronised word
// the two threads share is reported.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "afe/afe.h"
#include "support/fixture.h"

namespace {

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

constexpr auto kSoakDuration = 10s;
constexpr uint32_t kKnownStatusBits = KVR_AFE_STATUS_IDLE | KVR_AFE_STATUS_ACTIVE |
                                      KVR_AFE_STATUS_SHIFT_DONE | KVR_AFE_STATUS_CALIBRATION_DONE |
                                      KVR_AFE_STATUS_RECAL_REQUEST;

struct frame_counts {
  std::atomic<uint64_t> in_working{0}, idle{0};
  std::atomic<uint32_t> freqs_seen{0}; // bit i: capability frequency i
  std::atomic<uint32_t> rates_seen{0}; // bit 0: 120 Hz, bit 1: 180 Hz
};

// Whether a frame the service gets looks as it must.
bool good_frame(const kvr_frame_data &f, const std::vector<uint16_t> &freqs) {
  const uint32_t mode = f.status & (KVR_AFE_STATUS_IDLE | KVR_AFE_STATUS_ACTIVE);
  return (f.status & ~kKnownStatusBits) == 0 &&
         (mode == KVR_AFE_STATUS_IDLE || mode == KVR_AFE_STATUS_ACTIVE) && f.mutual != nullptr &&
         f.self != nullptr && (f.rate_hz == 120 || f.rate_hz == 180) &&
         std::find(freqs.begin(), freqs.end(), f.freq_khz) != freqs.end();
}

void frame_thread(const std::atomic<bool> &stop, const std::vector<uint16_t> &freqs,
                  frame_counts &counts) {
  while (!stop.load()) {
    const kvr_frame_data *frame = kvr_afe_get_frame();
    if (frame == nullptr) {
      // As a service does: a moment's pause before asking again, which
      // matters in STANDBY where the driver does not block.
      std::this_thread::sleep_for(2ms);
      continue;
    }
    if (frame == &sos_frame_data) {
      continue;
    }
    if (!good_frame(*frame, freqs)) { // gtest is thread-safe
      ADD_FAILURE() << "frame " << frame->frame_index << ": status " << frame->status << ", "
                    << frame->rate_hz << " Hz, " << frame->freq_khz << " kHz";
      continue;
    }
    counts.idle += (frame->status & KVR_AFE_STATUS_IDLE) != 0 ? 1 : 0;
    const auto at = std::find(freqs.begin(), freqs.end(), frame->freq_khz) - freqs.begin();
    counts.freqs_seen |= 1u << (at & 31);
    counts.rates_seen |= frame->rate_hz == 120 ? 1u : 2u;
    counts.in_working += gu32AFEStatus.load() == KVR_STATE_WORKING ? 1 : 0;
  }
}

// Every queued entry point with its refusal outside WORKING, called with an
// argument that changes from round to round.
struct queued_call {
  const char *name;
  uint32_t refusal;
  uint32_t (*call)(int round, uint8_t freq_count);
};

constexpr uint32_t kStatusBits[] = {KVR_AFE_STATUS_CALIBRATION_DONE, KVR_AFE_STATUS_SHIFT_DONE,
                                    KVR_AFE_STATUS_IDLE_BASELINE_RESET_DONE};

// clang-format off
const queued_call kQueuedCalls[] = {
    {"start_calibration", 4, [](int, uint8_t) { return kvr_afe_start_calibration(); }},
    {"start_autotune", 4, [](int, uint8_t) { return kvr_afe_start_autotune(); }},
    {"clear_status", 4, [](int r, uint8_t) { return kvr_afe_clear_status(kStatusBits[r % 3]); }},
    {"enter_idle", 7, [](int, uint8_t) { return kvr_afe_enter_idle(); }},
    {"set_baseline_update_interval", 4,
     [](int r, uint8_t) { return kvr_afe_set_baseline_update_interval(uint16_t(10 + r % 5)); }},
    {"set_idle_touch_threshold", 4,
     [](int r, uint8_t) { return kvr_afe_set_idle_touch_threshold(uint16_t(30 + r % 4)); }},
    {"reset_idle_baseline", 7, [](int, uint8_t) { return kvr_afe_reset_idle_baseline(); }},
    {"force_exit_idle", 7, [](int, uint8_t) { return kvr_afe_force_exit_idle(); }},
    {"force_to_freq_point", 7,
     [](int r, uint8_t n) { return kvr_afe_force_to_freq_point(uint8_t(r % n)); }},
    {"force_to_scan_rate", 7, [](int r, uint8_t) { return kvr_afe_force_to_scan_rate(uint8_t(r % 2)); }},
    {"enable_freq_shift", 4, [](int, uint8_t) { return kvr_afe_enable_freq_shift(); }},
    {"disable_freq_shift", 4, [](int, uint8_t) { return kvr_afe_disable_freq_shift(); }},
};
// clang-format on

void control_thread(steady::time_point deadline, uint8_t freq_count,
                    std::atomic<uint64_t> &standby_periods) {
  for (int round = 0; steady::now() < deadline; ++round) {
    // Every command is queued while working; the frame thread runs them
    // between frames.
    for (const queued_call &c : kQueuedCalls) {
      EXPECT_EQ(c.call(round, freq_count), KVR_AFE_OK) << c.name << " round " << round;
      std::this_thread::sleep_for(15ms);
    }
    // Calls that talk to the chip from the control thread itself.
    EXPECT_NE(kvr_afe_get_hw_cap(), nullptr) << "round " << round;
    EXPECT_NE(kvr_afe_get_info(), nullptr) << "round " << round;
    if (round % 3 != 2) {
      continue;
    }
    EXPECT_EQ(kvr_afe_screen_off(), KVR_AFE_OK) << "round " << round;
    ++standby_periods;
    for (const queued_call &c : kQueuedCalls) {
      EXPECT_EQ(c.call(round, freq_count), c.refusal) << c.name << " round " << round;
    }
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(kvr_afe_screen_on(), KVR_AFE_OK) << "round " << round;
  }
}

TEST_F(SimTest, FrameAndControlThreadsOnTheRealClock) {
  // Reinstalling the simulator on the real clock replaces the fixture's
  // capture of the Android log, so the pairing check has nothing to compare.
  sim::install(sim::clock_mode::real_clock);
  check_android_pairing_ = false;
  sim::set_noise(8);
  sim::set_touches({{10.0f, 5.0f, 0.2f, 0.1f, 800.0f}});
  open_and_start();
  const kvr_hw_cap *cap = kvr_afe_get_hw_cap();
  ASSERT_TRUE(cap != nullptr && cap->freq_count > 0 && cap->freq_list != nullptr);
  const std::vector<uint16_t> freqs(cap->freq_list, cap->freq_list + cap->freq_count);
  const uint8_t freq_count = cap->freq_count;

  std::atomic<bool> stop{false};
  frame_counts counts;
  std::atomic<uint64_t> standby_periods{0};
  std::thread frames(frame_thread, std::cref(stop), std::cref(freqs), std::ref(counts));
  std::thread control(control_thread, steady::now() + kSoakDuration, freq_count,
                      std::ref(standby_periods));
  control.join();
  stop.store(true);
  frames.join();

  EXPECT_EQ(kvr_afe_stop(), 0u);
  EXPECT_EQ(kvr_afe_close(), 0u);
  // About 120 frames a second for ten seconds, minus the time off screen.
  EXPECT_GT(counts.in_working.load(), 200u);
  EXPECT_GE(standby_periods.load(), 2u);
  // The idle requests reached the chip: some frames were idle scans.
  EXPECT_GT(counts.idle.load(), 0u);
  // The frequency and rate requests reached the chip: frames came at every
  // frequency of the capability list and at both rates.
  EXPECT_EQ(counts.freqs_seen.load(), (1u << freq_count) - 1);
  EXPECT_EQ(counts.rates_seen.load(), 3u);
}

} // namespace
