// The one seam between the library and the operating system. Every open,
// close, ioctl, sleep, clock read, Android log write and heap allocation of
// the library goes through the table installed here; by default it holds
// the real C library and liblog calls. Tests, benchmarks, fuzzers and the
// tool's --sim mode install the simulator's table instead.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/time.h>

struct afehal_os_ops {
  int (*open)(const char *path, int flags);
  int (*close)(int fd);
  // arg is the ioctl's third argument: a pointer cast to an integer, or a
  // plain value for the requests that take one. Sets errno on failure.
  int (*ioctl)(int fd, unsigned long request, unsigned long arg);
  int (*usleep)(unsigned int usec);
  int (*gettimeofday)(struct timeval *tv);
  int (*clock_gettime)(clockid_t clock, struct timespec *ts);
  // Android log with an already formatted text.
  int (*android_log)(int prio, const char *tag, const char *text);
  void *(*malloc)(size_t size);
  void (*free)(void *ptr);
};

// The table in use.
const afehal_os_ops &os();
// Installs a table (it must outlive its use); nullptr restores the real one.
void os_install(const afehal_os_ops *ops);
// The real table.
const afehal_os_ops &os_default();

// Android log priority and tag of every error copy.
constexpr int kAndroidLogError = 6;
constexpr const char *kAndroidLogTag = "afehal";
