// The kernel touch driver's device node: every ioctl the library makes, and
// the SPI busy flag that keeps frame-path ioctls out of an SPI sequence.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/export.h"

constexpr const char *KVR_DEVICE_NODE = "/dev/kvr";

// One full-duplex SPI transfer (24 bytes, as the driver reads it).
struct ioctrl_spi_xfer {
  uint8_t *tx_buf;
  uint8_t *rx_buf;
  uint32_t len;
  uint32_t reserved;
};
static_assert(sizeof(ioctrl_spi_xfer) == 24);

// Request for one frame (24 bytes). The driver fills buf and the two-word
// capture time {seconds, microseconds} at timestamp.
struct ioctrl_framedata {
  uint8_t *buf;
  int64_t *timestamp;
  uint32_t size;
  uint32_t reserved;
};
static_assert(sizeof(ioctrl_framedata) == 24);

// Requests: type 0xB8, Linux _IOC encoding.
constexpr unsigned long KVR_IOCTL_GET_FRAME = 0xC018B801;
constexpr unsigned long KVR_IOCTL_SET_RESET = 0x4004B802;
constexpr unsigned long KVR_IOCTL_SET_TIMEOUT = 0x4004B803;
constexpr unsigned long KVR_IOCTL_SPI_SYNC = 0xC018B804;
constexpr unsigned long KVR_IOCTL_SET_BLOCK = 0x4004B806;
constexpr unsigned long KVR_IOCTL_SET_IRQ = 0x4004B807;
// Direction bits say write although the driver writes the count back.
constexpr unsigned long KVR_IOCTL_GET_FRAME_COUNT = 0x4004B808;
constexpr unsigned long KVR_IOCTL_CLEAR_FRAME_BUFFER = 0x4004B809;

// Driver frame-wait time-outs in ms.
constexpr uint32_t KVR_TIMEOUT_SCANNING_MS = 253;
constexpr uint32_t KVR_TIMEOUT_IDLE_MS = 1471;
constexpr uint32_t KVR_TIMEOUT_INSPECT_MS = 1700;

// Result of a frame-path call that could not get the SPI link in time.
constexpr uint32_t IOCTRL_SPI_BUSY = 255;

extern std::atomic<int32_t> ioctrl_fd;
// Last time-out the driver accepted; starts at a value no caller passes.
extern std::atomic<uint32_t> ioctrl_timeout;
// 1 while ioctrl_spi_sync runs.
extern std::atomic<uint8_t> spi_mutex;

// 0 opened, 3 the node could not be opened, 4 already open.
uint32_t ioctrl_open();
void ioctrl_close();
// 0 set or unchanged, 255 SPI busy, else the negative ioctl result.
int32_t ioctrl_set_timeout(uint32_t value);
// Result of the last ioctl (negative on failure); 0 for count < 1.
int32_t ioctrl_spi_sync(ioctrl_spi_xfer *xfers, int32_t count);
int32_t ioctrl_set_block(uint32_t value);
int32_t ioctrl_set_irq(uint32_t value);
AFEHAL_EXPORT int32_t ioctrl_set_reset(uint8_t value);
// 0, the errno value (110 = driver time-out), or 255 SPI busy.
int32_t ioctrl_get_frame(ioctrl_framedata *req);
// Frames queued in the driver; 255 when the SPI link stayed busy.
uint32_t ioctrl_get_frame_count();
void ioctrl_clear_frame_buffer();

// Restores the module's load-time state (tests only).
void ioctrl_reset_state();
