// The two threads of the touch service on the real clock: a frame thread in
// a kvr_afe_get_frame loop and a control thread issuing every queued
// command, reading the capability and identity, and turning the screen off
// and on. Meant for the ThreadSanitizer
// build, where any unsynchronised word the two threads share is reported.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
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

// Problems seen by either thread, reported after both have ended.
struct problems {
  std::mutex mutex;
  std::vector<std::string> list;
  void add(std::string what) {
    std::lock_guard<std::mutex> lock(mutex);
    if (list.size() < 50) {
      list.push_back(std::move(what));
    }
  }
};

struct frame_counts {
  std::atomic<uint64_t> in_working{0};
  std::atomic<uint64_t> idle{0};
  std::atomic<uint64_t> sos{0};
  std::atomic<uint64_t> none{0};
  std::atomic<uint32_t> freqs_seen{0}; // bit i: capability frequency i
  std::atomic<uint32_t> rates_seen{0}; // bit 0: 120 Hz, bit 1: 180 Hz
};

bool is_sos_frame(const kvr_frame_data &f) {
  return f.status == KVR_AFE_STATUS_SOS && f.mutual == nullptr && f.self == nullptr &&
         f.frame_index == 0 && f.freq_khz == 0 && f.rate_hz == 0 && f.timestamp_sec == 0 &&
         f.timestamp_usec == 0 && f.reserved[0] == 0 && f.reserved[1] == 0;
}

// What a frame the service gets must look like; empty when it does.
std::string check_frame(const kvr_frame_data &f, const std::vector<uint16_t> &freqs) {
  if ((f.status & ~kKnownStatusBits) != 0) {
    return "unknown status bits " + std::to_string(f.status);
  }
  const uint32_t mode = f.status & (KVR_AFE_STATUS_IDLE | KVR_AFE_STATUS_ACTIVE);
  if (mode != KVR_AFE_STATUS_IDLE && mode != KVR_AFE_STATUS_ACTIVE) {
    return "scan mode bits " + std::to_string(mode);
  }
  if (f.mutual == nullptr || f.self == nullptr) {
    return "frame without data";
  }
  if (f.rate_hz != 120 && f.rate_hz != 180) {
    return "scan rate " + std::to_string(f.rate_hz);
  }
  if (std::find(freqs.begin(), freqs.end(), f.freq_khz) == freqs.end()) {
    return "frequency " + std::to_string(f.freq_khz) + " kHz not in the capability list";
  }
  return "";
}

void frame_thread(const std::atomic<bool> &stop, const std::vector<uint16_t> &freqs,
                  frame_counts &counts, problems &seen) {
  while (!stop.load()) {
    const kvr_frame_data *frame = kvr_afe_get_frame();
    if (frame == nullptr) {
      ++counts.none;
      // As a service does: a moment's pause before asking again, which
      // matters in STANDBY where the driver does not block.
      std::this_thread::sleep_for(2ms);
      continue;
    }
    if (is_sos_frame(*frame)) {
      ++counts.sos;
      continue;
    }
    const std::string problem = check_frame(*frame, freqs);
    if (!problem.empty()) {
      seen.add("frame " + std::to_string(frame->frame_index) + ": " + problem);
      continue;
    }
    if ((frame->status & KVR_AFE_STATUS_IDLE) != 0) {
      ++counts.idle;
    }
    const auto at = std::find(freqs.begin(), freqs.end(), frame->freq_khz) - freqs.begin();
    counts.freqs_seen |= 1u << (at & 31);
    counts.rates_seen |= frame->rate_hz == 120 ? 1u : 2u;
    if (gu32AFEStatus.load() == KVR_STATE_WORKING) {
      ++counts.in_working;
    }
  }
}

// One queued entry point, its refusal in STANDBY, and how to call it in a
// given round.
struct queued_call {
  const char *name;
  uint32_t refusal;
  std::function<uint32_t(int round)> call;
};

std::vector<queued_call> queued_calls(uint8_t freq_count) {
  return {
      {"start_calibration", KVR_AFE_ERR_STATE, [](int) { return kvr_afe_start_calibration(); }},
      {"start_autotune", KVR_AFE_ERR_STATE, [](int) { return kvr_afe_start_autotune(); }},
      {"clear_status", KVR_AFE_ERR_STATE,
       [](int round) {
         static constexpr uint32_t kBits[] = {KVR_AFE_STATUS_CALIBRATION_DONE,
                                              KVR_AFE_STATUS_SHIFT_DONE,
                                              KVR_AFE_STATUS_IDLE_BASELINE_RESET_DONE};
         return kvr_afe_clear_status(kBits[round % 3]);
       }},
      {"enter_idle", KVR_AFE_ERR_STATE_OR_ARG, [](int) { return kvr_afe_enter_idle(); }},
      {"set_baseline_update_interval", KVR_AFE_ERR_STATE,
       [](int round) {
         return kvr_afe_set_baseline_update_interval(static_cast<uint16_t>(10 + round % 5));
       }},
      {"set_idle_touch_threshold", KVR_AFE_ERR_STATE,
       [](int round) {
         return kvr_afe_set_idle_touch_threshold(static_cast<uint16_t>(30 + round % 4));
       }},
      {"reset_idle_baseline", KVR_AFE_ERR_STATE_OR_ARG,
       [](int) { return kvr_afe_reset_idle_baseline(); }},
      {"force_exit_idle", KVR_AFE_ERR_STATE_OR_ARG, [](int) { return kvr_afe_force_exit_idle(); }},
      {"force_to_freq_point", KVR_AFE_ERR_STATE_OR_ARG,
       [freq_count](int round) {
         return kvr_afe_force_to_freq_point(static_cast<uint8_t>(round % freq_count));
       }},
      {"force_to_scan_rate", KVR_AFE_ERR_STATE_OR_ARG,
       [](int round) { return kvr_afe_force_to_scan_rate(static_cast<uint8_t>(round % 2)); }},
      {"enable_freq_shift", KVR_AFE_ERR_STATE, [](int) { return kvr_afe_enable_freq_shift(); }},
      {"disable_freq_shift", KVR_AFE_ERR_STATE, [](int) { return kvr_afe_disable_freq_shift(); }},
  };
}

void control_thread(steady::time_point deadline, uint8_t freq_count, problems &seen,
                    std::atomic<uint64_t> &standby_periods) {
  const std::vector<queued_call> calls = queued_calls(freq_count);
  const auto expect = [&seen](const char *what, uint32_t got, uint32_t want, int round) {
    if (got != want) {
      seen.add(std::string(what) + " returned " + std::to_string(got) + ", expected " +
               std::to_string(want) + " (round " + std::to_string(round) + ")");
    }
  };
  for (int round = 0; steady::now() < deadline; ++round) {
    // Every command is queued while working; the frame thread runs them
    // between frames.
    for (const queued_call &c : calls) {
      expect(c.name, c.call(round), KVR_AFE_OK, round);
      std::this_thread::sleep_for(15ms);
    }
    // Calls that talk to the chip from the control thread itself.
    if (kvr_afe_get_hw_cap() == nullptr) {
      seen.add("kvr_afe_get_hw_cap returned NULL (round " + std::to_string(round) + ")");
    }
    if (kvr_afe_get_info() == nullptr) {
      seen.add("kvr_afe_get_info returned NULL (round " + std::to_string(round) + ")");
    }
    if (round % 3 != 2) {
      continue;
    }
    expect("screen_off", kvr_afe_screen_off(), KVR_AFE_OK, round);
    ++standby_periods;
    for (const queued_call &c : calls) {
      expect(c.name, c.call(round), c.refusal, round);
    }
    std::this_thread::sleep_for(150ms);
    expect("screen_on", kvr_afe_screen_on(), KVR_AFE_OK, round);
  }
}

class TwoThreads : public SimTest {};

TEST_F(TwoThreads, FrameAndControlThreadsOnTheRealClock) {
  sim::install(sim::clock_mode::real_clock);
  sim::set_noise(8);
  sim::set_touches({{10.0f, 5.0f, 0.2f, 0.1f, 800.0f}});
  open_and_start();

  const kvr_hw_cap *cap = kvr_afe_get_hw_cap();
  ASSERT_NE(cap, nullptr);
  ASSERT_GT(cap->freq_count, 0);
  ASSERT_NE(cap->freq_list, nullptr);
  const std::vector<uint16_t> freqs(cap->freq_list, cap->freq_list + cap->freq_count);
  const uint8_t freq_count = cap->freq_count;

  std::atomic<bool> stop{false};
  frame_counts counts;
  problems seen;
  std::atomic<uint64_t> standby_periods{0};

  std::thread frames(frame_thread, std::cref(stop), std::cref(freqs), std::ref(counts),
                     std::ref(seen));
  std::thread control(control_thread, steady::now() + kSoakDuration, freq_count, std::ref(seen),
                      std::ref(standby_periods));
  control.join();
  stop.store(true);
  frames.join();

  EXPECT_EQ(kvr_afe_stop(), 0u);
  EXPECT_EQ(kvr_afe_close(), 0u);
  EXPECT_EQ(gu32AFEStatus.load(), static_cast<uint32_t>(KVR_STATE_CLOSED));

  for (const std::string &p : seen.list) {
    ADD_FAILURE() << p;
  }
  // About 120 frames a second for ten seconds, minus the time off screen.
  EXPECT_GT(counts.in_working.load(), 200u);
  EXPECT_GE(standby_periods.load(), 2u);
  // The idle requests reached the chip: some frames were idle scans.
  EXPECT_GT(counts.idle.load(), 0u);
  // The frequency and rate requests reached the chip: frames came at every
  // frequency of the capability list and at both rates.
  EXPECT_EQ(counts.freqs_seen.load(), (1u << freq_count) - 1);
  EXPECT_EQ(counts.rates_seen.load(), 3u);
  RecordProperty("frames_in_working", std::to_string(counts.in_working.load()));
  RecordProperty("no_frame", std::to_string(counts.none.load()));
  RecordProperty("sos_frames", std::to_string(counts.sos.load()));
}

} // namespace
