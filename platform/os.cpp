#include "platform/os.h"

#include <android/log.h>
#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

int real_open(const char *path, int flags) {
  return ::open(path, flags);
}
int real_close(int fd) {
  return ::close(fd);
}
int real_ioctl(int fd, unsigned long request, unsigned long arg) {
  return ::ioctl(fd, request, arg);
}
int real_usleep(unsigned int usec) {
  return ::usleep(usec);
}
int real_gettimeofday(struct timeval *tv) {
  return ::gettimeofday(tv, nullptr);
}
int real_clock_gettime(clockid_t clock, struct timespec *ts) {
  return ::clock_gettime(clock, ts);
}
int real_android_log(int prio, const char *tag, const char *text) {
  return __android_log_print(prio, tag, "%s", text);
}
void *real_malloc(size_t size) {
  return std::malloc(size);
}
void real_free(void *ptr) {
  std::free(ptr);
}

constexpr afehal_os_ops kRealOps = {
    real_open,          real_close,       real_ioctl,  real_usleep, real_gettimeofday,
    real_clock_gettime, real_android_log, real_malloc, real_free,
};

std::atomic<const afehal_os_ops *> g_ops{&kRealOps};

} // namespace

const afehal_os_ops &os() {
  return *g_ops.load(std::memory_order_acquire);
}

void os_install(const afehal_os_ops *ops) {
  g_ops.store(ops != nullptr ? ops : &kRealOps, std::memory_order_release);
}

const afehal_os_ops &os_default() {
  return kRealOps;
}
