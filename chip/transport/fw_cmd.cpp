#include "chip/transport/fw_cmd.h"

#include <array>
#include <cstdio>

#include "chip/chip.h"
#include "chip/transport/host_data.h"
#include "chip/transport/reg_access.h"
#include "chip/transport/work_point.h"
#include "platform/log.h"
#include "platform/os.h"

const int32_t max_retry = 1;
std::atomic<uint8_t> sos_flag{0};

namespace {

constexpr uint32_t kPollIntervalUs = 2000;
constexpr uint32_t kResetSettleUs = 100000;
constexpr uint32_t kReadyTimeoutMs = 1000;
constexpr int32_t kEchoMatchMax = 4;

// A harmless write of two zero bytes at 0x20000000 that goes out before
// every command.
constexpr uint32_t kDummyAddress = 0x20000000;
constexpr std::array<uint8_t, 2> kDummyData{0x00, 0x00};
// The system reset register.
constexpr uint32_t kResetAddress = 0x20000024;
constexpr uint8_t kResetValue = 0x80;

constexpr std::array<uint8_t, 3> kCmdSenseOn{0xA0, 0x03, 0x00};
constexpr std::array<uint8_t, 3> kCmdSenseOff{0xA0, 0x00, 0x00};
constexpr std::array<uint8_t, 3> kCmdFlushFifo{0xA4, 0x00, 0x01};
constexpr std::array<uint8_t, 3> kCmdAlive{0xA2, 0x00, 0x00};
constexpr uint32_t kSenseOnTimeoutMs = 100;
constexpr uint32_t kShortTimeoutMs = 50;

constexpr uint32_t kDumpRowSize = 8;

void log_event(const char *tag, const char *what, const uint8_t *e) {
  log_error(tag, "%s: %02X %02X %02X %02X %02X %02X %02X %02X", what, e[0], e[1], e[2], e[3], e[4],
            e[5], e[6], e[7]);
}

// Reads the IC's error dump after a fatal event; prints and clears it when
// one is present.
void handle_error_dump() {
  std::array<uint8_t, ERROR_DUMP_SIZE> dump{};
  if (quillon_read_at(ERROR_DUMP_ADDRESS, dump.data(), ERROR_DUMP_SIZE) != 0) {
    // Nothing could be read: treated as no dump.
    return;
  }
  if (dump[0] == 0) {
    return;
  }
  for (uint32_t row = 0; row < ERROR_DUMP_SIZE; row += kDumpRowSize) {
    const uint8_t *d = dump.data() + row;
    log_error("pop_fifo_event", "Error Dump %02X: %02X %02X %02X %02X %02X %02X %02X %02X", row,
              d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]);
  }
  constexpr std::array<uint8_t, 4> zeros{};
  if (quillon_write_at(ERROR_DUMP_ADDRESS, zeros.data(), zeros.size()) != 0) {
    log_error("pop_fifo_event", "Clear error dump memory failed");
  }
}

// " %02X" for each byte of cmd.
void format_command(const uint8_t *cmd, int32_t len, char *out, size_t cap) {
  out[0] = '\0';
  size_t used = 0;
  for (int32_t i = 0; cmd != nullptr && i < len && used + 1 < cap; ++i) {
    const int n = snprintf(out + used, cap - used, " %02X", cmd[i]);
    if (n < 0) {
      break;
    }
    used += static_cast<size_t>(n);
  }
}

// "%02X " for the first up to four bytes: the part an echo repeats.
void format_echo_key(const uint8_t *cmd, int32_t len, char *out, size_t cap) {
  out[0] = '\0';
  size_t used = 0;
  for (int32_t i = 0; cmd != nullptr && i < len && i < kEchoMatchMax && used + 1 < cap; ++i) {
    const int n = snprintf(out + used, cap - used, "%02X ", cmd[i]);
    if (n < 0) {
      break;
    }
    used += static_cast<size_t>(n);
  }
}

// The transfers that start an attempt: the dummy HW command, then the
// command itself. 0, or the failed transfer's code.
uint32_t fw_write_send(const uint8_t *cmd, int32_t len) {
  uint32_t result = quillon_write_at(kDummyAddress, kDummyData.data(), kDummyData.size());
  if (result != 0) {
    log_error("fw_write", "Error sending dummy HW command");
    return result;
  }
  result = quillon_write(cmd, len);
  if (result != 0) {
    log_error("fw_write", "Error writing the fw command");
  }
  return result;
}

bool is_status_event(const uint8_t *event, uint8_t sub_type) {
  return event[0] == EVT_STATUS && event[1] == sub_type;
}

} // namespace

uint32_t pop_fifo_event(uint8_t *event, uint32_t *error_count) {
  const uint8_t cmd = SPI_CMD_FIFO_READ;
  const uint32_t result = quillon_read(&cmd, 1, event, EVENT_SIZE);
  if (result != 0) {
    return result;
  }
  const uint8_t id = event[0];
  if (id != EVT_EMPTY && id != EVT_FATAL && id != EVT_ERROR && id != EVT_IGNORED) {
    NLOG(LOG_LEVEL_INFO, "pop_fifo_event", "FW event: %02X %02X %02X %02X %02X %02X %02X %02X",
         event[0], event[1], event[2], event[3], event[4], event[5], event[6], event[7]);
  }
  if (id == EVT_FATAL) {
    if (error_count != nullptr) {
      ++*error_count;
    }
    log_event("pop_fifo_event", "Fatal event", event);
    handle_error_dump();
    return FW_ERR_TIMEOUT;
  }
  if (id == EVT_ERROR) {
    if (error_count != nullptr) {
      ++*error_count;
    }
    log_event("pop_fifo_event", "Error event", event);
  }
  return FW_OK;
}

uint32_t fifo_event_poll(uint8_t *buf, int32_t match_len, int32_t mode, uint32_t timeout_ms) {
  uint32_t errors = 0;
  const int64_t start = sys_get_cur_systime();
  if (timeout_ms == 0) {
    log_error("fifo_event_poll", "Event not found timeout");
    return FW_ERR_TIMEOUT;
  }
  // Only the bytes an echo can repeat take part in the match.
  const int32_t key_len =
      buf == nullptr ? 0 : (match_len < kEchoMatchMax ? match_len : kEchoMatchMax);
  std::array<uint8_t, EVENT_SIZE> event{};
  for (;;) {
    os().usleep(kPollIntervalUs);
    const uint32_t result = pop_fifo_event(event.data(), &errors);
    if (result != 0) {
      return result;
    }
    const int64_t elapsed = sys_get_cur_systime() - start;
    if (mode == POLL_FRAME_STATUS && is_status_event(event.data(), EVT_SUB_FRAME_STATUS)) {
      const uint8_t working = event[2] == 1 ? 1 : 0;
      if (working != 0) {
        log_error("fifo_event_poll", "KVR frame is working now");
      } else {
        log_error("fifo_event_poll", "No KVR frame output");
      }
      if (buf != nullptr) {
        buf[0] = working;
      }
      return FW_OK;
    }
    if (mode == POLL_CONTROLLER_READY && event[0] == EVT_CONTROLLER_READY) {
      NLOG(LOG_LEVEL_INFO, "fifo_event_poll", "Controller ready event found in %d ms",
           static_cast<int>(elapsed));
      return FW_OK;
    }
    if (mode == POLL_ECHO && is_status_event(event.data(), EVT_SUB_ECHO)) {
      bool match = true;
      for (int32_t i = 0; i < key_len; ++i) {
        match = match && event[2 + i] == buf[i];
      }
      if (match) {
        break;
      }
    }
    if (elapsed >= static_cast<int64_t>(timeout_ms)) {
      log_error("fifo_event_poll", "Event not found timeout");
      return FW_ERR_TIMEOUT;
    }
  }
  if (errors == 0) {
    NLOG(LOG_LEVEL_INFO, "fifo_event_poll", "Echo event found");
    return FW_OK;
  }
  log_error("fifo_event_poll", "Echo event found with %d errors", static_cast<int>(errors));
  return FW_ERR_ECHO_WITH_ERRORS;
}

uint32_t fw_write(const uint8_t *cmd, int32_t len, uint32_t timeout_ms) {
  // Every command is logged at error level on purpose: it is the trail the
  // field logs are read for.
  char text[128];
  format_command(cmd, len, text, sizeof text);
  log_error("fw_write", "Write FW command:%s", text);

  std::array<uint8_t, kEchoMatchMax> echo_key{};
  for (int32_t i = 0; cmd != nullptr && i < len && i < kEchoMatchMax; ++i) {
    echo_key[static_cast<size_t>(i)] = cmd[i];
  }
  char key_text[3 * kEchoMatchMax + 1];
  format_echo_key(cmd, len, key_text, sizeof key_text);

  const int32_t attempts = 1 + max_retry;
  for (int32_t attempt = 1; attempt <= attempts; ++attempt) {
    uint32_t result = fw_write_send(cmd, len);
    if (result != 0) {
      return result;
    }
    result = fifo_event_poll(echo_key.data(), len, POLL_ECHO, timeout_ms);
    if (result == FW_OK) {
      return FW_OK;
    }
    log_error("fw_write", "Polling for the event echo %s", key_text);
    if (result == FW_ERR_ECHO_WITH_ERRORS) {
      return result;
    }
    if (result != FW_ERR_TIMEOUT) {
      log_error("fw_write", "spi communication error..");
      return result;
    }
    log_error("fw_write", "no echo from the FW...");
    log_error("fw_write", "fw write try attempt(%d) failed", static_cast<int>(attempt));
  }
  log_error("fw_write", "triggering SOS..");
  set_sos_flag(1);
  return FW_ERR_TIMEOUT;
}

uint32_t clear_fifo() {
  if (fw_write(kCmdFlushFifo.data(), kCmdFlushFifo.size(), kShortTimeoutMs) != 0) {
    log_error("clear_fifo", "Error clearing the fifo");
    return FW_ERR_FAILED;
  }
  NLOG(LOG_LEVEL_INFO, "clear_fifo", "FIFO flushed");
  return FW_OK;
}

uint32_t zeno_sense_on() {
  const uint32_t result = fw_write(kCmdSenseOn.data(), kCmdSenseOn.size(), kSenseOnTimeoutMs);
  if (result == FW_OK) {
    // Sensing restarts with automatic frequency shift enabled.
    work_parm[WP_AUTO_SHIFT_DISABLED].store(0);
  }
  return result;
}

uint32_t zeno_sense_off() {
  return fw_write(kCmdSenseOff.data(), kCmdSenseOff.size(), kShortTimeoutMs);
}

uint32_t is_fw_alive() {
  const uint32_t result = fw_write(kCmdAlive.data(), kCmdAlive.size(), kShortTimeoutMs);
  if (result == FW_ERR_TIMEOUT) {
    log_error("is_fw_alive", "FW is dead - get echo event timeout");
    set_sos_flag(1);
    return 0;
  }
  if (result != FW_OK) {
    // A transfer problem does not prove the firmware dead.
    log_error("is_fw_alive", "SPI transmission issue");
  }
  log_error("is_fw_alive", "FW is alive");
  set_sos_flag(0);
  return 1;
}

uint32_t system_reset(uint32_t flags) {
  log_error("system_reset", "System reset..");
  const uint8_t value = kResetValue;
  uint32_t result = quillon_write_at(kResetAddress, &value, 1);
  if (result != 0) {
    log_error("system_reset", "Unable to do system reset..");
    return result;
  }
  // The IC forgot everything the host had asked of it.
  init_work_parm();
  if ((flags & RESET_WAIT_READY) == 0) {
    os().usleep(kResetSettleUs);
    return FW_OK;
  }
  std::array<uint8_t, EVENT_SIZE> unused{};
  result = fifo_event_poll(unused.data(), 0, POLL_CONTROLLER_READY, kReadyTimeoutMs);
  if (result != 0) {
    log_error("system_reset", "Unable to poll controller ready event..");
    return result;
  }
  return FW_OK;
}

void set_sos_flag(uint8_t value) {
  sos_flag.store(value & 1u);
}

void transport_reset_state() {
  sos_flag.store(0);
  info = chip_info{};
  sys_info = chip_info{};
}
