// The table the simulator installs into the library's OS seam, its set-up
// and reset, the heap it counts, and the recordings of what crossed the
// seam.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unordered_set>

#include "platform/os.h"
#include "sim/os_ops.h"
#include "sim/state.h"

namespace sim::detail {

std::mutex g_mutex;
std::condition_variable g_frame_cv;
clock_state g_clock;
driver_data g_driver;
ic_data g_ic;
panel_data g_panel;
flash_data g_flash;
recording_data g_rec;

namespace {

// Long runs (the tool's live view, soak tests) must not grow without bound.
constexpr size_t kMaxIoctlRecords = 1'000'000;
constexpr size_t kMaxSpiRecords = 65'536;
constexpr size_t kMaxLogRecords = 100'000;

// The heap has its own lock: it is hit on every transfer and never needs
// the rest of the state.
std::mutex g_heap_mutex;
std::unordered_set<void *> g_live_blocks;
int g_fail_allocation = 0; // countdown; 0 off
size_t g_allocations = 0;

constexpr afehal_os_ops kSimOps = {
    os_open,          os_close,       os_ioctl,  os_usleep, os_gettimeofday,
    os_clock_gettime, os_android_log, os_malloc, os_free,
};

void reset_all(bool keep_open) {
  driver_reset(keep_open);
  ic_reset_state();
  panel_reset_state();
  flash_reset_state();
  diag_reset_state();
  g_rec = recording_data{};
  g_clock.slept_us = 0;
  {
    std::lock_guard<std::mutex> heap_lock(g_heap_mutex);
    g_fail_allocation = 0;
  }
  g_frame_cv.notify_all();
}

void forget_heap() {
  std::lock_guard<std::mutex> heap_lock(g_heap_mutex);
  g_live_blocks.clear();
  g_fail_allocation = 0;
  g_allocations = 0;
}

} // namespace

void record_ioctl(ioctl_record record) {
  cap_push(g_rec.ioctls, std::move(record), kMaxIoctlRecords);
}

void record_spi(spi_transfer transfer) {
  cap_push(g_rec.spi, std::move(transfer), kMaxSpiRecords);
}

int os_open(const char *path, int /*flags*/) {
  std::lock_guard<std::mutex> lock(g_mutex);
  ++g_driver.open_calls;
  if (path == nullptr || std::strcmp(path, wire::kDeviceNode) != 0) {
    errno = ENOENT;
    return -1;
  }
  if (g_driver.open_fail_times > 0) {
    --g_driver.open_fail_times;
    errno = g_driver.open_fail_err;
    return -1;
  }
  const int fd = g_driver.next_fd++;
  g_driver.fds.insert(fd);
  return fd;
}

int os_close(int fd) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_driver.fds.erase(fd) == 0) {
    errno = EBADF;
    return -1;
  }
  return 0;
}

int os_ioctl(int fd, unsigned long request, unsigned long arg) {
  std::unique_lock<std::mutex> lock(g_mutex);
  return driver_ioctl(lock, fd, request, arg);
}

int os_android_log(int prio, const char *tag, const char *text) {
  std::lock_guard<std::mutex> lock(g_mutex);
  cap_push(g_rec.alog, android_line{prio, tag != nullptr ? tag : "", text != nullptr ? text : ""},
           kMaxLogRecords);
  return 1;
}

void *os_malloc(size_t size) {
  std::lock_guard<std::mutex> heap_lock(g_heap_mutex);
  ++g_allocations;
  if (g_fail_allocation > 0 && --g_fail_allocation == 0) {
    errno = ENOMEM;
    return nullptr;
  }
  void *ptr = std::malloc(size != 0 ? size : 1);
  if (ptr != nullptr) {
    g_live_blocks.insert(ptr);
  }
  return ptr;
}

void os_free(void *ptr) {
  if (ptr == nullptr) {
    return;
  }
  {
    std::lock_guard<std::mutex> heap_lock(g_heap_mutex);
    // A block taken before the simulator was installed is freed without
    // being counted.
    g_live_blocks.erase(ptr);
  }
  std::free(ptr);
}

} // namespace sim::detail

namespace sim {

using namespace detail;

void install(clock_mode mode) {
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    clock_start(mode);
    reset_all(false);
  }
  forget_heap();
  os_install(&kSimOps);
}

void uninstall() {
  os_install(nullptr);
  forget_heap();
}

void reset() {
  std::lock_guard<std::mutex> lock(g_mutex);
  reset_all(true);
}

std::vector<ioctl_record> ioctls() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return {g_rec.ioctls.begin(), g_rec.ioctls.end()};
}

std::vector<ioctl_record> ioctls(unsigned long request) {
  std::lock_guard<std::mutex> lock(g_mutex);
  std::vector<ioctl_record> out;
  for (const auto &r : g_rec.ioctls) {
    if (r.request == request) {
      out.push_back(r);
    }
  }
  return out;
}

std::vector<spi_transfer> spi_transfers() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return {g_rec.spi.begin(), g_rec.spi.end()};
}

std::vector<std::vector<uint8_t>> fw_commands() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_rec.fw;
}

std::vector<android_line> android_log() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return {g_rec.alog.begin(), g_rec.alog.end()};
}

void clear_recording() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_rec = recording_data{};
  g_flash.erased.clear();
  g_flash.dmas.clear();
}

size_t heap_live_blocks() {
  std::lock_guard<std::mutex> heap_lock(g_heap_mutex);
  return g_live_blocks.size();
}

size_t heap_allocations() {
  std::lock_guard<std::mutex> heap_lock(g_heap_mutex);
  return g_allocations;
}

void fail_allocation(int nth) {
  std::lock_guard<std::mutex> heap_lock(g_heap_mutex);
  g_fail_allocation = nth > 0 ? nth : 0;
}

void fail_ioctl(unsigned long request, int err, fault_when when, int n) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_driver.faults.push_back({request, err, when, when == fault_when::nth ? (n > 0 ? n : 1) : 1});
}

void fail_spi_transfer(int nth, int err) {
  fail_ioctl(wire::kSpiSync, err, fault_when::nth, nth);
}

void fail_open(int err, int times) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_driver.open_fail_err = err;
  g_driver.open_fail_times = times > 0 ? times : 0;
}

void clear_faults() {
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_driver.faults.clear();
    g_driver.open_fail_times = 0;
    g_ic.drop_echoes = 0;
    g_ic.drop_echo_of.clear();
    g_ic.drop_echo_of_times = 0;
    g_ic.error_before_echo = 0;
    g_ic.fatal_next = false;
    g_ic.host_data_never_loads = false;
    g_panel.drop = g_panel.bad_tag = g_panel.bad_counter = g_panel.bad_crc = 0;
    g_panel.bad_counts = 0;
    g_panel.stopped = false;
    g_flash.erase_stuck = g_flash.dma_stuck = g_flash.versions_stick = false;
    g_diag.ito.clear();
    g_diag.noisy = false;
    g_diag.drift_pending.clear();
    g_diag.drift_applied.clear();
    g_diag.silent_blocks.clear();
    g_diag.answers_left = -1;
    g_diag.dies_on.clear();
    g_diag.dies_times = 0;
    g_diag.transfer_faults.clear();
    g_diag.stuck.clear();
    const int64_t now = clock_now();
    g_flash.erase_busy_until = std::min(g_flash.erase_busy_until, now);
    g_flash.dma_busy_until = std::min(g_flash.dma_busy_until, now);
  }
  fail_allocation(0);
}

} // namespace sim
