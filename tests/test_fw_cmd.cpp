// Firmware commands and the event FIFO: echo matching, the retry and SOS,
// error and fatal events with the error dump, the poll deadline and the
// system reset.
#include <algorithm>
#include <cerrno>
#include <string>

#include "platform/ioctrl.h"
#include "support/fixture.h"
#include "vendor/ops/frame_parse.h"
#include "vendor/ops/lifecycle.h"
#include "vendor/transport/fw_cmd.h"

namespace {

using bytes = std::vector<uint8_t>;

const bytes kDummy = {0xFA, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00};
const bytes kSenseOff = {0xA0, 0x00, 0x00};

class FwCmd : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    ASSERT_EQ(ioctrl_open(), 0u);
    sim::clear_recording();
  }
  void TearDown() override {
    sim::fail_allocation(0);
    ioctrl_close();
    SimTest::TearDown();
  }
};

bytes event(std::initializer_list<uint8_t> head) {
  bytes e(8, 0);
  std::copy(head.begin(), head.end(), e.begin());
  return e;
}

// The opcode and address of a memory frame.
bytes head_of(const bytes &tx) {
  return bytes(tx.begin(), tx.begin() + 5);
}

int messages_starting(const std::string &prefix) {
  const auto msgs = log_messages();
  return static_cast<int>(std::count_if(
      msgs.begin(), msgs.end(), [&](const std::string &m) { return m.rfind(prefix, 0) == 0; }));
}

// The last error copied to the Android log, "" when none.
std::string last_error() {
  const auto errors = android_errors();
  return errors.empty() ? std::string() : errors.back();
}

TEST_F(FwCmd, TwoSilentAttemptsRaiseSos) {
  sim::drop_echoes(2);
  EXPECT_EQ(fw_write(kSenseOff.data(), 3, 50), 5u);

  std::vector<bytes> writes;
  for (const auto &x : sim::spi_transfers()) {
    if (x.tx[0] != 0x87) {
      writes.push_back(x.tx);
    }
  }
  EXPECT_EQ(writes, (std::vector<bytes>{kDummy, kSenseOff, kDummy, kSenseOff}));
  EXPECT_EQ(count_logged("Polling for the event echo A0 00 00 "), 2);
  EXPECT_TRUE(logged("fw write try attempt(1) failed"));
  EXPECT_TRUE(logged("fw write try attempt(2) failed"));
  EXPECT_EQ(last_error(), "triggering SOS..");
  EXPECT_EQ(sos_flag.load(), 1);
  // Every command is logged as an error, Android copy included.
  EXPECT_EQ(android_errors().at(0), "Write FW command: A0 00 00");

  // One silent attempt is retried and succeeds without SOS.
  set_sos_flag(0);
  clear_log();
  sim::drop_echoes(1);
  EXPECT_EQ(fw_write(kSenseOff.data(), 3, 50), 0u);
  EXPECT_TRUE(logged("fw write try attempt(1) failed"));
  EXPECT_FALSE(logged("fw write try attempt(2) failed"));
  EXPECT_EQ(sos_flag.load(), 0);
}

TEST_F(FwCmd, EchoMatching) {
  // An error event before the echo: 6, and no second attempt.
  sim::error_before_echo(1);
  EXPECT_EQ(fw_write(kSenseOff.data(), 3, 50), 6u);
  EXPECT_EQ(sim::fw_commands().size(), 1u);
  EXPECT_TRUE(logged("Echo event found with 1 errors"));

  // An echo of other bytes does not end the wait.
  sim::push_event(event({0x43, 0x01, 0xA0, 0x03, 0x00}));
  uint8_t off[] = {0xA0, 0x00, 0x00};
  EXPECT_EQ(fifo_event_poll(off, 3, POLL_ECHO, 10), 5u);
  EXPECT_TRUE(logged("FW event: 43 01 A0 03 00 00 00 00"));

  // A two-byte command is matched on echo bytes 2..3 only, a longer one on
  // its first four bytes.
  sim::push_event(event({0x43, 0x01, 0xA5, 0x02, 0x77}));
  uint8_t two[] = {0xA5, 0x02};
  EXPECT_EQ(fifo_event_poll(two, 2, POLL_ECHO, 10), 0u);
  sim::push_event(event({0x43, 0x01, 0xC1, 0x02, 0x03, 0x04, 0x99}));
  uint8_t six[] = {0xC1, 0x02, 0x03, 0x04, 0x05, 0x06};
  EXPECT_EQ(fifo_event_poll(six, 6, POLL_ECHO, 10), 0u);
  sim::push_event(event({0x43, 0x01, 0xC1, 0x02, 0x03, 0x05}));
  EXPECT_EQ(fifo_event_poll(six, 6, POLL_ECHO, 10), 5u);
}

TEST_F(FwCmd, PollDeadlineIsCheckedAfterEachRead) {
  uint8_t buf[1] = {0xEE};
  EXPECT_EQ(fifo_event_poll(buf, 0, POLL_CONTROLLER_READY, 0), 5u);
  EXPECT_TRUE(sim::spi_transfers().empty());
  EXPECT_EQ(last_error(), "Event not found timeout");

  // One FIFO read after each 2 ms sleep until 10 ms have passed.
  const int64_t slept = sim::slept_us();
  EXPECT_EQ(fifo_event_poll(buf, 0, POLL_CONTROLLER_READY, 10), 5u);
  EXPECT_EQ(sim::spi_transfers().size(), 5u);
  EXPECT_EQ(sim::slept_us() - slept, 10000);

  sim::push_event(event({0x43, 0x09, 0x01}));
  EXPECT_EQ(fifo_event_poll(buf, 0, POLL_FRAME_STATUS, 10), 0u);
  EXPECT_EQ(buf[0], 1);
  EXPECT_TRUE(logged("KVR frame is working now"));
}

TEST_F(FwCmd, FatalEventDumpIsPrintedAndClearedOnlyWhenPresent) {
  uint8_t e[8] = {};
  uint32_t errors = 0;
  sim::push_event(event({0xF2, 0x01, 0x02}));
  EXPECT_EQ(pop_fifo_event(e, &errors), 5u);
  EXPECT_EQ(errors, 1u);
  EXPECT_TRUE(logged("Fatal event: F2 01 02 00 00 00 00 00"));
  auto xfers = sim::spi_transfers();
  ASSERT_EQ(xfers.size(), 2u); // the event, the empty dump; no clear
  EXPECT_EQ(head_of(xfers[1].tx), (bytes{0xFB, 0x20, 0x01, 0xEF, 0x80}));
  EXPECT_EQ(xfers[1].tx.size(), 134u);
  EXPECT_EQ(messages_starting("Error Dump"), 0);

  bytes dump(ERROR_DUMP_SIZE);
  for (size_t i = 0; i < dump.size(); ++i) {
    dump[i] = static_cast<uint8_t>(0x80 + i);
  }
  sim::mem_write(ERROR_DUMP_ADDRESS, dump);
  sim::push_event(event({0xF2}));
  sim::clear_recording();
  EXPECT_EQ(pop_fifo_event(e, &errors), 5u);
  EXPECT_EQ(messages_starting("Error Dump "), 16);
  EXPECT_TRUE(logged("Error Dump 00: 80 81 82 83 84 85 86 87"));
  EXPECT_TRUE(logged("Error Dump 78: F8 F9 FA FB FC FD FE FF"));
  xfers = sim::spi_transfers();
  ASSERT_EQ(xfers.size(), 3u);
  EXPECT_EQ(xfers[2].tx, (bytes{0xFA, 0x20, 0x01, 0xEF, 0x80, 0x00, 0x00, 0x00, 0x00}));
  EXPECT_EQ(sim::mem_read(ERROR_DUMP_ADDRESS, 1), bytes{0});

  // During a command, a fatal event counts as a missing echo.
  sim::fatal_on_next_command(false);
  EXPECT_EQ(fw_write(kSenseOff.data(), 3, 50), 0u);
  EXPECT_TRUE(logged("fw write try attempt(1) failed"));
}

TEST_F(FwCmd, FailuresEndTheCommandWithTheirCode) {
  sim::fail_spi_transfer(3, EIO); // the first FIFO read
  EXPECT_EQ(static_cast<int32_t>(fw_write(kSenseOff.data(), 3, 50)), -1);
  EXPECT_TRUE(logged("spi communication error.."));
  EXPECT_FALSE(logged("fw write try attempt(1) failed"));

  // Dummy block, its two buffers, the command's two, the first FIFO read's two.
  for (int nth = 1; nth <= 7; ++nth) {
    SCOPED_TRACE("allocation " + std::to_string(nth));
    sim::fail_allocation(nth);
    EXPECT_EQ(fw_write(kSenseOff.data(), 3, 50), 2u);
    sim::fail_allocation(0);
    EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
  }
  EXPECT_EQ(count_logged("Error sending dummy HW command"), 3);
  EXPECT_EQ(count_logged("Error writing the fw command"), 2);
  EXPECT_EQ(sos_flag.load(), 0);
}

TEST_F(FwCmd, LivenessProbeDecidesTheSosFlag) {
  set_sos_flag(1);
  EXPECT_EQ(is_fw_alive(), 1u);
  EXPECT_EQ(sos_flag.load(), 0);
  sim::drop_echoes(2);
  EXPECT_EQ(is_fw_alive(), 0u);
  EXPECT_EQ(sos_flag.load(), 1);
  // A transfer problem is not taken for a dead firmware.
  sim::fail_spi_transfer(1, EIO);
  EXPECT_EQ(is_fw_alive(), 1u);
  EXPECT_TRUE(logged("SPI transmission issue"));
  EXPECT_EQ(sos_flag.load(), 0);
}

TEST_F(FwCmd, SystemResetWithAndWithoutWaitingForReady) {
  work_parm[WP_FREQ_INDEX].store(2);
  work_parm_request[WP_RATE_INDEX].store(1);
  calibration_done.store(1);
  const int resets = sim::ic().resets;
  const int64_t slept = sim::slept_us();

  EXPECT_EQ(system_reset(0), 0u);
  EXPECT_EQ(sim::spi_transfers().size(), 1u);
  EXPECT_EQ(sim::spi_transfers()[0].tx, (bytes{0xFA, 0x20, 0x00, 0x00, 0x24, 0x80}));
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
