// Levelled logging into the service's sink, frame time stamps, and clocks.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/export.h"

// Levels passed to NLOG.
constexpr uint32_t LOG_LEVEL_ERROR = 1;
constexpr uint32_t LOG_LEVEL_WARNING = 2;
constexpr uint32_t LOG_LEVEL_INFO = 3;
constexpr uint32_t LOG_LEVEL_TRACE = 4; // SPI transfers, per-frame checksums
constexpr uint32_t LOG_LEVEL_ENTRY = 5; // IN / OUT of the entry points

using log_sink_fn = void (*)(const char *line);

// Highest level passed to the sink (initially 1: errors only).
extern std::atomic<uint8_t> log_level;
// The sink; nothing is formatted while it is null.
extern std::atomic<log_sink_fn> log_callback;
// Capture time of the last frame in ms, printed in every line.
extern std::atomic<int64_t> log_frame_timestamp_ms;

// Formats "[level][frame ms][T:now ms][tag] message\n" and hands it to the
// sink. The message is cut to 119 characters, the line to 159.
void NLOG(uint32_t level, const char *tag, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
// Raw line (no prefix, no newline added) when the level is 3 or more.
void INFO(const char *format, ...) __attribute__((format(printf, 1, 2)));

// An error: NLOG at level 1 under tag, then the same text to the Android
// log (priority 6, tag "afehal") whatever the level and sink.
void log_error(const char *tag, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Capture time of a frame: {seconds, microseconds}.
struct log_timestamp {
  int64_t sec;
  int64_t usec;
};
// Records the frame time stamp for the log lines and returns it unchanged.
log_timestamp log_update_timestamp(log_timestamp ts);

void log_set_callback(log_sink_fn cb);
void log_set_level(uint8_t level);

// Wall-clock time in ms; -1 when the clock cannot be read.
int64_t sys_get_cur_systime();

struct log_monotonic_time {
  int64_t sec;
  int64_t nsec;
};
// CLOCK_MONOTONIC as {seconds, nanoseconds}; {0, 0} when it cannot be read.
AFEHAL_EXPORT log_monotonic_time sys_get_monotonic_timespec();

// Waits for the SPI busy flag to clear: 0 in time, -1 on time-out (logged
// as "Timeout. <what>"). The flag must clear within count - 1 sleeps of
// 100 us; count 0 always times out.
AFEHAL_EXPORT int32_t wait_for_mutex(uint32_t count, const char *what);
