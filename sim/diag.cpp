// The chip's diagnostic side: the host-data blocks of the sync frame and the
// compensation values, factory mode and scan lock, the ITO measurement, the
// low-power timer calibration and the autotunes, and the faults a factory
// line meets (bad electrodes, noisy nodes, drifting compensation, silent
// firmware, stuck memory bits, failing transfers).
#include <algorithm>
#include <array>
#include <initializer_list>

#include "sim/state.h"

namespace sim::detail {

diag_data g_diag;

namespace {

// The sync frame puts this many filler bytes before its mutual data.
constexpr uint8_t kSyncOffset = 8;
constexpr uint8_t kFiller = 0xEE;

constexpr uint8_t kSyncFrame = 0x30;
constexpr uint8_t kMsCx = 0x10;
constexpr uint8_t kMsLpCx = 0x11;
constexpr uint8_t kSsCx = 0x12;
constexpr uint8_t kSsDetectCx = 0x13;
constexpr uint8_t kMsTotal = 0x50;
constexpr uint8_t kMsLpTotal = 0x51;
constexpr uint8_t kSsTotal = 0x52;
constexpr uint8_t kSsDetectTotal = 0x53;

// Weights of the scalar part of a total.
constexpr int kCx1Weight = 8;
constexpr int kIx1Weight = 2;

// ITO readings.
constexpr int kItoBase = 2860;
constexpr int kItoSpread = 61;
constexpr int kItoOpen = 300;
constexpr int kItoShort = 5000;

constexpr uint32_t kAutoRelease = 0x20000126;

uint8_t force_len() {
  return g_ic.cfg[wire::kCfgChannels + 1];
}

uint8_t sense_len() {
  return g_ic.cfg[wire::kCfgChannels];
}

// The scalars of each data set: mutual CX1 normal and low power; self IX1
// and CX1 of force and sense, active and detect.
struct self_scalars {
  uint8_t ix1_force, ix1_sense, cx1_force, cx1_sense;
};
constexpr uint8_t kMsCx1 = 12;
constexpr uint8_t kMsLpCx1 = 10;
constexpr self_scalars kSsActive{30, 25, 4, 3};
constexpr self_scalars kSsDetect{28, 22, 5, 2};

int drift_of(comp_set set, uint32_t index) {
  int sum = 0;
  for (const auto &d : g_diag.drift_applied) {
    if (d.set == set && d.index == index) {
      sum += d.amount;
    }
  }
  return sum;
}

int ms_total(bool low_power, uint32_t f, uint32_t s) {
  const uint32_t node = f * sense_len() + s;
  if (low_power) {
    return kMsLpCx1 * kCx1Weight + 15 + static_cast<int>((f * 3 + s * 7) % 40) +
           g_diag.mutual_tune + drift_of(comp_set::ms_lp_total, node);
  }
  return kMsCx1 * kCx1Weight + 20 + static_cast<int>((f * 5 + s * 3) % 40) + g_diag.mutual_tune;
}

// Self IX total of a force (force_side) or sense channel.
int ss_ix_total(bool detect, bool force_side, uint32_t i) {
  const self_scalars &k = detect ? kSsDetect : kSsActive;
  const int ix1 = force_side ? k.ix1_force : k.ix1_sense;
  const comp_set set = detect ? (force_side ? comp_set::ss_detect_force : comp_set::ss_detect_sense)
                              : (force_side ? comp_set::ss_force : comp_set::ss_sense);
  const int ix2 = 40 + static_cast<int>((i * 11 + (force_side ? 0 : 5)) % 50);
  return ix1 * kIx1Weight + ix2 + g_diag.self_tune + drift_of(set, i);
}

int ss_cx_total(bool detect, bool force_side, uint32_t i) {
  const self_scalars &k = detect ? kSsDetect : kSsActive;
  const int cx1 = force_side ? k.cx1_force : k.cx1_sense;
  return cx1 * kCx1Weight + static_cast<int>((i * 7 + (force_side ? 3 : 0)) % 21) - 10;
}

void put_header(uint8_t type, uint16_t counter, const std::array<uint8_t, 12> &fields) {
  std::array<uint8_t, wire::kHostDataHeaderSize> h{};
  h[0] = wire::kHostDataSignature;
  h[1] = type;
  put_le16(&h[2], counter);
  std::copy(fields.begin(), fields.end(), h.begin() + 4);
  mem_store(wire::kHostDataArea, h.data(), h.size());
}

void put_data(const std::vector<uint8_t> &data) {
  mem_store(wire::kHostDataArea + wire::kHostDataHeaderSize, data.data(), data.size());
}

void append_le16(std::vector<uint8_t> &out, int value) {
  out.push_back(static_cast<uint8_t>(value));
  out.push_back(static_cast<uint8_t>(value >> 8));
}

uint8_t clamp_u8(int v) {
  return static_cast<uint8_t>(std::clamp(v, 0, 255));
}

uint8_t clamp_s8(int v) {
  return static_cast<uint8_t>(static_cast<int8_t>(std::clamp(v, -128, 127)));
}

void write_sync_frame(uint16_t counter) {
  const uint8_t f = force_len();
  const uint8_t s = sense_len();
  std::vector<int16_t> mutual, self_force, self_sense;
  panel_scan(f, s, mutual, self_force, self_sense);
  std::vector<uint8_t> data(kSyncOffset, kFiller);
  for (int16_t v : mutual) {
    append_le16(data, v);
  }
  for (int16_t v : self_force) {
    append_le16(data, v);
  }
  for (int16_t v : self_sense) {
    append_le16(data, v);
  }
  put_header(kSyncFrame, counter, {kSyncOffset, f, s, f, s});
  put_data(data);
}

void write_ms_block(uint8_t type, uint16_t counter) {
  const bool low_power = type == kMsLpCx || type == kMsLpTotal;
  const bool total = type == kMsTotal || type == kMsLpTotal;
  const uint8_t cx1 = low_power ? kMsLpCx1 : kMsCx1;
  const uint8_t f = force_len();
  const uint8_t s = sense_len();
  std::vector<uint8_t> data;
  for (uint32_t i = 0; i < f; ++i) {
    for (uint32_t j = 0; j < s; ++j) {
      const int t = ms_total(low_power, i, j);
      if (total) {
        append_le16(data, t);
      } else {
        data.push_back(clamp_u8(t - cx1 * kCx1Weight));
      }
    }
  }
  put_header(type, counter, {f, s, cx1});
  put_data(data);
}

void write_ss_block(uint8_t type, uint16_t counter) {
  const bool detect = type == kSsDetectCx || type == kSsDetectTotal;
  const bool total = type == kSsTotal || type == kSsDetectTotal;
  const self_scalars &k = detect ? kSsDetect : kSsActive;
  const uint8_t lens[2] = {force_len(), sense_len()};
  std::vector<uint8_t> data;
  for (int half = 0; half < 2; ++half) { // IX, then CX
    for (int side = 0; side < 2; ++side) {
      const bool force_side = side == 0;
      const int scalar = half == 0 ? (force_side ? k.ix1_force : k.ix1_sense) * kIx1Weight
                                   : (force_side ? k.cx1_force : k.cx1_sense) * kCx1Weight;
      for (uint32_t i = 0; i < lens[side]; ++i) {
        const int t =
            half == 0 ? ss_ix_total(detect, force_side, i) : ss_cx_total(detect, force_side, i);
        if (total) {
          append_le16(data, t);
        } else {
          data.push_back(half == 0 ? clamp_u8(t - scalar) : clamp_s8(t - scalar));
        }
      }
    }
  }
  put_header(type, counter, {lens[0], lens[1], k.ix1_force, k.ix1_sense, k.cx1_force, k.cx1_sense});
  put_data(data);
}

bool ito_node_defect(uint32_t f, uint32_t s, int &value) {
  for (const auto &d : g_diag.ito) {
    if ((d.side == electrode::force && d.channel == f) ||
        (d.side == electrode::sense && d.channel == s)) {
      value = d.shorted ? kItoShort : kItoOpen;
      return true;
    }
  }
  return false;
}

void measure_ito() {
  const uint8_t f = force_len();
  const uint8_t s = sense_len();
  std::vector<uint8_t> data;
  for (uint32_t i = 0; i < f; ++i) {
    for (uint32_t j = 0; j < s; ++j) {
      int v = kItoBase + static_cast<int>((i * 7 + j * 3) % kItoSpread);
      ito_node_defect(i, j, v);
      append_le16(data, v);
    }
  }
  mem_store(wire::kHostDataArea | g_ic.id.ms_raw_addr, data.data(), data.size());
}

void autotune(bool mutual) {
  if (mutual) {
    g_diag.mutual_tune += g_diag.autotune_step;
  } else {
    g_diag.self_tune += g_diag.autotune_step;
  }
  auto &pending = g_diag.drift_pending;
  for (auto it = pending.begin(); it != pending.end();) {
    if ((it->set == comp_set::ms_lp_total) == mutual) {
      g_diag.drift_applied.push_back(*it);
      it = pending.erase(it);
    } else {
      ++it;
    }
  }
}

bool is(const std::vector<uint8_t> &cmd, std::initializer_list<uint8_t> bytes) {
  return cmd.size() >= bytes.size() && std::equal(bytes.begin(), bytes.end(), cmd.begin());
}

} // namespace

void diag_reset_state() {
  g_diag = diag_data{};
}

void diag_on_system_reset() {
  g_diag.factory_mode = false;
  g_diag.scan_locked = false;
  g_diag.answers_left = -1;
  const uint8_t zero = 0;
  mem_store(kAutoRelease, &zero, 1);
}

bool diag_command(const std::vector<uint8_t> &cmd) {
  if (is(cmd, {0xC0, 0x01, 0x02})) {
    g_diag.factory_mode = true;
  } else if (is(cmd, {0xA4, 0x04, 0xFF, 0x01})) {
    measure_ito();
  } else if (is(cmd, {0xA4, 0x08, 0x01, 0x00})) {
    g_diag.lp_timer_calibrated = true;
  } else if (is(cmd, {0xA4, 0x03, 0x03, 0x00})) {
    autotune(true);
  } else if (is(cmd, {0xA4, 0x03, 0x0C, 0x00})) {
    autotune(false);
  } else {
    if (is(cmd, {0xA0, 0x03, 0x00}) && g_diag.factory_mode) {
      g_diag.scan_locked = true;
    }
    return false;
  }
  return true;
}

bool diag_firmware_answers(const std::vector<uint8_t> &cmd) {
  const auto &key = g_diag.dies_on;
  if (g_diag.dies_times > 0 && g_diag.answers_left != 0 && cmd.size() >= key.size() &&
      std::equal(key.begin(), key.end(), cmd.begin())) {
    --g_diag.dies_times;
    g_diag.answers_left = 0;
  }
  if (g_diag.answers_left == 0) {
    return false;
  }
  if (g_diag.answers_left > 0) {
    --g_diag.answers_left;
  }
  return true;
}

bool diag_block_loads(uint8_t type) {
  return g_diag.silent_blocks.count(type) == 0;
}

bool diag_write_block(uint8_t type, uint16_t counter) {
  switch (type) {
  case kSyncFrame:
    write_sync_frame(counter);
    return true;
  case kMsCx:
  case kMsLpCx:
  case kMsTotal:
  case kMsLpTotal:
    write_ms_block(type, counter);
    return true;
  case kSsCx:
  case kSsDetectCx:
  case kSsTotal:
  case kSsDetectTotal:
    write_ss_block(type, counter);
    return true;
  default:
    return false;
  }
}

void diag_swing_noisy_node(uint8_t force, uint8_t sense, std::vector<int16_t> &mutual) {
  if (!g_diag.noisy || g_diag.noisy_force >= force || g_diag.noisy_sense >= sense) {
    return;
  }
  const size_t node = size_t{g_diag.noisy_force} * sense + g_diag.noisy_sense;
  const int swing = g_diag.noisy_up ? g_diag.noisy_swing : -g_diag.noisy_swing;
  g_diag.noisy_up = !g_diag.noisy_up;
  mutual[node] = static_cast<int16_t>(std::clamp(mutual[node] + swing, -32768, 32767));
}

void diag_read_overlay(uint32_t address, uint8_t *out, size_t count) {
  for (const auto &c : g_diag.stuck) {
    const uint32_t at = c.address - address;
    if (at < count) {
      out[at] = c.high ? (out[at] | c.mask) : (out[at] & ~c.mask);
    }
  }
}

int diag_transfer_error(const std::vector<uint8_t> &tx) {
  if (tx.empty() || (tx[0] != wire::kMemWrite && tx[0] != wire::kMemRead)) {
    return 0;
  }
  const transfer_dir dir = tx[0] == wire::kMemWrite ? transfer_dir::write : transfer_dir::read;
  const size_t data_at = dir == transfer_dir::write ? 5 : 6;
  if (tx.size() <= data_at) {
    return 0;
  }
  const uint32_t start = be32(&tx[1]);
  auto &faults = g_diag.transfer_faults;
  for (auto it = faults.begin(); it != faults.end(); ++it) {
    if (it->dir == dir && it->address - start < tx.size() - data_at) {
      if (it->skip > 0) {
        --it->skip;
        continue;
      }
      const int err = it->err;
      faults.erase(it);
      return err;
    }
  }
  return 0;
}

bool diag_auto_release_off() {
  uint8_t b = 0;
  mem_load(kAutoRelease, &b, 1);
  return b == 0x01;
}

} // namespace sim::detail

namespace sim {

using namespace detail;

void set_autotune_step(int16_t step) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_diag.autotune_step = step;
}

void ito_open(electrode side, uint8_t channel) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_diag.ito.push_back({side, channel, false});
}

void ito_short(electrode side, uint8_t channel) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_diag.ito.push_back({side, channel, true});
}

void noisy_node(uint8_t force, uint8_t sense, uint16_t swing) {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  g_diag.noisy = true;
  g_diag.noisy_force = force;
  g_diag.noisy_sense = sense;
  g_diag.noisy_swing = swing;
}

void drift_after_autotune(comp_set set, uint16_t index, int16_t amount) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_diag.drift_pending.push_back({set, index, amount});
}

void block_never_loads(uint8_t type) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_diag.silent_blocks.insert(type);
}

void firmware_stops_after(int commands) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_diag.answers_left = commands < 0 ? 0 : commands;
}

void firmware_dies_on(const std::vector<uint8_t> &command, int times) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_diag.dies_on = command;
  g_diag.dies_times = times;
}

void stuck_bit(uint32_t address, uint8_t mask, bool high) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_diag.stuck.push_back({address, mask, high});
}

void transfer_error_at(uint32_t address, transfer_dir dir, int err, int nth) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_diag.transfer_faults.push_back({address, dir, err, nth > 1 ? nth - 1 : 0});
}

} // namespace sim
