// The kernel touch driver: the eight ioctls, the frame queue filled from the
// chip's interrupt, and the frame wait with its time-out.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "sim/state.h"

namespace sim::detail {

namespace {

struct record24 {
  uint64_t first;
  uint64_t second;
  uint32_t length;
  uint32_t reserved;
};

record24 read_record(unsigned long arg) {
  const auto *p = reinterpret_cast<const uint8_t *>(arg);
  record24 r{};
  std::memcpy(&r.first, p + wire::kRecordFirstPtr, 8);
  std::memcpy(&r.second, p + wire::kRecordSecondPtr, 8);
  std::memcpy(&r.length, p + wire::kRecordLength, 4);
  std::memcpy(&r.reserved, p + wire::kRecordReserved, 4);
  return r;
}

bool takes_value(unsigned long request) {
  return request == wire::kSetReset || request == wire::kSetTimeout || request == wire::kSetBlock ||
         request == wire::kSetIrq || request == wire::kClearFrameBuffer;
}

bool known(unsigned long request) {
  return takes_value(request) || request == wire::kGetFrame || request == wire::kSpiSync ||
         request == wire::kGetFrameCount;
}

// The injected error for this call, or 0.
int injected_fault(unsigned long request) {
  auto &faults = g_driver.faults;
  for (auto it = faults.begin(); it != faults.end(); ++it) {
    if (it->request != request) {
      continue;
    }
    switch (it->when) {
    case fault_when::always:
      return it->err;
    case fault_when::once: {
      const int err = it->err;
      faults.erase(it);
      return err;
    }
    case fault_when::nth:
      if (--it->countdown == 0) {
        const int err = it->err;
        faults.erase(it);
        return err;
      }
      // Later rules for the same request still count this call.
      break;
    }
  }
  return 0;
}

int spi_sync(unsigned long arg) {
  if (arg == 0) {
    return EFAULT;
  }
  const record24 r = read_record(arg);
  if (r.reserved != 0) {
    return EINVAL;
  }
  if (r.length > wire::kMaxSpiTransfer) {
    return EMSGSIZE;
  }
  if (r.length > 0 && (r.first == 0 || r.second == 0)) {
    return EFAULT;
  }
  spi_transfer t;
  if (r.length > 0) {
    const auto *tx = reinterpret_cast<const uint8_t *>(r.first);
    auto *rx = reinterpret_cast<uint8_t *>(r.second);
    t.tx.assign(tx, tx + r.length);
    if (const int err = diag_transfer_error(t.tx); err != 0) {
      return err;
    }
    // Bytes the chip does not drive keep what the host left there.
    t.rx.assign(rx, rx + r.length);
    ic_transfer(t.tx, t.rx);
    std::memcpy(rx, t.rx.data(), r.length);
  }
  record_spi(std::move(t));
  return 0;
}

void tally_delivered(frame_fault fault) {
  frame_tally &t = g_driver.delivered;
  ++t.delivered;
  t.bad_tag += fault == frame_fault::bad_tag ? 1 : 0;
  t.bad_counts += fault == frame_fault::bad_counts ? 1 : 0;
  t.bad_counter += fault == frame_fault::bad_counter ? 1 : 0;
  t.bad_crc += fault == frame_fault::bad_crc ? 1 : 0;
}

int get_frame(std::unique_lock<std::mutex> &lock, unsigned long arg) {
  if (arg == 0) {
    return EFAULT;
  }
  const record24 r = read_record(arg);
  if (r.reserved != 0) {
    return EINVAL;
  }
  if (r.first == 0 || r.second == 0) {
    return EFAULT;
  }
  const uint32_t timeout_ms =
      g_driver.frame_timeout_ms != 0 ? g_driver.frame_timeout_ms : wire::kDefaultFrameTimeoutMs;
  const int64_t deadline = clock_now() + int64_t{timeout_ms} * 1000;
  for (;;) {
    catch_up();
    if (!g_driver.frames.empty()) {
      queued_frame f = std::move(g_driver.frames.front());
      g_driver.frames.pop_front();
      tally_delivered(f.fault);
      std::memcpy(reinterpret_cast<uint8_t *>(r.first), f.bytes.data(),
                  std::min<size_t>(f.bytes.size(), r.length));
      const int64_t wall = wall_us(f.stamp_us);
      const int64_t stamp[2] = {wall / 1'000'000, wall % 1'000'000};
      std::memcpy(reinterpret_cast<uint8_t *>(r.second), stamp, sizeof stamp);
      return 0;
    }
    if (!g_driver.blocking) {
      return EAGAIN;
    }
    const int64_t now = clock_now();
    if (now >= deadline) {
      return ETIMEDOUT;
    }
    const int64_t next = panel_next_frame_us();
    const int64_t wake = next >= 0 && next < deadline ? std::max(next, now) : deadline;
    if (g_clock.mode == clock_mode::virtual_clock) {
      g_clock.virtual_us = wake;
    } else {
      g_frame_cv.wait_until(lock, steady_at(wake));
    }
  }
}

} // namespace

void driver_reset(bool keep_open) {
  driver_data fresh;
  if (keep_open) {
    fresh.fds = std::move(g_driver.fds);
    fresh.next_fd = g_driver.next_fd;
  }
  g_driver = std::move(fresh);
}

void driver_queue_frame(std::vector<uint8_t> frame, int64_t stamp_us, frame_fault fault) {
  if (!g_driver.irq_enabled) {
    return; // nobody takes the interrupt: the frame is lost
  }
  cap_push(g_driver.frames, queued_frame{std::move(frame), stamp_us, fault}, wire::kFrameFifoDepth);
  g_frame_cv.notify_all();
}

int driver_ioctl(std::unique_lock<std::mutex> &lock, int fd, unsigned long request,
                 unsigned long arg) {
  catch_up();
  ioctl_record rec{request, arg, 0, 0, 0, {}};
  if (takes_value(request)) {
    rec.value = static_cast<uint32_t>(arg);
  }
  if ((request == wire::kGetFrame || request == wire::kSpiSync) && arg != 0) {
    const auto *p = reinterpret_cast<const uint8_t *>(arg);
    rec.argument.assign(p, p + wire::kRecordSize);
  }

  int err = 0;
  if (g_driver.fds.count(fd) == 0) {
    err = EBADF;
  } else if ((err = injected_fault(request)) != 0) {
    // failed as injected, before the driver did anything
  } else if (!known(request)) {
    err = ENOTTY;
  } else if (request == wire::kSpiSync) {
    err = spi_sync(arg);
  } else if (request == wire::kGetFrame) {
    err = get_frame(lock, arg);
  } else if (request == wire::kGetFrameCount) {
    if (arg == 0) {
      err = EFAULT;
    } else {
      const auto count = static_cast<uint32_t>(g_driver.frames.size());
      std::memcpy(reinterpret_cast<void *>(arg), &count, sizeof count);
      rec.argument.resize(sizeof count);
      std::memcpy(rec.argument.data(), &count, sizeof count);
    }
  } else if (request == wire::kClearFrameBuffer) {
    g_driver.frames.clear();
  } else if (request == wire::kSetTimeout) {
    g_driver.frame_timeout_ms = rec.value;
  } else if (request == wire::kSetBlock) {
    g_driver.blocking = rec.value != 0;
    g_frame_cv.notify_all();
  } else if (request == wire::kSetIrq) {
    g_driver.irq_enabled = rec.value != 0;
  } else if (request == wire::kSetReset) {
    g_driver.reset_line = rec.value;
  }

  rec.result = err != 0 ? -1 : 0;
  rec.error = err;
  record_ioctl(std::move(rec));
  if (err != 0) {
    errno = err;
    return -1;
  }
  return 0;
}

} // namespace sim::detail

namespace sim {

using namespace detail;

driver_state driver() {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  return {!g_driver.fds.empty(),
          g_driver.open_calls,
          g_driver.blocking,
          g_driver.irq_enabled,
          g_driver.reset_line,
          g_driver.frame_timeout_ms,
          static_cast<uint32_t>(g_driver.frames.size())};
}

} // namespace sim
