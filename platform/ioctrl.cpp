#include "platform/ioctrl.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "platform/log.h"
#include "platform/os.h"

namespace {

constexpr uint32_t kTimeoutSentinel = 0xFFFFDEAD;
// Busy-wait budgets in 100 us sleeps: mode changes may wait 1 ms, the frame
// path 2 ms, before giving up rather than blocking.
constexpr uint32_t kModeWaitPolls = 10;
constexpr uint32_t kFrameWaitPolls = 20;
constexpr const char *kFrameWaitText = "kvr_afe_get_frame get SPI Mutex";

int do_ioctl(unsigned long request, unsigned long arg) {
  return os().ioctl(ioctrl_fd.load(std::memory_order_relaxed), request, arg);
}

unsigned long pointer_arg(const void *ptr) {
  return reinterpret_cast<unsigned long>(ptr);
}

const char *result_text(int result) {
  return result < 0 ? strerror(errno) : "OK";
}

} // namespace

std::atomic<int32_t> ioctrl_fd{-1};
std::atomic<uint32_t> ioctrl_timeout{kTimeoutSentinel};
std::atomic<uint8_t> spi_mutex{0};

uint32_t ioctrl_open() {
  // Descriptor 0 counts as not open.
  if (ioctrl_fd.load() >= 1) {
    log_error("ioctrl_open", "AFE can't be re-opened.");
    return 4;
  }
  int fd = os().open(KVR_DEVICE_NODE, O_RDWR);
  ioctrl_fd.store(fd);
  if (fd < 0) {
    fd = os().open(KVR_DEVICE_NODE, O_RDWR);
    ioctrl_fd.store(fd);
  }
  if (fd < 0) {
    log_error("ioctrl_open", "Open node (%s) Failed! %s", KVR_DEVICE_NODE, strerror(errno));
    return 3;
  }
  NLOG(LOG_LEVEL_INFO, "ioctrl_open", "Open node (%s) sucess", KVR_DEVICE_NODE);
  return 0;
}

void ioctrl_close() {
  NLOG(LOG_LEVEL_INFO, "ioctrl_close", "called");
  const int fd = ioctrl_fd.load();
  if (fd >= 0) {
    os().close(fd);
  }
  ioctrl_fd.store(-1);
}

int32_t ioctrl_set_timeout(uint32_t value) {
  if (value == ioctrl_timeout.load()) {
    return 0;
  }
  if (wait_for_mutex(kModeWaitPolls, "SETDRIMSTMO get SPI Mutex") != 0) {
    return IOCTRL_SPI_BUSY;
  }
  const int result = do_ioctl(KVR_IOCTL_SET_TIMEOUT, value);
  NLOG(LOG_LEVEL_INFO, "ioctrl_set_timeout", "%u, %s", value, result_text(result));
  if (result < 0) {
    // The cache keeps the old value so that the same request is retried.
    return result;
  }
  ioctrl_timeout.store(value);
  return 0;
}

int32_t ioctrl_spi_sync(ioctrl_spi_xfer *xfers, int32_t count) {
  // The SPI path owns the flag: it raises it without waiting.
  spi_mutex.store(1, std::memory_order_release);
  int result = 0;
  for (int32_t i = 0; i < count; ++i) {
    NLOG(LOG_LEVEL_TRACE, "ioctrl_spi_sync", "+, %d", i);
    result = do_ioctl(KVR_IOCTL_SPI_SYNC, pointer_arg(&xfers[i]));
    NLOG(LOG_LEVEL_TRACE, "ioctrl_spi_sync", "-, %d, %s", i, result_text(result));
    if (result < 0) {
      break;
    }
  }
  spi_mutex.store(0, std::memory_order_release);
  return result;
}

int32_t ioctrl_set_block(uint32_t value) {
  if (wait_for_mutex(kModeWaitPolls, "SETBLOCKING get SPI Mutex") != 0) {
    return IOCTRL_SPI_BUSY;
  }
  const int result = do_ioctl(KVR_IOCTL_SET_BLOCK, value);
  NLOG(LOG_LEVEL_INFO, "ioctrl_set_block", "%d, %s", static_cast<int>(value), result_text(result));
  return result;
}

int32_t ioctrl_set_irq(uint32_t value) {
  NLOG(LOG_LEVEL_INFO, "ioctrl_set_irq", "IRQ enable set: %d", static_cast<int>(value));
  const int result = do_ioctl(KVR_IOCTL_SET_IRQ, value);
  NLOG(LOG_LEVEL_INFO, "ioctrl_set_irq", "%d, %s", static_cast<int>(value), result_text(result));
  return result;
}

int32_t ioctrl_set_reset(uint8_t value) {
  const int result = do_ioctl(KVR_IOCTL_SET_RESET, value & 1u);
  NLOG(LOG_LEVEL_INFO, "ioctrl_set_reset", "%d, %s", value & 1, result_text(result));
  return result;
}

int32_t ioctrl_get_frame(ioctrl_framedata *req) {
  if (wait_for_mutex(kFrameWaitPolls, kFrameWaitText) != 0) {
    return IOCTRL_SPI_BUSY;
  }
  NLOG(LOG_LEVEL_INFO, "ioctrl_get_frame", "+");
  // Blocks in the driver until a frame is queued or its time-out expires.
  const int result = do_ioctl(KVR_IOCTL_GET_FRAME, pointer_arg(req));
  if (result < 0) {
    const int err = errno;
    NLOG(LOG_LEVEL_INFO, "ioctrl_get_frame", "-, %s.", strerror(err));
    return err;
  }
  NLOG(LOG_LEVEL_INFO, "ioctrl_get_frame", "-, %s.", "OK");
  return 0;
}

uint32_t ioctrl_get_frame_count() {
  if (wait_for_mutex(kFrameWaitPolls, kFrameWaitText) != 0) {
    return IOCTRL_SPI_BUSY;
  }
  uint32_t count = 0;
  if (do_ioctl(KVR_IOCTL_GET_FRAME_COUNT, pointer_arg(&count)) != 0) {
    log_error("ioctrl_get_frame_count", "%s", strerror(errno));
  }
  return count;
}

void ioctrl_clear_frame_buffer() {
  // On a busy time-out the flush is still issued: stale frames must never
  // survive a start or a screen-on.
  wait_for_mutex(kFrameWaitPolls, kFrameWaitText);
  const int result = do_ioctl(KVR_IOCTL_CLEAR_FRAME_BUFFER, 0);
  NLOG(LOG_LEVEL_INFO, "ioctrl_clear_frame_buffer", "%s", result_text(result));
}

void ioctrl_reset_state() {
  ioctrl_fd.store(-1);
  ioctrl_timeout.store(kTimeoutSentinel);
  spi_mutex.store(0);
}
