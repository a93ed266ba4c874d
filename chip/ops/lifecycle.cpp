#include "chip/ops/lifecycle.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "chip/chip.h"
#include "chip/ops/frame_parse.h"
#include "chip/transport/fw_cmd.h"
#include "chip/transport/host_data.h"
#include "chip/transport/reg_access.h"
#include "platform/ioctrl.h"
#include "platform/log.h"

std::atomic<uint8_t> m_need_update_param{0};
std::atomic<uint32_t> etimeout_cnt{0};
std::atomic<uint32_t> wakeup_gesture_flag{0};

kvr_hw_cap hw_cap{};

namespace {

constexpr const char *kVendorPrefix = "VendorQ742";
constexpr const char *kVendorVersion = "1.7.18";
constexpr uint16_t kVersionTail = 0x21;
constexpr size_t kIdentityBufSize = 32;

// Configuration-space addresses.
constexpr uint32_t kCfgChannels = 0x0030;    // byte 0 sense, byte 1 force
constexpr uint32_t kCfgMsTCycle = 0x00EC;    // u16 LE
constexpr uint32_t kCfgFreqCount = 0x0219;   // low two bits: count - 1
constexpr uint32_t kCfgFreqOffsets = 0x021A; // one byte per frequency
constexpr uint32_t kScanClockHz = 32000000;

constexpr int kStartFlushTries = 5;
// The configuration encodes at most four scan frequencies.
constexpr int32_t kMaxScanFreq = MAX_SCAN_FREQ;

char project_id[PROJECT_ID_LEN + 1] = "Q7429K0400";
char vendor_name[kIdentityBufSize];
char version_text[kIdentityBufSize];

uint16_t scan_freq_list[kMaxScanFreq];
uint16_t scan_rate_list[SCAN_RATE_COUNT] = {120, 180};

// The frame thread's copy of the lists and the calibration switch.
std::atomic<uint8_t> published_freq_count{0};
std::atomic<uint16_t> published_freqs[kMaxScanFreq];
std::atomic<uint8_t> published_rate_count{0};
std::atomic<uint16_t> published_rates[SCAN_RATE_COUNT];
std::atomic<uint32_t> published_calibration_enable{0};

int32_t published_entry(const std::atomic<uint16_t> *list, uint8_t count, uint32_t index) {
  return index < count ? list[index].load(std::memory_order_relaxed) : -1;
}

void set_project(const char *project) {
  // At most ten characters are kept; a longer project name is cut.
  memset(project_id, 0, sizeof project_id);
  memcpy(project_id, project, strnlen(project, PROJECT_ID_LEN));
}

} // namespace

uint32_t vendor_open_project(const char *project) {
  set_project(project != nullptr ? project : DEFAULT_PROJECT);
  NLOG(LOG_LEVEL_INFO, "vendor_open_project", "Open Project = %s", project_id);
  return 0;
}

uint32_t vendor_afe_close() {
  return 0;
}

uint32_t vendor_afe_start() {
  ioctrl_set_timeout(KVR_TIMEOUT_SCANNING_MS);
  NLOG(LOG_LEVEL_INFO, "vendor_afe_start", "Start or restart AFE");
  init_work_parm();
  // Stale events would be taken for answers to the commands below. A FIFO
  // that will not flush does not stop the start.
  for (int i = 0; i < kStartFlushTries; ++i) {
    if (clear_fifo() == 0) {
      break;
    }
  }
  set_etimeout_cnt(0);
  if (zeno_sense_on() != 0) {
    log_error("vendor_afe_start", "Error writing sense-on command!!");
    return 3;
  }
  work_parm[WP_AUTO_SHIFT_DISABLED].store(0);
  return 0;
}

uint32_t vendor_afe_stop() {
  if (zeno_sense_off() != 0) {
    log_error("vendor_afe_stop", "Error writing sense off command!!");
    return 3;
  }
  return 0;
}

uint32_t vendor_afe_screen_on() {
  return vendor_afe_start() == 0 ? 0 : 4;
}

uint32_t vendor_afe_screen_off() {
  if (wakeup_gesture_flag.load() != 0) {
    // The panel keeps scanning so that a gesture can wake the phone.
    return 0;
  }
  return vendor_afe_stop() == 0 ? 0 : 4;
}

uint32_t vendor_afe_enable_wakeup_gesture(uint32_t gesture) {
  wakeup_gesture_flag.store(gesture);
  return 0;
}

uint32_t vendor_afe_disable_wakeup_gesture() {
  wakeup_gesture_flag.store(0);
  return 0;
}

const char *vendor_get_ic_name() {
  return project_id;
}

const char *vendor_get_ic_vendor_name() {
  snprintf(vendor_name, sizeof vendor_name, "%s%s", kVendorPrefix, project_id);
  return vendor_name;
}

const char *vendor_get_version() {
  const uint16_t cx_cfg = info.cx_cfg_ver == 0xFFFF ? 0 : info.cx_cfg_ver;
  snprintf(version_text, sizeof version_text, "%s %04X %04X %04X %04X", kVendorVersion, info.fw_ver,
           info.cfg_ver, cx_cfg, kVersionTail);
  return version_text;
}

void publish_hw_cap(const kvr_hw_cap &cap) {
  // A record without a list (its read failed) publishes an empty one.
  const uint8_t freq_count =
      cap.freq_list == nullptr ? 0 : std::min<uint8_t>(cap.freq_count, kMaxScanFreq);
  const uint8_t rate_count =
      cap.rate_list == nullptr ? 0 : std::min<uint8_t>(cap.rate_count, SCAN_RATE_COUNT);
  for (int i = 0; i < kMaxScanFreq; ++i) {
    published_freqs[i].store(i < freq_count ? cap.freq_list[i] : 0, std::memory_order_relaxed);
  }
  for (int i = 0; i < SCAN_RATE_COUNT; ++i) {
    published_rates[i].store(i < rate_count ? cap.rate_list[i] : 0, std::memory_order_relaxed);
  }
  published_freq_count.store(freq_count, std::memory_order_release);
  published_rate_count.store(rate_count, std::memory_order_release);
  published_calibration_enable.store(cap.calibration_enable, std::memory_order_relaxed);
}

uint16_t *get_available_scan_freq(int32_t count) {
  constexpr const char *tag = "get_available_scan_freq";
  if (count < 0 || count > kMaxScanFreq) {
    log_error(tag, "Number of scan freq %d out of range", static_cast<int>(count));
    return nullptr;
  }
  std::array<uint8_t, 2> t_cycle_bytes{};
  if (fw_cfg_read_at(kCfgMsTCycle, t_cycle_bytes.data(), t_cycle_bytes.size()) != 0) {
    log_error(tag, "Error reading MS screen T cycle");
    return nullptr;
  }
  const uint32_t t_cycle = t_cycle_bytes[0] | (t_cycle_bytes[1] << 8);
  // Built aside so that a failed read leaves the published list intact.
  std::array<uint16_t, kMaxScanFreq> freqs{};
  for (int32_t i = 0; i < count; ++i) {
    uint8_t offset = 0;
    if (fw_cfg_read_at(kCfgFreqOffsets + static_cast<uint32_t>(i), &offset, 1) != 0) {
      log_error(tag, "Error reading the available scan freq");
      return nullptr;
    }
    const uint32_t divisor = 2 * (t_cycle + offset);
    freqs[static_cast<size_t>(i)] =
        divisor == 0 ? 0 : static_cast<uint16_t>((kScanClockHz / divisor) / 1000);
  }
  std::copy(freqs.begin(), freqs.end(), scan_freq_list);
  return scan_freq_list;
}

kvr_hw_cap *vendor_update_hw_cap() {
  constexpr const char *tag = "vendor_update_hw_cap";
  std::array<uint8_t, 2> channels{};
  if (fw_cfg_read_at(kCfgChannels, channels.data(), channels.size()) != 0) {
    log_error(tag, "Error reading the config data");
    return nullptr;
  }
  const uint8_t force = channels[1];
  const uint8_t sense = channels[0];
  NLOG(LOG_LEVEL_INFO, tag,
       "Force length: %02X, sense Length: %02X, swap: %d, force reverse: %d, sense reverse: %d",
       force, sense, is_frame_swap(), is_frame_force_reverse(), is_frame_sense_reverse());
  uint8_t freq_byte = 0;
  if (fw_cfg_read_at(kCfgFreqCount, &freq_byte, 1) != 0) {
    log_error(tag, "Error reading the config data");
    return nullptr;
  }
  const uint8_t freq_count = static_cast<uint8_t>((freq_byte & 3) + 1);
  NLOG(LOG_LEVEL_INFO, tag, "Number of scan freq %d", freq_count);
  // A list that cannot be read leaves the record without one; the look-ups
  // then see no frequencies at all.
  uint16_t *freqs = get_available_scan_freq(freq_count);
  constexpr uint8_t rate_count = sizeof scan_rate_list / sizeof scan_rate_list[0];
  NLOG(LOG_LEVEL_INFO, tag, "Number of scan rate %d", rate_count);
  NLOG(LOG_LEVEL_INFO, tag, "DP742 settings");

  hw_cap.force_len = force;
  hw_cap.sense_len = sense;
  hw_cap.reserved1 = 0;
  hw_cap.channel_const = 34;
  hw_cap.value_4200 = 4200;
  hw_cap.freq_count = freq_count;
  hw_cap.freq_list = freqs;
  hw_cap.rate_count = rate_count;
  hw_cap.rate_list = scan_rate_list;
  hw_cap.word0 = 0;
  hw_cap.word1 = 2;
  hw_cap.calibration_enable = 0;
  hw_cap.word3 = 0;
  hw_cap.word4 = 2;
  hw_cap.word5 = 1;
  hw_cap.qword1 = 0;
  publish_hw_cap(hw_cap);
  return &hw_cap;
}

uint8_t get_scan_freq_index(uint16_t freq) {
  for (uint8_t i = 0; i < cap_freq_count(); ++i) {
    if (cap_freq(i) == freq) {
      return i;
    }
  }
  return 0;
}

uint8_t get_scan_rate_index(uint8_t rate) {
  for (uint8_t i = 0; i < cap_rate_count(); ++i) {
    if (cap_rate(i) == rate) {
      return i;
    }
  }
  return 0;
}

uint8_t cap_freq_count() {
  return published_freq_count.load(std::memory_order_acquire);
}
uint8_t cap_rate_count() {
  return published_rate_count.load(std::memory_order_acquire);
}
int32_t cap_freq(uint32_t index) {
  return published_entry(published_freqs, cap_freq_count(), index);
}
int32_t cap_rate(uint32_t index) {
  return published_entry(published_rates, cap_rate_count(), index);
}

bool is_enable_rate_switch() {
  return true;
}
bool is_enable_freq_switch() {
  return true;
}
bool is_enable_idle_mode() {
  return true;
}
bool is_enable_calibration() {
  return published_calibration_enable.load(std::memory_order_relaxed) != 0;
}
bool is_enable_autotune() {
  return false;
}
bool is_frame_swap() {
  return true;
}
bool is_frame_force_reverse() {
  return true;
}
bool is_frame_sense_reverse() {
  return true;
}

void set_etimeout_cnt(uint32_t count) {
  etimeout_cnt.store(count);
}
void increment_etimeout_cnt() {
  etimeout_cnt.fetch_add(1);
}

void lifecycle_reset_state() {
  for (auto &b : work_parm) {
    b.store(0);
  }
  reset_work_parm_request();
  m_need_update_param.store(0);
  etimeout_cnt.store(0);
  wakeup_gesture_flag.store(0);
  set_project(DEFAULT_PROJECT);
  memset(vendor_name, 0, sizeof vendor_name);
  memset(version_text, 0, sizeof version_text);
  memset(scan_freq_list, 0, sizeof scan_freq_list);
  hw_cap = kvr_hw_cap{};
  publish_hw_cap(hw_cap);
}

void vendor_reset_state() {
  transport_reset_state();
  lifecycle_reset_state();
  frame_parse_reset_state();
  idle_calib_reset_state();
  inspect_reset_state();
}
