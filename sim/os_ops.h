// The simulator's side of the OS seam: the functions its afehal_os_ops
// table points at. Each takes the state lock itself.
#pragma once

#include <cstddef>
#include <ctime>
#include <sys/time.h>

#include "sim/sim.h"

namespace sim::detail {

void clock_start(clock_mode mode);

int os_open(const char *path, int flags);
int os_close(int fd);
int os_ioctl(int fd, unsigned long request, unsigned long arg);
int os_usleep(unsigned int usec);
int os_gettimeofday(struct timeval *tv);
int os_clock_gettime(clockid_t clock, struct timespec *ts);
int os_android_log(int prio, const char *tag, const char *text);
void *os_malloc(size_t size);
void os_free(void *ptr);

} // namespace sim::detail
