// Simulated time. The virtual clock moves only when someone sleeps, waits
// for a frame or advances it, so a run is deterministic and a 3-second poll
// costs nothing. The real clock follows the host's monotonic clock, for
// thread tests and the live view.
#include <thread>

#include "sim/os_ops.h"
#include "sim/state.h"

namespace sim::detail {

namespace {

// Fixed epoch of the virtual wall clock and of its monotonic clock, so that
// logged times are the same on every run.
constexpr int64_t kVirtualWallOriginUs = 1'700'000'000'000'000;
constexpr int64_t kVirtualMonotonicOriginUs = 1'000'000'000;

int64_t real_wall_now_us() {
  struct timeval tv {};
  ::gettimeofday(&tv, nullptr);
  return int64_t{tv.tv_sec} * 1'000'000 + tv.tv_usec;
}

} // namespace

int64_t clock_now() {
  if (g_clock.mode == clock_mode::virtual_clock) {
    return g_clock.virtual_us;
  }
  auto elapsed = std::chrono::steady_clock::now() - g_clock.origin;
  return std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count();
}

int64_t wall_us(int64_t sim_us) {
  return g_clock.wall_origin_us + sim_us;
}

std::chrono::steady_clock::time_point steady_at(int64_t sim_us) {
  return g_clock.origin + std::chrono::microseconds(sim_us);
}

void clock_start(clock_mode mode) {
  g_clock.mode = mode;
  g_clock.virtual_us = 0;
  g_clock.slept_us = 0;
  g_clock.origin = std::chrono::steady_clock::now();
  g_clock.wall_origin_us =
      mode == clock_mode::virtual_clock ? kVirtualWallOriginUs : real_wall_now_us();
}

void catch_up() {
  const int64_t now = clock_now();
  events_catch_up(now);
  host_data_catch_up(now);
  panel_catch_up(now);
}

int os_usleep(unsigned int usec) {
  std::unique_lock<std::mutex> lock(g_mutex);
  g_clock.slept_us += usec;
  if (g_clock.mode == clock_mode::virtual_clock) {
    g_clock.virtual_us += usec;
    return 0;
  }
  // Never sleep with the state locked: the other thread must get through.
  lock.unlock();
  std::this_thread::sleep_for(std::chrono::microseconds(usec));
  return 0;
}

int os_gettimeofday(struct timeval *tv) {
  if (tv == nullptr) {
    return 0;
  }
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_clock.mode == clock_mode::real_clock) {
    return ::gettimeofday(tv, nullptr);
  }
  const int64_t t = wall_us(g_clock.virtual_us);
  tv->tv_sec = static_cast<time_t>(t / 1'000'000);
  tv->tv_usec = static_cast<suseconds_t>(t % 1'000'000);
  return 0;
}

int os_clock_gettime(clockid_t clock, struct timespec *ts) {
  if (ts == nullptr) {
    return 0;
  }
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_clock.mode == clock_mode::real_clock) {
    return ::clock_gettime(clock, ts);
  }
  const int64_t t = clock == CLOCK_REALTIME ? wall_us(g_clock.virtual_us)
                                            : kVirtualMonotonicOriginUs + g_clock.virtual_us;
  ts->tv_sec = static_cast<time_t>(t / 1'000'000);
  ts->tv_nsec = static_cast<long>((t % 1'000'000) * 1000);
  return 0;
}

} // namespace sim::detail

namespace sim {

int64_t now_us() {
  std::lock_guard<std::mutex> lock(detail::g_mutex);
  return detail::clock_now();
}

void advance_us(int64_t us) {
  std::lock_guard<std::mutex> lock(detail::g_mutex);
  if (detail::g_clock.mode == clock_mode::virtual_clock && us > 0) {
    detail::g_clock.virtual_us += us;
    detail::catch_up();
  }
}

int64_t slept_us() {
  std::lock_guard<std::mutex> lock(detail::g_mutex);
  return detail::g_clock.slept_us;
}

} // namespace sim
