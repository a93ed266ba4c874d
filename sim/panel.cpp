// The panel under the chip: while sensing is on it scans at the current
// rate, builds each frame from a flat baseline, noise and the touches on
// it, and hands the frame to the driver stamped with its scan time.
#include <algorithm>
#include <cmath>

#include "sim/state.h"

namespace sim::detail {

namespace {

constexpr float kTouchSigma = 0.9f;
constexpr float kSelfShare = 0.5f;

uint32_t next_random() {
  uint32_t x = g_panel.rng;
  x ^= x << 13;
  x ^= x >> 17;
  x ^= x << 5;
  g_panel.rng = x;
  return x;
}

float noise() {
  const uint32_t a = g_panel.noise;
  if (a == 0) {
    return 0.0f;
  }
  return static_cast<float>(static_cast<int64_t>(next_random() % (2 * a + 1)) - a);
}

int16_t clamp16(float v) {
  return static_cast<int16_t>(std::clamp(std::lround(v), -32768l, 32767l));
}

float bump(float d) {
  return std::exp(-(d * d) / (2.0f * kTouchSigma * kTouchSigma));
}

void move_touches(uint32_t steps, float sense_max, float force_max) {
  for (auto &t : g_panel.touches) {
    for (uint32_t i = 0; i < steps; ++i) {
      t.x += t.dx;
      t.y += t.dy;
      // Bounce off the panel's edges so that a touch stays on it.
      if (t.x < 0.0f || t.x > sense_max) {
        t.dx = -t.dx;
        t.x = std::clamp(t.x, 0.0f, sense_max);
      }
      if (t.y < 0.0f || t.y > force_max) {
        t.dy = -t.dy;
        t.y = std::clamp(t.y, 0.0f, force_max);
      }
    }
  }
}

// A fault counter: true when this frame is affected.
bool take(int &count) {
  if (count == 0) {
    return false;
  }
  if (count > 0) {
    --count;
  }
  return true;
}

int64_t period_us() {
  uint32_t hz = g_ic.rate_index == 1 ? 180 : 120;
  if (g_ic.idle) {
    hz = wire::kIdleRateHz;
  }
  return 1'000'000 / hz;
}

} // namespace

void panel_scan(uint8_t force, uint8_t sense, std::vector<int16_t> &mutual,
                std::vector<int16_t> &self_force, std::vector<int16_t> &self_sense) {
  mutual.assign(size_t{force} * sense, 0);
  self_force.assign(force, 0);
  self_sense.assign(sense, 0);
  for (size_t f = 0; f < force; ++f) {
    for (size_t s = 0; s < sense; ++s) {
      float v = noise();
      for (const auto &t : g_panel.touches) {
        v += t.strength * bump(static_cast<float>(s) - t.x) * bump(static_cast<float>(f) - t.y);
      }
      mutual[f * sense + s] = clamp16(v);
    }
  }
  for (size_t f = 0; f < force; ++f) {
    float v = noise();
    for (const auto &t : g_panel.touches) {
      v += kSelfShare * t.strength * bump(static_cast<float>(f) - t.y);
    }
    self_force[f] = clamp16(v);
  }
  for (size_t s = 0; s < sense; ++s) {
    float v = noise();
    for (const auto &t : g_panel.touches) {
      v += kSelfShare * t.strength * bump(static_cast<float>(s) - t.x);
    }
    self_sense[s] = clamp16(v);
  }
  diag_swing_noisy_node(force, sense, mutual);
}

namespace {

void produce_frame(int64_t stamp_us) {
  const uint8_t sense = g_ic.cfg[wire::kCfgChannels];
  const uint8_t force = g_ic.cfg[wire::kCfgChannels + 1];
  ++g_panel.counter;
  ++g_panel.index;
  ++g_panel.fw_counter;
  move_touches(1, static_cast<float>(sense > 0 ? sense - 1 : 0),
               static_cast<float>(force > 0 ? force - 1 : 0));
  if (take(g_panel.drop)) {
    return; // scanned, counted, never delivered
  }

  frame_fields fields;
  fields.counter = g_panel.counter;
  fields.index = g_panel.index;
  fields.fw_counter = g_panel.fw_counter;
  fields.scan_mode = g_ic.idle ? wire::kScanModeIdle : wire::kScanModeActive;
  fields.rate_code = g_ic.rate_index == 1 ? wire::kRateCode180 : wire::kRateCode120;
  fields.freq_khz = scan_freq_khz(g_ic.freq_index);
  fields.force = force;
  fields.sense = sense;
  fields.noise_level = static_cast<uint8_t>(std::min<uint32_t>(g_panel.noise, 255));
  const auto sd = static_cast<uint16_t>(std::lround(g_panel.noise / std::sqrt(3.0f)));
  std::fill(std::begin(fields.stddev), std::end(fields.stddev), sd);

  panel_scan(force, sense, fields.mutual, fields.self_force, fields.self_sense);
  frame_fault fault = frame_fault::none;
  if (take(g_panel.bad_counts)) {
    fields.force = g_panel.bad_force;
    fields.sense = g_panel.bad_sense;
    fault = frame_fault::bad_counts;
  }

  std::vector<uint8_t> frame = build_frame(fields);
  if (take(g_panel.bad_tag)) {
    frame[1] = 0x3B;
    fault = frame_fault::bad_tag;
  }
  if (take(g_panel.bad_counter)) {
    put_le16(&frame[frame.size() - 2], static_cast<uint16_t>(fields.counter + 1));
    fault = fault == frame_fault::none ? frame_fault::bad_counter : fault;
  }
  if (take(g_panel.bad_crc)) {
    frame[4] ^= 0x01;
    fault = fault == frame_fault::none ? frame_fault::bad_crc : fault;
  }
  ++g_panel.produced;
  driver_queue_frame(std::move(frame), stamp_us, fault);
}

} // namespace

void panel_reset_state() {
  g_panel = panel_data{};
}

void panel_start(int64_t now) {
  const int64_t next = now + period_us();
  g_panel.next_frame_us = g_panel.scheduled ? std::min(g_panel.next_frame_us, next) : next;
  g_panel.scheduled = true;
}

void panel_stop() {
  g_panel.scheduled = false;
}

int64_t panel_next_frame_us() {
  return g_panel.scheduled && frames_flowing() ? g_panel.next_frame_us : -1;
}

void panel_catch_up(int64_t now) {
  if (!g_panel.scheduled || !g_ic.running || !g_ic.sensing || g_panel.next_frame_us > now) {
    return;
  }
  const int64_t period = period_us();
  const int64_t due = (now - g_panel.next_frame_us) / period + 1;
  if (g_panel.stopped) {
    g_panel.next_frame_us += due * period;
    return;
  }
  // After a long pause only the newest frames can still be in the driver;
  // the older ones are counted as scanned and skipped.
  const int64_t keep = static_cast<int64_t>(wire::kFrameFifoDepth) + 2;
  if (due > keep) {
    const int64_t skip = due - keep;
    g_panel.counter = static_cast<uint16_t>(g_panel.counter + skip);
    g_panel.index = static_cast<uint16_t>(g_panel.index + skip);
    g_panel.fw_counter = static_cast<uint16_t>(g_panel.fw_counter + skip);
    const float sense = g_ic.cfg[wire::kCfgChannels];
    const float force = g_ic.cfg[wire::kCfgChannels + 1];
    move_touches(static_cast<uint32_t>(std::min<int64_t>(skip, 1'000'000)),
                 std::max(sense - 1, 0.0f), std::max(force - 1, 0.0f));
    g_panel.next_frame_us += skip * period;
  }
  while (g_panel.next_frame_us <= now) {
    produce_frame(g_panel.next_frame_us);
    g_panel.next_frame_us += period;
  }
}

} // namespace sim::detail

namespace sim {

using namespace detail;

void set_touches(const std::vector<touch> &touches) {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  g_panel.touches = touches;
}

void set_noise(uint16_t amplitude) {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  g_panel.noise = amplitude;
}

frame_tally frames_delivered() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_driver.delivered;
}

uint32_t frames_produced() {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  return g_panel.produced;
}

void drop_frames(int count) {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  g_panel.drop = count;
}

void corrupt_tag(int count) {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  g_panel.bad_tag = count;
}

void corrupt_counter(int count) {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  g_panel.bad_counter = count;
}

void corrupt_crc(int count) {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  g_panel.bad_crc = count;
}

void bad_channel_counts(uint8_t force, uint8_t sense, int count) {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  g_panel.bad_force = force;
  g_panel.bad_sense = sense;
  g_panel.bad_counts = count;
}

void stop_frames(bool stopped) {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  g_panel.stopped = stopped;
  g_frame_cv.notify_all();
}

} // namespace sim
