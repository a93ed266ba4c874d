// Firmware commands and the event FIFO: echo matching, retry and SOS, error
// and fatal events with the error dump, the poll deadline, the system reset.
#include <cerrno>
#include <numeric>

#include "chip/ops/frame_parse.h"
#include "chip/ops/lifecycle.h"
#include "chip/transport/fw_cmd.h"
#include "platform/ioctrl.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;

const bytes kDummy = {0xFA, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00};
const bytes kSenseOff = {0xA0, 0x00, 0x00};

using FwCmd = IoSimTest;

const auto sense_off = [] { return fw_write(kSenseOff.data(), 3, 50); };

TEST_F(FwCmd, RetrySosLivenessAndFailures) {
  sim::drop_echoes(2);
  EXPECT_EQ(sense_off(), 5u);
  EXPECT_EQ(spi_sent(0x87), (std::vector<bytes>{kDummy, kSenseOff, kDummy, kSenseOff}));
  EXPECT_EQ(count_logged("Polling for the event echo A0 00 00 "), 2);
  EXPECT_TRUE(logged("fw write try attempt(1) failed"));
  EXPECT_TRUE(logged("fw write try attempt(2) failed"));
  EXPECT_EQ(last_error(), "triggering SOS..");
  EXPECT_EQ(sos_flag.load(), 1);
  // Every command is logged as an error, Android copy included.
  EXPECT_EQ(android_errors().at(0), "Write FW command: A0 00 00");

  // The liveness probe decides the flag; a transfer problem is not death.
  EXPECT_EQ(is_fw_alive(), 1u);
  EXPECT_EQ(sos_flag.load(), 0);
  sim::drop_echoes(2);
  EXPECT_EQ(is_fw_alive(), 0u);
  EXPECT_EQ(sos_flag.load(), 1);
  sim::fail_spi_transfer(1, EIO);
  EXPECT_EQ(is_fw_alive(), 1u);
  EXPECT_TRUE(logged("SPI transmission issue"));
  EXPECT_EQ(sos_flag.load(), 0);

  // One silent attempt is retried without SOS.
  clear_log();
  sim::drop_echoes(1);
  EXPECT_EQ(sense_off(), 0u);
  EXPECT_FALSE(logged("fw write try attempt(2) failed"));

  sim::fail_spi_transfer(3, EIO); // the first FIFO read
  EXPECT_EQ(static_cast<int32_t>(sense_off()), -1);
  EXPECT_TRUE(logged("spi communication error.."));
  // Dummy block, its two buffers, the command's two, the first FIFO read's two.
  expect_allocation_failures(7, sense_off);
  EXPECT_EQ(count_logged("Error sending dummy HW command"), 3);
  EXPECT_EQ(count_logged("Error writing the fw command"), 2);
  EXPECT_EQ(sos_flag.load(), 0);
}

TEST_F(FwCmd, EventPolling) {
  // An error event before the echo: 6, and no second attempt.
  sim::error_before_echo(1);
  EXPECT_EQ(sense_off(), 6u);
  EXPECT_EQ(sim::fw_commands().size(), 1u);
  EXPECT_TRUE(logged("Echo event found with 1 errors"));

  const auto echo = [](std::initializer_list<uint8_t> event, bytes cmd) {
    sim::push_event(fifo_event(event));
    return fifo_event_poll(cmd.data(), cmd.size(), POLL_ECHO, 10);
  };
  // An echo of other bytes does not end the wait.
  EXPECT_EQ(echo({0x43, 0x01, 0xA0, 0x03, 0x00}, kSenseOff), 5u);
  // Two-byte commands match echo bytes 2..3, longer ones their first four.
  EXPECT_EQ(echo({0x43, 0x01, 0xA5, 0x02, 0x77}, {0xA5, 0x02}), 0u);
  const bytes six = {0xC1, 0x02, 0x03, 0x04, 0x05, 0x06};
  EXPECT_EQ(echo({0x43, 0x01, 0xC1, 0x02, 0x03, 0x04, 0x99}, six), 0u);
  EXPECT_EQ(echo({0x43, 0x01, 0xC1, 0x02, 0x03, 0x05}, six), 5u);
  EXPECT_TRUE(logged("FW event: 43 01 A0 03 00 00 00 00"));

  sim::clear_recording();
  uint8_t e[8] = {0xEE};
  EXPECT_EQ(fifo_event_poll(e, 0, POLL_CONTROLLER_READY, 0), 5u);
  EXPECT_TRUE(sim::spi_transfers().empty());
  EXPECT_EQ(last_error(), "Event not found timeout");
  // One FIFO read after each 2 ms sleep until 10 ms have passed.
  const int64_t slept = sim::slept_us();
  EXPECT_EQ(fifo_event_poll(e, 0, POLL_CONTROLLER_READY, 10), 5u);
  EXPECT_EQ(sim::spi_transfers().size(), 5u);
  EXPECT_EQ(sim::slept_us() - slept, 10000);
  sim::push_event(fifo_event({0x43, 0x09, 0x01}));
  EXPECT_EQ(fifo_event_poll(e, 0, POLL_FRAME_STATUS, 10), 0u);
  EXPECT_EQ(e[0], 1);
  EXPECT_TRUE(logged("KVR frame is working now"));

  // Fatal events: the error dump is printed and cleared only when present.
  uint32_t errors = 0;
  sim::push_event(fifo_event({0xF2, 0x01, 0x02}));
  sim::clear_recording();
  EXPECT_EQ(pop_fifo_event(e, &errors), 5u);
  EXPECT_EQ(errors, 1u);
  EXPECT_TRUE(logged("Fatal event: F2 01 02 00 00 00 00 00"));
  bytes dump_read = {0xFB, 0x20, 0x01, 0xEF, 0x80};
  dump_read.resize(134, 0xFF);
  EXPECT_EQ(spi_sent(0x87), std::vector<bytes>{dump_read});
  EXPECT_EQ(messages_starting("Error Dump"), 0);

  bytes dump(ERROR_DUMP_SIZE);
  std::iota(dump.begin(), dump.end(), uint8_t{0x80});
  sim::mem_write(ERROR_DUMP_ADDRESS, dump);
  sim::push_event(fifo_event({0xF2}));
  sim::clear_recording();
  EXPECT_EQ(pop_fifo_event(e, &errors), 5u);
  EXPECT_EQ(messages_starting("Error Dump "), 16);
  EXPECT_TRUE(logged("Error Dump 00: 80 81 82 83 84 85 86 87"));
  EXPECT_TRUE(logged("Error Dump 78: F8 F9 FA FB FC FD FE FF"));
  EXPECT_EQ(
      spi_sent(0x87),
      (std::vector<bytes>{dump_read, {0xFA, 0x20, 0x01, 0xEF, 0x80, 0x00, 0x00, 0x00, 0x00}}));
  EXPECT_EQ(sim::mem_read(ERROR_DUMP_ADDRESS, 1), bytes{0});

  // During a command, a fatal event counts as a missing echo.
  sim::fatal_on_next_command(false);
  clear_log();
  EXPECT_EQ(sense_off(), 0u);
  EXPECT_TRUE(logged("fw write try attempt(1) failed"));
}

TEST_F(FwCmd, SystemResetWithAndWithoutWaitingForReady) {
  work_parm[WP_FREQ_INDEX].store(2);
  work_parm_request[WP_RATE_INDEX].store(1);
  calibration_done.store(1);
  const int resets = sim::ic().resets;
  const int64_t slept = sim::slept_us();
  EXPECT_EQ(system_reset(0), 0u);
  EXPECT_EQ(spi_sent(), (std::vector<bytes>{{0xFA, 0x20, 0x00, 0x00, 0x24, 0x80}}));
  EXPECT_EQ(sim::slept_us() - slept, 100000);
  EXPECT_EQ(sim::ic().resets, resets + 1);
  EXPECT_EQ(work_parm[WP_FREQ_INDEX].load(), 0);
  EXPECT_EQ(work_parm_request[WP_RATE_INDEX].load(), 0xFF);
  EXPECT_EQ(calibration_done.load(), 0);

  EXPECT_EQ(system_reset(RESET_WAIT_READY), 0u);
  EXPECT_EQ(messages_starting("Controller ready event found in "), 1);
  sim::fail_spi_transfer(2, EIO); // the wait's first FIFO read
  EXPECT_EQ(static_cast<int32_t>(system_reset(RESET_WAIT_READY)), -1);
  EXPECT_EQ(last_error(), "Unable to poll controller ready event..");
  sim::fail_allocation(1);
  EXPECT_EQ(system_reset(0), 2u);
  EXPECT_EQ(last_error(), "Unable to do system reset..");
}

} // namespace
