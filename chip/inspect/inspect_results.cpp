// The inspection's result buffers and their getters, and the entry of the
// inspection run.
#include <cstring>

#include "afehal/afehal.h"
#include "chip/chip.h"
#include "chip/inspect/inspect.h"
#include "chip/inspect/inspect_tests.h"
#include "chip/transport/fw_cmd.h"
#include "chip/transport/host_data.h"
#include "platform/heap.h"
#include "platform/ioctrl.h"
#include "platform/log.h"

std::array<uint16_t, INSPECT_GRID_SIZE> inspect_grid_data{};
std::array<uint16_t, INSPECT_LINE_SIZE> inspect_line_data{};
std::array<uint16_t, INSPECT_GRID_SIZE> inspect_noise_data{};
std::array<uint16_t, INSPECT_GRID_SIZE> inspect_calib_grid_data{};
std::array<uint16_t, INSPECT_LINE_SIZE> inspect_calib_line_data{};

std::atomic<bool> inspect_done{false};

namespace {

constexpr uint32_t ITO_MASK_BITS = uint32_t{INSPECT_FAIL_ITO_RAW} | uint32_t{INSPECT_FAIL_ITO};

void fill_default_grid_and_line() {
  inspect_grid_data.fill(INSPECT_DEFAULT_VALUE);
  inspect_line_data.fill(INSPECT_DEFAULT_VALUE);
  log_error("set_default_inspect_data",
            "Set inspect_grid_data and inspect_line_data to default 0x8000");
}

// The getters hand out the buffer as it stands; before a completed run they
// only warn.
uint16_t *hand_out(const char *tag, const char *what, uint16_t *buffer) {
  log_error(tag, "%s", what);
  if (!inspect_done.load()) {
    log_error(tag, "Please run kvr_afe_inspect first!");
  }
  return buffer;
}

constexpr const char *kDriver = "vendor_afe_inspect";

// Steps up to the SRAM test's verdict and the chip info the ITO test needs;
// 0 when the tests may go on.
uint32_t prepare_tests() {
  if (system_reset(RESET_WAIT_READY) != FW_OK) {
    log_error(kDriver, "Error while system resetting");
    return INSPECT_FAIL_SETUP;
  }
  const uint32_t sram = inspect_sram();
  if (sram != 0) {
    log_error(kDriver, "SRAM Test failed %u", sram);
    return INSPECT_FAIL_SRAM;
  }
  log_error(kDriver, "SRAM test passed");
  // The SRAM test halted the core and overwrote its memory.
  if (system_reset(RESET_WAIT_READY) != FW_OK) {
    log_error(kDriver, "Error while system resetting");
    return INSPECT_FAIL_SETUP;
  }
  if (read_chip_info(&sys_info) != 0) {
    log_error(kDriver, "Error reading chip info");
    return INSPECT_FAIL_SETUP;
  }
  log_error(kDriver, "Clearing FIFO events..");
  if (clear_fifo() != 0) {
    log_error(kDriver, "Error clearing fifo");
    return INSPECT_FAIL_SETUP;
  }
  return 0;
}

uint32_t run_tests(const char *limits) {
  uint32_t result = prepare_tests();
  if (result != 0) {
    return result;
  }
  const uint32_t ito = inspect_ito(limits);
  if (ito != 0) {
    log_error(kDriver, "ITO test failed %u", ito);
    // Only the out-of-limits and command bits name themselves; any other
    // failure of the test counts as a failed ITO test.
    result = (ito & ITO_MASK_BITS) != 0 ? (ito & ITO_MASK_BITS) : uint32_t{INSPECT_FAIL_ITO};
  } else {
    log_error(kDriver, "ITO test passed");
  }
  const uint32_t noise = inspect_noise(limits);
  if (noise != 0) {
    log_error(kDriver, "Noise data test failed %u", noise);
    result |= INSPECT_FAIL_NOISE;
  } else {
    log_error(kDriver, "Noise test passed");
  }
  const uint32_t cx = inspect_cx(limits);
  if (cx != 0) {
    log_error(kDriver, "CX data test failed %u", cx);
    // A CX failure is the verdict on its own: it replaces the ITO and noise
    // bits.
    result = INSPECT_FAIL_CX;
  } else {
    log_error(kDriver, "CX data test passed");
  }
  inspect_done.store(true);
  return result;
}

// Back to normal scanning; nothing here can change the verdict.
void restore_scanning() {
  system_reset(RESET_WAIT_READY);
  set_sos_flag(0);
  ioctrl_set_irq(1);
  log_error(kDriver, "Sense on and request Frame...");
  zeno_sense_on();
}

} // namespace

uint32_t set_default_inspect_data() {
  fill_default_grid_and_line();
  return 0;
}

uint32_t vendor_afe_inspect() {
  log_error(__func__, "Production test starting");
  log_error(__func__, "Resetting IRQ");
  if (ioctrl_set_irq(0) != 0) {
    log_error(__func__, "Error disabling the host irq");
    return INSPECT_FAIL_CX;
  }
  fill_default_grid_and_line();
  log_error(__func__, "Get limit file data");
  heap_buffer<char> limits(limit_file_size);
  if (!limits) {
    // Nothing is restored on this path: the host interrupt stays off.
    log_error(__func__, "Error allocating memory");
    return INSPECT_FAIL_CX;
  }
  std::memcpy(limits.get(), limit_file_data, limit_file_size);
  const uint32_t result = run_tests(limits.get());
  limits.reset();
  restore_scanning();
  return result;
}

uint16_t *vendor_afe_get_inspect_grid_data() {
  return hand_out(__func__, "Getting inspect grid data...", inspect_grid_data.data());
}

uint16_t *vendor_afe_get_inspect_line_data() {
  return hand_out(__func__, "Getting inspect line data...", inspect_line_data.data());
}

uint16_t *vendor_afe_get_inspect_noise() {
  return hand_out(__func__, "Getting inspect noise data...", inspect_noise_data.data());
}

uint16_t *vendor_afe_get_inspect_calib_grid_data() {
  return hand_out(__func__, "Getting inspect calib grid data...", inspect_calib_grid_data.data());
}

uint16_t *vendor_afe_get_inspect_calib_line_data() {
  return hand_out(__func__, "Getting inspect calib line data...", inspect_calib_line_data.data());
}

void inspect_reset_state() {
  inspect_grid_data.fill(0);
  inspect_line_data.fill(0);
  inspect_noise_data.fill(0);
  inspect_calib_grid_data.fill(0);
  inspect_calib_line_data.fill(0);
  inspect_done.store(false);
}
