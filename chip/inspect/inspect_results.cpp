// The inspection's result buffers and their getters, and the entry of the
// inspection run.
#include "afehal/afehal.h"
#include "chip/chip.h"
#include "chip/inspect/inspect.h"
#include "platform/ioctrl.h"
#include "platform/log.h"

std::array<uint16_t, INSPECT_GRID_SIZE> inspect_grid_data{};
std::array<uint16_t, INSPECT_LINE_SIZE> inspect_line_data{};
std::array<uint16_t, INSPECT_GRID_SIZE> inspect_noise_data{};
std::array<uint16_t, INSPECT_GRID_SIZE> inspect_calib_grid_data{};
std::array<uint16_t, INSPECT_LINE_SIZE> inspect_calib_line_data{};

std::atomic<bool> inspect_done{false};

namespace {

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
  // The SRAM, ITO, noise and CX tests are not in this build yet: the run
  // cannot start. Give the host interrupt back so that frames flow again.
  log_error(__func__, "Production tests are not available in this build");
  ioctrl_set_irq(1);
  return INSPECT_FAIL_CX;
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
