// The touch IC as the SPI link sees it: the command decoder, the system
// memory and configuration spaces with their live registers, the firmware
// commands and what they do, and the system reset.
#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <iterator>

#include "sim/state.h"

namespace sim::detail {

namespace {

constexpr uint32_t kPageShift = 12;
constexpr uint32_t kPageMask = 0xFFF;

bool in_range(uint32_t a, uint32_t start, uint32_t size) {
  return a - start < size;
}

void seed_config() {
  auto &cfg = g_ic.cfg;
  cfg.fill(0);
  cfg[wire::kCfgChannels] = 34;     // sense channels
  cfg[wire::kCfgChannels + 1] = 16; // force channels
  cfg[wire::kCfgFreqCount] = 0x03;  // four frequency points
  // T cycle 100: points of 160, 145, 133 and 123 kHz.
  put_le16(&cfg[wire::kCfgTCycle], 100);
  const uint8_t points[] = {0, 10, 20, 30};
  std::copy(std::begin(points), std::end(points), cfg.begin() + wire::kCfgFreqTable);
  cfg[wire::kCfgFrameRate] = 120;
}

uint8_t chip_id_byte(uint32_t offset) {
  const chip_identity &id = g_ic.id;
  const uint8_t bytes[8] = {
      static_cast<uint8_t>(id.chip0_id >> 8), static_cast<uint8_t>(id.chip0_id),
      static_cast<uint8_t>(id.chip0_ver),     static_cast<uint8_t>(id.chip0_ver >> 8),
      static_cast<uint8_t>(id.chip1_id),      static_cast<uint8_t>(id.chip1_id >> 8),
      static_cast<uint8_t>(id.chip1_ver),     static_cast<uint8_t>(id.chip1_ver >> 8),
  };
  return bytes[offset & 7];
}

void set_scan(bool sensing, bool idle) {
  const bool was_sensing = g_ic.sensing;
  const bool was_idle = g_ic.idle;
  g_ic.sensing = sensing;
  g_ic.idle = sensing && idle;
  if (!sensing) {
    panel_stop();
  } else if (!was_sensing || was_idle != g_ic.idle) {
    panel_start(clock_now());
  }
}

// A read as the bus returns it: memory, with the chip id and the flash
// status bits laid over it.
void bus_read(uint32_t address, uint8_t *out, size_t count) {
  mem_load(address, out, count);
  diag_read_overlay(address, out, count);
  for (size_t i = 0; i < count; ++i) {
    const uint32_t a = address + static_cast<uint32_t>(i);
    if (!in_range(a, wire::kRegPage, wire::kRegPageSize)) {
      continue;
    }
    if (in_range(a, wire::kChipIdRegs, 8)) {
      out[i] = chip_id_byte(a - wire::kChipIdRegs);
    } else if (a == wire::kEraseControl) {
      out[i] = flash_erase_status(out[i]);
    } else if (a == wire::kDmaStatus) {
      out[i] = flash_dma_status(out[i]);
    }
  }
}

void bus_write(uint32_t address, const uint8_t *data, size_t count) {
  // Bytes written over the chip id land in memory but never show: reads
  // there return the id (the host's dummy write goes there harmlessly).
  mem_store(address, data, count);
  // Register side effects, once the whole write has landed (the DMA start
  // byte comes last in its block and needs the bytes before it).
  bool reset = false;
  for (size_t i = 0; i < count; ++i) {
    const uint32_t a = address + static_cast<uint32_t>(i);
    if (!in_range(a, wire::kRegPage, wire::kRegPageSize)) {
      continue;
    }
    if (a == wire::kCoreControl) {
      if (data[i] == wire::kResetValue) {
        reset = true;
      } else if (data[i] == wire::kHoldValue) {
        g_ic.running = false;
        set_scan(false, false);
      } else if (data[i] == wire::kRunValue) {
        g_ic.running = true;
      }
    } else if (a == wire::kEraseControl && (data[i] & 0x80) != 0) {
      flash_erase_start(data[i]);
    } else if (a == wire::kDmaStatus && (data[i] & 0x80) != 0) {
      flash_dma_start();
    }
  }
  if (reset) {
    system_reset();
  }
}

event_bytes event_of(std::initializer_list<uint8_t> bytes) {
  event_bytes e{};
  std::copy_n(bytes.begin(), std::min(bytes.size(), e.size()), e.begin());
  return e;
}

void write_error_dump(bool present) {
  std::array<uint8_t, wire::kErrorDumpSize> dump{};
  if (present) {
    for (size_t i = 0; i < dump.size(); ++i) {
      dump[i] = static_cast<uint8_t>(0xE0 ^ i);
    }
  }
  mem_store(wire::kErrorDump, dump.data(), dump.size());
}

// Carries out a firmware command; false when the firmware does not echo it.
bool execute(const std::vector<uint8_t> &cmd) {
  const uint8_t b0 = cmd[0];
  const uint8_t b1 = cmd.size() > 1 ? cmd[1] : 0;
  const uint8_t b2 = cmd.size() > 2 ? cmd[2] : 0;
  if (diag_command(cmd)) {
    return true;
  }
  if (b0 == 0xA0 && b1 == 0x03) {
    if (b2 == 0x00) { // sense on: active scanning, automatic frequency choice
      g_ic.forced_freq = -1;
      set_scan(true, false);
    } else if (b2 == 0x02) { // idle
      set_scan(true, true);
    } else if (b2 >= 0x04 && b2 - 0x04 < scan_freq_count()) { // pin a frequency point
      g_ic.forced_freq = b2 - 0x04;
      g_ic.freq_index = g_ic.forced_freq;
    }
  } else if (b0 == 0xA0 && b1 == 0x00 && b2 == 0x00) { // sense off
    set_scan(false, false);
  } else if (b0 == 0xC0 && b1 == 0x00) { // scan rate
    if (b2 < 2) {
      g_ic.forced_rate = b2;
      g_ic.rate_index = b2;
    }
  } else if (b0 == 0xC0 && b1 == 0x07) { // frame status, answered by its own event
    events_schedule(clock_now() + g_ic.echo_delay_us,
                    event_of({wire::kEvStatus, wire::kEvSubFrameStatus,
                              static_cast<uint8_t>(frames_flowing() ? 1 : 0)}));
    return false;
  } else if (b0 == 0xA4 && b1 == 0x00 && b2 == 0x01) { // flush the event FIFO
    events_flush();
  } else if (b0 == 0xA4 && b1 == 0x00 && b2 == 0x02) { // panel init
    g_ic.id.panel_cfg = g_ic.id.afe_ver_cfg;
  } else if (b0 == 0xA4 && b1 == 0x06) { // host-data request: no echo
    if (cmd.size() > 2) {
      host_data_request(b2);
    }
    return false;
  }
  // Calibration, autotune, save CX, the liveness probe and commands this
  // model does not act on are only echoed.
  return true;
}

void fw_command(const std::vector<uint8_t> &cmd) {
  if (!g_ic.running) {
    return; // the core is held: nobody reads the command
  }
  if (!diag_firmware_answers(cmd)) {
    return; // the firmware has stopped: the command is lost
  }
  g_rec.fw.push_back(cmd);
  const int64_t due = clock_now() + g_ic.echo_delay_us;
  if (g_ic.fatal_next) {
    g_ic.fatal_next = false;
    write_error_dump(g_ic.fatal_with_dump);
    events_schedule(due, event_of({wire::kEvFatal, 0x01, cmd[0]}));
    return;
  }
  if (!execute(cmd)) {
    return;
  }
  const auto &only = g_ic.drop_echo_of;
  if (g_ic.drop_echo_of_times > 0 && cmd.size() >= only.size() &&
      std::equal(only.begin(), only.end(), cmd.begin())) {
    --g_ic.drop_echo_of_times;
    return;
  }
  if (g_ic.drop_echoes != 0) {
    if (g_ic.drop_echoes > 0) {
      --g_ic.drop_echoes;
    }
    return;
  }
  if (g_ic.error_before_echo != 0) {
    if (g_ic.error_before_echo > 0) {
      --g_ic.error_before_echo;
    }
    events_schedule(due, event_of({wire::kEvError, 0x02, cmd[0]}));
  }
  event_bytes echo = event_of({wire::kEvStatus, wire::kEvSubEcho});
  std::copy_n(cmd.begin(), std::min<size_t>(cmd.size(), 4), echo.begin() + 2);
  events_schedule(due, echo);
}

} // namespace

void mem_store(uint32_t address, const uint8_t *bytes, size_t count) {
  size_t done = 0;
  while (done < count) {
    const uint32_t a = address + static_cast<uint32_t>(done);
    const size_t offset = a & kPageMask;
    const size_t n = std::min(count - done, size_t{4096} - offset);
    auto [it, fresh] = g_ic.memory.try_emplace(a >> kPageShift);
    if (fresh) {
      it->second.fill(0);
    }
    std::memcpy(it->second.data() + offset, bytes + done, n);
    done += n;
  }
}

void mem_load(uint32_t address, uint8_t *out, size_t count) {
  size_t done = 0;
  while (done < count) {
    const uint32_t a = address + static_cast<uint32_t>(done);
    const size_t offset = a & kPageMask;
    const size_t n = std::min(count - done, size_t{4096} - offset);
    auto it = g_ic.memory.find(a >> kPageShift);
    if (it == g_ic.memory.end()) {
      std::memset(out + done, 0, n);
    } else {
      std::memcpy(out + done, it->second.data() + offset, n);
    }
    done += n;
  }
}

void ic_reset_state() {
  g_ic = ic_data{};
  seed_config();
}

int scan_freq_count() {
  return (g_ic.cfg[wire::kCfgFreqCount] & 3) + 1;
}

uint16_t scan_freq_khz(int index) {
  const uint32_t t_cycle = le16(&g_ic.cfg[wire::kCfgTCycle]);
  const uint32_t divisor = 2 * (t_cycle + g_ic.cfg[(wire::kCfgFreqTable + index) & 0xFFFF]);
  return divisor == 0 ? 0 : static_cast<uint16_t>(wire::kScanClockHz / divisor / 1000);
}

bool frames_flowing() {
  return g_ic.running && g_ic.sensing && !g_panel.stopped;
}

void system_reset() {
  ++g_ic.resets;
  flash_on_system_reset();
  diag_on_system_reset();
  g_ic.running = true;
  g_ic.forced_freq = -1;
  g_ic.forced_rate = -1;
  g_ic.freq_index = 0;
  g_ic.rate_index = 0;
  set_scan(false, false);
  // The control registers (core hold, flash unlock, erase and DMA blocks)
  // come back cleared.
  const std::array<uint8_t, wire::kRegPageSize> zeros{};
  mem_store(wire::kRegPage, zeros.data(), zeros.size());
  events_flush();
  g_ic.load_pending = false;
  events_schedule(clock_now() + g_ic.ready_delay_us, event_of({wire::kEvReady}));
}

void ic_transfer(const std::vector<uint8_t> &tx, std::vector<uint8_t> &rx) {
  const size_t n = tx.size();
  if (n == 0) {
    return;
  }
  // Only the data phase of a read is driven by the chip; everything else
  // (opcode, address, dummy byte, every byte of a write) leaves rx alone.
  switch (tx[0]) {
  case wire::kMemRead:
    if (n > 6) {
      bus_read(be32(&tx[1]), &rx[6], n - 6);
    }
    break;
  case wire::kMemWrite:
    if (n > 5) {
      bus_write(be32(&tx[1]), &tx[5], n - 5);
    }
    break;
  case wire::kCfgRead:
    for (size_t i = 4; i < n; ++i) {
      rx[i] = g_ic.cfg[(be16(&tx[1]) + i - 4) & 0xFFFF];
    }
    break;
  case wire::kCfgWrite:
    for (size_t i = 3; i < n; ++i) {
      g_ic.cfg[(be16(&tx[1]) + i - 3) & 0xFFFF] = tx[i];
    }
    break;
  case wire::kHostDataRead:
    if (n > 4) {
      mem_load(wire::kHostDataArea + be16(&tx[1]), &rx[4], n - 4);
      diag_read_overlay(wire::kHostDataArea + be16(&tx[1]), &rx[4], n - 4);
    }
    break;
  case wire::kEventRead:
    // An event leaves the FIFO only once its eighth byte is clocked out; a
    // read that stops short shows the head event and leaves it in place.
    for (size_t i = 2; i < n; i += wire::kEventSize) {
      const size_t take = std::min(wire::kEventSize, n - i);
      const event_bytes e = take == wire::kEventSize ? events_pop() : events_peek();
      std::copy_n(e.begin(), take, rx.begin() + static_cast<long>(i));
    }
    break;
  default:
    fw_command(tx);
    break;
  }
}

} // namespace sim::detail

namespace sim {

using namespace detail;

void set_identity(const chip_identity &id) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_ic.id = id;
}

chip_identity identity() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_ic.id;
}

void mem_write(uint32_t address, const std::vector<uint8_t> &bytes) {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  mem_store(address, bytes.data(), bytes.size());
}

std::vector<uint8_t> mem_read(uint32_t address, size_t count) {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  std::vector<uint8_t> out(count);
  bus_read(address, out.data(), count);
  return out;
}

void cfg_write(uint16_t address, const std::vector<uint8_t> &bytes) {
  std::lock_guard<std::mutex> lock(g_mutex);
  for (size_t i = 0; i < bytes.size(); ++i) {
    g_ic.cfg[(address + i) & 0xFFFF] = bytes[i];
  }
}

std::vector<uint8_t> cfg_read(uint16_t address, size_t count) {
  std::lock_guard<std::mutex> lock(g_mutex);
  std::vector<uint8_t> out(count);
  for (size_t i = 0; i < count; ++i) {
    out[i] = g_ic.cfg[(address + i) & 0xFFFF];
  }
  return out;
}

ic_state ic() {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  return {g_ic.sensing,        g_ic.idle,          !g_ic.running,
          g_ic.forced_freq,    g_ic.forced_rate,   g_ic.resets,
          g_diag.factory_mode, g_diag.scan_locked, diag_auto_release_off()};
}

void host_data_never_loads(bool on) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_ic.host_data_never_loads = on;
}

void serve_host_data(const std::vector<uint8_t> &block, bool raw) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_ic.served_block = block;
  g_ic.served_raw = raw;
}

} // namespace sim
