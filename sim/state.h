// Internal state of the simulator: the driver, the chip, the panel, the
// flash and the recordings, all guarded by one mutex. Functions declared
// here expect the caller to hold g_mutex unless they say otherwise.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "sim/sim.h"
#include "sim/wire.h"

namespace sim::detail {

using event_bytes = std::array<uint8_t, wire::kEventSize>;
using mem_page = std::array<uint8_t, 4096>;

struct clock_state {
  clock_mode mode = clock_mode::virtual_clock;
  int64_t virtual_us = 0;
  std::chrono::steady_clock::time_point origin{};
  int64_t wall_origin_us = 0; // wall-clock time at now_us() == 0
  int64_t slept_us = 0;
};

struct ioctl_fault {
  unsigned long request;
  int err;
  fault_when when;
  int countdown; // for nth: matching calls left before the failing one
};

// The panel fault a frame carries (the first one the host would notice).
enum class frame_fault : uint8_t { none, bad_tag, bad_counts, bad_counter, bad_crc };

struct queued_frame {
  std::vector<uint8_t> bytes;
  int64_t stamp_us; // sim time of capture
  frame_fault fault = frame_fault::none;
};

struct driver_data {
  std::set<int> fds;
  int next_fd = 3;
  int open_calls = 0;
  bool blocking = true;
  bool irq_enabled = true;
  uint32_t reset_line = 0;
  uint32_t frame_timeout_ms = 0;
  std::deque<queued_frame> frames;
  frame_tally delivered;
  std::vector<ioctl_fault> faults;
  int open_fail_err = 0;
  int open_fail_times = 0;
};

struct pending_event {
  int64_t due_us;
  event_bytes bytes;
};

struct ic_data {
  std::map<uint32_t, mem_page> memory; // sparse system memory, by page number
  std::array<uint8_t, 0x10000> cfg{};
  std::deque<event_bytes> events;
  std::vector<pending_event> pending; // events not yet in the FIFO, in order
  chip_identity id;
  bool running = true; // the core is not held
  bool sensing = false;
  bool idle = false;
  int forced_freq = -1;
  int forced_rate = -1;
  int freq_index = 0;
  int rate_index = 0; // 0: 120 Hz, 1: 180 Hz
  int resets = 0;
  int64_t echo_delay_us = 4000;
  int64_t ready_delay_us = 10000;
  int64_t host_data_delay_us = 3000;
  // Host data waiting to be loaded.
  bool load_pending = false;
  int64_t load_due_us = 0;
  uint8_t load_type = 0;
  uint16_t load_counter = 0;
  // Faults.
  int drop_echoes = 0;               // -1 always
  std::vector<uint8_t> drop_echo_of; // only this command's echo is dropped
  int drop_echo_of_times = 0;
  int error_before_echo = 0; // -1 always
  bool fatal_next = false;
  bool fatal_with_dump = false;
  bool host_data_never_loads = false;
  // Served instead of every host-data block while not empty (bytes 0..3
  // stamped unless served_raw).
  std::vector<uint8_t> served_block;
  bool served_raw = false;
};

struct panel_data {
  std::vector<touch> touches;
  uint16_t noise = 6;
  uint32_t rng = 0x2545F491;
  uint16_t counter = 0;
  uint16_t index = 0;
  uint16_t fw_counter = 0;
  bool scheduled = false;
  int64_t next_frame_us = 0;
  uint32_t produced = 0;
  // Faults: frames left to affect; -1 all.
  int drop = 0;
  int bad_tag = 0;
  int bad_counter = 0;
  int bad_crc = 0;
  int bad_counts = 0;
  uint8_t bad_force = 0;
  uint8_t bad_sense = 0;
  bool stopped = false;
};

// The chip's diagnostic side: factory mode, the compensation values and
// what the autotunes did to them, and the diagnostic faults.
struct ito_defect {
  electrode side;
  uint8_t channel;
  bool shorted; // else open
};

struct cx_drift {
  comp_set set;
  uint16_t index;
  int16_t amount;
};

struct transfer_fault {
  uint32_t address;
  transfer_dir dir;
  int err;
  int skip; // matching transfers that still pass before this one fails
};

struct stuck_cell {
  uint32_t address;
  uint8_t mask;
  bool high;
};

struct diag_data {
  bool factory_mode = false;
  bool scan_locked = false;
  bool lp_timer_calibrated = false;
  int autotune_step = 1;
  int mutual_tune = 0; // sum of the steps of the mutual autotunes so far
  int self_tune = 0;
  std::vector<cx_drift> drift_pending; // applied by the next autotune of their side
  std::vector<cx_drift> drift_applied;
  std::vector<ito_defect> ito;
  bool noisy = false;
  uint8_t noisy_force = 0;
  uint8_t noisy_sense = 0;
  int noisy_swing = 0;
  bool noisy_up = false; // the direction of the next swing
  std::set<uint8_t> silent_blocks;
  int answers_left = -1;        // commands the firmware still answers; -1 no limit
  std::vector<uint8_t> dies_on; // a command (prefix) that stops the firmware
  int dies_times = 0;           // how many more times it does
  std::vector<transfer_fault> transfer_faults;
  std::vector<stuck_cell> stuck;
};

struct flash_data {
  std::vector<uint8_t> contents; // kFlashSize bytes once reset
  std::vector<int> erased;
  std::vector<dma_record> dmas;
  bool programmed = false; // erased or written since the last reset
  int64_t erase_busy_us = 30000;
  int64_t dma_busy_us = 10000;
  int64_t erase_busy_until = 0;
  int64_t dma_busy_until = 0;
  bool erase_stuck = false;
  bool dma_stuck = false;
  bool versions_stick = false;
};

struct recording_data {
  std::deque<ioctl_record> ioctls;
  std::deque<spi_transfer> spi;
  std::vector<std::vector<uint8_t>> fw;
  std::deque<android_line> alog;
};

extern std::mutex g_mutex;
// Signalled whenever a frame reaches the driver or the driver's mode
// changes, so that a real-clock get-frame can stop waiting.
extern std::condition_variable g_frame_cv;
extern clock_state g_clock;
extern driver_data g_driver;
extern ic_data g_ic;
extern panel_data g_panel;
extern flash_data g_flash;
extern diag_data g_diag;
extern recording_data g_rec;

// clock.cpp
int64_t clock_now();
int64_t wall_us(int64_t sim_us);
std::chrono::steady_clock::time_point steady_at(int64_t sim_us);
// Brings the chip and the panel up to the current time: due events, host
// data loads and frames.
void catch_up();

// driver.cpp
// keep_open: descriptors the host holds stay valid.
void driver_reset(bool keep_open);
void driver_queue_frame(std::vector<uint8_t> frame, int64_t stamp_us, frame_fault fault);
int driver_ioctl(std::unique_lock<std::mutex> &lock, int fd, unsigned long request,
                 unsigned long arg);

// ic.cpp
void ic_reset_state();
// One full-duplex transfer: rx holds what the host put in its receive
// buffer and gets the bytes the chip drives; the rest stay as they were.
void ic_transfer(const std::vector<uint8_t> &tx, std::vector<uint8_t> &rx);
void mem_store(uint32_t address, const uint8_t *bytes, size_t count);
void mem_load(uint32_t address, uint8_t *out, size_t count);
void system_reset();
bool frames_flowing();
uint16_t scan_freq_khz(int index);
int scan_freq_count();

// events.cpp
void events_push(const event_bytes &event);
void events_schedule(int64_t due_us, const event_bytes &event);
void events_catch_up(int64_t now);
event_bytes events_pop();
// The head event without taking it (zeros when the FIFO is empty).
event_bytes events_peek();
void events_flush();

// host_data.cpp
void host_data_request(uint8_t type);
void host_data_catch_up(int64_t now);

// panel.cpp
void panel_reset_state();
void panel_start(int64_t now);
void panel_stop();
void panel_catch_up(int64_t now);
// Time of the next frame the panel will scan, or -1 when none is due.
int64_t panel_next_frame_us();

// panel.cpp, for the diagnostic side: one scan of the panel (the same
// signal and noise as its frames) without delivering a frame.
void panel_scan(uint8_t force, uint8_t sense, std::vector<int16_t> &mutual,
                std::vector<int16_t> &self_force, std::vector<int16_t> &self_sense);

// diag.cpp
void diag_reset_state();
void diag_on_system_reset();
// Carries out a diagnostic firmware command; false when cmd is not one.
bool diag_command(const std::vector<uint8_t> &cmd);
// Whether the firmware is still there to answer a command (counts it).
bool diag_firmware_answers(const std::vector<uint8_t> &cmd);
bool diag_block_loads(uint8_t type);
// Writes the block of a diagnostic host-data type; false for other types.
bool diag_write_block(uint8_t type, uint16_t counter);
void diag_swing_noisy_node(uint8_t force, uint8_t sense, std::vector<int16_t> &mutual);
// Stuck bits laid over what a read returns.
void diag_read_overlay(uint32_t address, uint8_t *out, size_t count);
// The error a memory transfer meets at a faulty address, or 0.
int diag_transfer_error(const std::vector<uint8_t> &tx);
bool diag_auto_release_off();

// flash.cpp
void flash_reset_state();
void flash_erase_start(uint8_t value);
void flash_dma_start();
uint8_t flash_erase_status(uint8_t stored);
uint8_t flash_dma_status(uint8_t stored);
void flash_on_system_reset();

// os_table.cpp
void record_ioctl(ioctl_record record);
void record_spi(spi_transfer transfer);

template <typename T> void cap_push(std::deque<T> &list, T item, size_t cap) {
  if (list.size() >= cap) {
    list.pop_front();
  }
  list.push_back(std::move(item));
}

inline uint32_t be32(const uint8_t *p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}
inline uint16_t be16(const uint8_t *p) {
  return static_cast<uint16_t>((p[0] << 8) | p[1]);
}
inline uint16_t le16(const uint8_t *p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
inline void put_le16(uint8_t *p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
inline void put_le32(uint8_t *p, uint32_t v) {
  for (int i = 0; i < 4; ++i) {
    p[i] = static_cast<uint8_t>(v >> (8 * i));
  }
}

} // namespace sim::detail
