// Working point, capability record and feature switches of this chip.
#pragma once

#include <atomic>
#include <cstdint>

#include "afehal/afehal.h"
#include "chip/transport/work_point.h"

constexpr const char *DEFAULT_PROJECT = "Q7429K0400";
constexpr int PROJECT_ID_LEN = 10;

extern std::atomic<uint8_t> m_need_update_param;
// Consecutive frame time-outs while working.
extern std::atomic<uint32_t> etimeout_cnt;
// Non-zero: keep scanning when the screen goes off.
extern std::atomic<uint32_t> wakeup_gesture_flag;

// The capability record handed to the service. Only the control thread
// (kvr_afe_get_hw_cap) touches it.
extern kvr_hw_cap hw_cap;

// What the frame thread needs of the capability record, published by every
// refresh of hw_cap: shift tracking and the queued frequency and rate
// commands read these, never hw_cap itself, so that a refresh on the control
// thread never races with them.
constexpr int MAX_SCAN_FREQ = 4;
constexpr int SCAN_RATE_COUNT = 2;
// Publishes cap's lists and switches to the frame thread (done by every
// refresh of hw_cap; tests use it to set a working point).
void publish_hw_cap(const kvr_hw_cap &cap);
uint8_t cap_freq_count();
uint8_t cap_rate_count();
// The list entry, or -1 when there is no such entry.
int32_t cap_freq(uint32_t index);
int32_t cap_rate(uint32_t index);

// count frequencies in kHz from the configuration space; NULL on failure.
uint16_t *get_available_scan_freq(int32_t count);
uint8_t get_scan_freq_index(uint16_t freq);
uint8_t get_scan_rate_index(uint8_t rate);

bool is_enable_rate_switch();
bool is_frame_swap();
bool is_frame_force_reverse();
bool is_frame_sense_reverse();
