#include "platform/log.h"

#include <cstdarg>
#include <cstdio>

#include "platform/ioctrl.h"
#include "platform/os.h"

std::atomic<uint8_t> log_level{1};
std::atomic<log_sink_fn> log_callback{nullptr};
std::atomic<int64_t> log_frame_timestamp_ms{0};

namespace {

constexpr size_t kMessageSize = 120; // a message keeps at most 119 characters
constexpr size_t kLineSize = 160;    // a line keeps at most 159 characters

int64_t to_ms(int64_t sec, int64_t usec) {
  return sec * 1000 + usec / 1000;
}

int64_t wall_clock_ms() {
  struct timeval tv {};
  os().gettimeofday(&tv);
  return to_ms(tv.tv_sec, tv.tv_usec);
}

// Formats and delivers one prefixed line; the caller has checked the level.
void emit_line(log_sink_fn sink, uint32_t level, const char *tag, const char *format,
               va_list args) {
  const int64_t now_ms = wall_clock_ms();
  char message[kMessageSize];
  vsnprintf(message, sizeof message, format, args);
  char line[kLineSize];
  snprintf(line, sizeof line, "[%d][%ld][T:%ld][%s] %s\n", static_cast<int>(level),
           static_cast<long>(log_frame_timestamp_ms.load(std::memory_order_relaxed)),
           static_cast<long>(now_ms), tag, message);
  sink(line);
}

} // namespace

void NLOG(uint32_t level, const char *tag, const char *format, ...) {
  // The level and sink tests come first: a disabled message costs nothing more.
  if (level > log_level.load(std::memory_order_relaxed)) {
    return;
  }
  log_sink_fn sink = log_callback.load(std::memory_order_acquire);
  if (sink == nullptr) {
    return;
  }
  va_list args;
  va_start(args, format);
  emit_line(sink, level, tag, format, args);
  va_end(args);
}

void INFO(const char *format, ...) {
  if (log_level.load(std::memory_order_relaxed) < LOG_LEVEL_INFO) {
    return;
  }
  log_sink_fn sink = log_callback.load(std::memory_order_acquire);
  if (sink == nullptr) {
    return;
  }
  char line[kLineSize];
  va_list args;
  va_start(args, format);
  vsnprintf(line, sizeof line, format, args);
  va_end(args);
  sink(line);
}

void log_error(const char *tag, const char *format, ...) {
  va_list args;
  va_start(args, format);
  if (LOG_LEVEL_ERROR <= log_level.load(std::memory_order_relaxed)) {
    if (log_sink_fn sink = log_callback.load(std::memory_order_acquire)) {
      va_list copy;
      va_copy(copy, args);
      emit_line(sink, LOG_LEVEL_ERROR, tag, format, copy);
      va_end(copy);
    }
  }
  // The Android copy is made whatever the level and sink. liblog formats
  // into its own 1 KiB buffer; do the same here.
  char text[1024];
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  os().android_log(kAndroidLogError, kAndroidLogTag, text);
}

log_timestamp log_update_timestamp(log_timestamp ts) {
  log_frame_timestamp_ms.store(to_ms(ts.sec, ts.usec), std::memory_order_relaxed);
  return ts;
}

void log_set_callback(log_sink_fn cb) {
  log_callback.store(cb, std::memory_order_release);
  // The pointer is printed with %u on purpose: the line has always shown the
  // low 32 bits of the address.
  NLOG(LOG_LEVEL_INFO, "log_set_callback", "Set log callback function. %u",
       static_cast<unsigned>(reinterpret_cast<uintptr_t>(cb)));
}

void log_set_level(uint8_t level) {
  log_level.store(level, std::memory_order_relaxed);
  const char *name = "DEBUG";
  if (level == 1) {
    name = "ERROR";
  } else if (level == 2) {
    name = "WARNING";
  } else if (level == 3) {
    name = "INFO";
  }
  NLOG(LOG_LEVEL_INFO, "log_set_level", "log level change to <%s>", name);
}

int64_t sys_get_cur_systime() {
  struct timeval tv {};
  if (os().gettimeofday(&tv) != 0) {
    return -1;
  }
  return to_ms(tv.tv_sec, tv.tv_usec);
}

log_monotonic_time sys_get_monotonic_timespec() {
  struct timespec ts {};
  if (os().clock_gettime(CLOCK_MONOTONIC, &ts) != 0) {
    return {0, 0};
  }
  return {static_cast<int64_t>(ts.tv_sec), static_cast<int64_t>(ts.tv_nsec)};
}

int32_t wait_for_mutex(uint32_t count, const char *what) {
  bool cleared = false;
  if (spi_mutex.load(std::memory_order_acquire) == 0) {
    // A zero budget always fails, even with the link free.
    cleared = count >= 1;
  } else {
    uint32_t sleeps = 0;
    while (sleeps != count) {
      os().usleep(100);
      ++sleeps;
      if (spi_mutex.load(std::memory_order_acquire) == 0) {
        break;
      }
    }
    // Clearing right after the last allowed sleep still counts as a time-out.
    cleared = sleeps < count;
  }
  if (cleared) {
    return 0;
  }
  log_error("wait_for_mutex", "Timeout. %s", what);
  return -1;
}
