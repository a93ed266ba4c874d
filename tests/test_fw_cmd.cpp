// Firmware commands and the event FIFO: what goes over the wire and how long
// the library waits before giving up, echo matching, retry and SOS, error
// and fatal events with the error dump, the system reset; host-data requests
// (signature, new counter and type must all match) and the chip-info block.
#include <cerrno>
#include <functional>
#include <numeric>

#include "chip/chip.h"
#include "chip/transport/fw_cmd.h"
#include "chip/transport/host_data.h"
#include "chip/transport/work_point.h"
#include "platform/ioctrl.h"
#include "platform/os.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using wire = std::vector<bytes>;

const bytes kDummy = {0xFA, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00};
const bytes kFifoRead = {0x87, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
const bytes kHeaderRead = {0xFB, 0x20, 0x01, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
const bytes kReset = {0xFA, 0x20, 0x00, 0x00, 0x24, 0x80};
const bytes kSenseOff = {0xA0, 0x00, 0x00};

using FwCmd = IoSimTest;
using FwCmdStarted = SimTest;

wire operator+(wire a, const wire &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
// A command whose echo never comes, tried twice: each time the dummy HW
// command, the command, then a FIFO read every 2 ms until the deadline.
wire two_silent_attempts(const bytes &cmd, size_t reads) {
  const wire once = wire{kDummy, cmd} + wire(reads, kFifoRead);
  return once + once;
}
const auto silent = [] { sim::drop_echoes(-1); };
const auto sense_off = [] { return fw_write(kSenseOff.data(), 3, 50); };

TEST_F(FwCmd, WhatGoesOutAndHowLongTheLibraryWaitsBeforeGivingUp) {
  const struct {
    const char *what;
    std::function<void()> fault;
    std::function<uint32_t()> call;
    uint32_t result;
    wire sent;
    int64_t waited_us;
    std::vector<std::string> errors;
  } cases[] = {
      // clang-format off
      {"sense on", silent, zeno_sense_on, 5, two_silent_attempts({0xA0, 0x03, 0x00}, 50), 200'000,
       {"Write FW command: A0 03 00", "triggering SOS.."}},
      {"sense off", silent, zeno_sense_off, 5, two_silent_attempts(kSenseOff, 25), 100'000,
       {"Write FW command: A0 00 00", "Polling for the event echo A0 00 00 ",
        "no echo from the FW...", "fw write try attempt(1) failed",
        "fw write try attempt(2) failed", "triggering SOS..", "Event not found timeout"}},
      {"flush", silent, clear_fifo, 3, two_silent_attempts({0xA4, 0x00, 0x01}, 25), 100'000,
       {"Error clearing the fifo"}},
      {"liveness", silent, is_fw_alive, 0, two_silent_attempts({0xA2, 0x00, 0x00}, 25), 100'000,
       {"FW is dead - get echo event timeout"}},
      {"zero time-out", [] {}, [] { return fifo_event_poll(nullptr, 0, POLL_ECHO, 0); }, 5, {}, 0,
       {"Event not found timeout"}},
      {"chip info never loads", [] { sim::host_data_never_loads(true); }, [] { return read_chip_info(&info); },
       5, wire{kHeaderRead, {0xA4, 0x06, 0x01}} + wire(20, kHeaderRead), 100'000,
       {"Timeout after requesting host data type 01", "Error requesting chip info"}},
      // The request is written blind: a lost one is only seen as a time-out.
      {"host data request lost", [] { sim::fail_spi_transfer(2, EIO); },
       [] { return request_host_data(0x30, 100); }, 5, wire{kHeaderRead} + wire(20, kHeaderRead),
       100'000, {"Timeout after requesting host data type 30"}},
      // A 1 ms budget still polls once before giving up.
      {"host data one-ms time-out", [] {}, [] { return request_host_data(0x30, 1); }, 5,
       {kHeaderRead, {0xA4, 0x06, 0x30}, kHeaderRead}, 5'000,
       {"Timeout after requesting host data type 30"}},
      {"host data zero time-out", [] {}, [] { return request_host_data(0x30, 0); }, 5,
       {kHeaderRead, {0xA4, 0x06, 0x30}}, 0, {"Timeout after requesting host data type 30"}},
      {"reset", [] {}, [] { return system_reset(0); }, 0, {kReset}, 100'000, {"System reset.."}},
      {"controller never ready", [] { sim::set_ready_delay_ms(5000); },
       [] { return system_reset(RESET_WAIT_READY); }, 5, wire{kReset} + wire(500, kFifoRead),
       1'000'000, {"Event not found timeout", "Unable to poll controller ready event.."}},
      // clang-format on
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    sim::clear_faults();
    sim::clear_recording();
    clear_log();
    c.fault();
    const int64_t slept = sim::slept_us();
    EXPECT_EQ(c.call(), c.result);
    EXPECT_EQ(spi_sent(), c.sent);
    EXPECT_EQ(sim::slept_us() - slept, c.waited_us);
    for (const auto &e : c.errors) {
      EXPECT_TRUE(logged_error(e));
    }
  }
}

TEST_F(FwCmd, RetryEchoWithErrorsLivenessAndTransferFailures) {
  // One silent attempt is retried without SOS.
  sim::drop_echoes(1);
  EXPECT_EQ(sense_off(), 0u);
  EXPECT_EQ(spi_sent(0x87), (two_silent_attempts(kSenseOff, 0)));
  EXPECT_TRUE(logged_error("fw write try attempt(1) failed"));
  EXPECT_FALSE(mentioned("fw write try attempt(2) failed"));
  EXPECT_TRUE(logged_at(3, "Echo event found"));
  EXPECT_EQ(sos_flag.load(), 0);

  // An error event before the echo: 6, and no second attempt.
  sim::error_before_echo(1);
  sim::clear_recording();
  EXPECT_EQ(sense_off(), 6u);
  EXPECT_EQ(sim::fw_commands(), wire{kSenseOff});
  EXPECT_TRUE(logged_error("Error event: F3 02 A0 00 00 00 00 00"));
  EXPECT_TRUE(logged_error("Echo event found with 1 errors"));

  // The liveness probe decides the flag; a transfer problem is not death.
  sim::drop_echoes(2);
  EXPECT_EQ(is_fw_alive(), 0u);
  EXPECT_EQ(sos_flag.load(), 1);
  EXPECT_EQ(is_fw_alive(), 1u);
  EXPECT_TRUE(logged_error("is_fw_alive", "FW is alive"));
  EXPECT_EQ(sos_flag.load(), 0);
  set_sos_flag(1);
  sim::fail_spi_transfer(3, EIO); // the first FIFO read
  EXPECT_EQ(is_fw_alive(), 1u);
  EXPECT_TRUE(logged_error("spi communication error.."));
  EXPECT_TRUE(logged_error("SPI transmission issue"));
  EXPECT_EQ(sos_flag.load(), 0);

  // Dummy block, its two buffers, the command's two, the first FIFO read's two.
  clear_log();
  expect_allocation_failures(7, sense_off);
  EXPECT_EQ(count_logged(1, "Error sending dummy HW command"), 3);
  EXPECT_EQ(count_logged(1, "Error writing the fw command"), 2);
  EXPECT_EQ(sos_flag.load(), 0);
}

TEST_F(FwCmd, OnlyAnEchoOfTheCommandsOwnBytesEndsTheWait) {
  const bytes six = {0xC1, 0x02, 0x03, 0x04, 0x05, 0x06};
  const struct {
    bytes event, cmd;
    uint32_t result;
  } cases[] = {
      {{0x43, 0x01, 0xA0, 0x00, 0x00}, kSenseOff, 0},
      {{0x43, 0x01, 0xA0, 0x03, 0x00}, kSenseOff, 5}, // other bytes
      {{0x43, 0x09, 0xA0, 0x00, 0x00}, kSenseOff, 5}, // frame status, not an echo
      {{0x43, 0x02, 0xA0, 0x00, 0x00}, kSenseOff, 5},
      {{0x44, 0x01, 0xA0, 0x00, 0x00}, kSenseOff, 5},
      {{0x43, 0x01, 0xA5, 0x02, 0x77}, {0xA5, 0x02}, 0},    // two bytes match two
      {{0x43, 0x01, 0xC1, 0x02, 0x03, 0x04, 0x99}, six, 0}, // at most four match
      {{0x43, 0x01, 0xC1, 0x02, 0x03, 0x05}, six, 5},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.event));
    bytes event = c.event;
    event.resize(8, 0);
    sim::push_event(event);
    bytes cmd = c.cmd;
    EXPECT_EQ(fifo_event_poll(cmd.data(), static_cast<int32_t>(cmd.size()), POLL_ECHO, 10),
              c.result);
  }
  // A match length of 0 takes any echo.
  uint8_t working = 0xEE;
  sim::push_event(fifo_event({0x43, 0x01, 0x12, 0x34}));
  EXPECT_EQ(fifo_event_poll(&working, 0, POLL_ECHO, 10), 0u);
  sim::push_event(fifo_event({0x43, 0x01, 0x01}));
  sim::push_event(fifo_event({0x43, 0x09, 0x01}));
  EXPECT_EQ(fifo_event_poll(&working, 0, POLL_FRAME_STATUS, 10), 0u);
  EXPECT_EQ(working, 1);
  EXPECT_TRUE(logged_error("KVR frame is working now"));
  sim::push_event(fifo_event({0x43, 0x09, 0x02}));
  EXPECT_EQ(fifo_event_poll(&working, 0, POLL_FRAME_STATUS, 10), 0u);
  EXPECT_EQ(working, 0);
  EXPECT_TRUE(logged_error("No KVR frame output"));
}

TEST_F(FwCmd, EachEventIsReadWholeAndOnlyOrdinaryOnesAreTraced) {
  const struct {
    bytes event;
    uint32_t result, errors;
    int level; // of the line that shows the event, 0 none
    const char *line;
  } cases[] = {
      // clang-format off
      {{0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}, 0, 0, 3, "FW event: 11 22 33 44 55 66 77 88"},
      {{0x03, 0, 0, 0, 0, 0, 0, 0x5A}, 0, 0, 3, "FW event: 03 00 00 00 00 00 00 5A"},
      {{0xFF, 1, 2, 3, 4, 5, 6, 7}, 0, 0, 0, "FW event: FF 01 02 03 04 05 06 07"},
      {{0x00, 1, 2, 3, 4, 5, 6, 7}, 0, 0, 0, "FW event: 00 01 02 03 04 05 06 07"},
      {{0xF3, 2, 0xA0, 0, 0, 0, 0, 0x9C}, 0, 1, 1, "Error event: F3 02 A0 00 00 00 00 9C"},
      {{0xF2, 1, 2, 3, 4, 5, 6, 0x9D}, 5, 1, 1, "Fatal event: F2 01 02 03 04 05 06 9D"},
      // clang-format on
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.line);
    clear_log();
    sim::clear_recording();
    // A second event behind it must not be touched by this read.
    sim::push_event(c.event);
    sim::push_event(fifo_event({0x77, 0x66}));
    bytes e(8, 0xEE);
    uint32_t errors = 0;
    EXPECT_EQ(pop_fifo_event(e.data(), &errors), c.result);
    EXPECT_EQ(e, c.event);
    EXPECT_EQ(errors, c.errors);
    EXPECT_EQ(spi_sent().at(0), kFifoRead);
    if (c.level == 1) {
      EXPECT_TRUE(logged_error(c.line));
    } else if (c.level == 3) {
      EXPECT_TRUE(logged_at(3, c.line));
    } else {
      EXPECT_FALSE(mentioned(c.line));
    }
    ASSERT_EQ(pop_fifo_event(e.data(), &errors), 0u);
    EXPECT_EQ(e, fifo_event({0x77, 0x66}));
  }
}

TEST_F(FwCmd, FatalEventPrintsAndClearsTheDumpOnlyWhenItsFirstByteIsSet) {
  bytes full(ERROR_DUMP_SIZE);
  std::iota(full.begin(), full.end(), uint8_t{0x80});
  bytes no_flag = full, flag_only(ERROR_DUMP_SIZE, 0);
  no_flag[0] = 0;
  flag_only[0] = 0x80;
  const bytes dump_read = [] {
    bytes b = {0xFB, 0x20, 0x01, 0xEF, 0x80};
    b.resize(134, 0xFF);
    return b;
  }();
  const bytes dump_clear = {0xFA, 0x20, 0x01, 0xEF, 0x80, 0x00, 0x00, 0x00, 0x00};
  const struct {
    bytes dump;
    bool present;
  } cases[] = {
      {bytes(ERROR_DUMP_SIZE, 0), false}, {no_flag, false}, {flag_only, true}, {full, true}};
  for (const auto &c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.present));
    sim::mem_write(ERROR_DUMP_ADDRESS, c.dump);
    sim::push_event(fifo_event({0xF2}));
    sim::clear_recording();
    clear_log();
    uint8_t e[8];
    EXPECT_EQ(pop_fifo_event(e, nullptr), 5u);
    EXPECT_EQ(spi_sent(0x87), (c.present ? wire{dump_read, dump_clear} : wire{dump_read}));
    EXPECT_EQ(count_logged_starting(1, "Error Dump "), c.present ? 16 : 0);
    bytes after = c.dump;
    if (c.present) {
      std::fill_n(after.begin(), 4, 0);
    }
    EXPECT_EQ(sim::mem_read(ERROR_DUMP_ADDRESS, ERROR_DUMP_SIZE), after);
  }
  EXPECT_TRUE(logged_error("pop_fifo_event", "Error Dump 00: 80 81 82 83 84 85 86 87"));
  EXPECT_TRUE(logged_error("Error Dump 78: F8 F9 FA FB FC FD FE FF"));

  sim::mem_write(ERROR_DUMP_ADDRESS, full);
  sim::push_event(fifo_event({0xF2}));
  sim::fail_spi_transfer(3, EIO); // the clearing write
  uint8_t e[8];
  EXPECT_EQ(pop_fifo_event(e, nullptr), 5u);
  EXPECT_TRUE(logged_error("Clear error dump memory failed"));

  // During a command, a fatal event counts as a missing echo.
  sim::fatal_on_next_command(false);
  clear_log();
  EXPECT_EQ(sense_off(), 0u);
  EXPECT_TRUE(logged_error("fw write try attempt(1) failed"));
}

TEST_F(FwCmd, ResetWaitsForControllerReadyAndReportsItsFailures) {
  EXPECT_EQ(system_reset(RESET_WAIT_READY), 0u);
  // Ready comes 10 ms after the reset: the fifth 2 ms poll finds it.
  EXPECT_TRUE(logged_at(3, "Controller ready event found in 10 ms"));
  EXPECT_EQ(spi_sent(), wire{kReset} + wire(5, kFifoRead));
  sim::fail_spi_transfer(2, EIO); // the wait's first FIFO read
  EXPECT_EQ(static_cast<int32_t>(system_reset(RESET_WAIT_READY)), -1);
  EXPECT_TRUE(logged_error("Unable to poll controller ready event.."));
  sim::fail_allocation(1);
  EXPECT_EQ(system_reset(0), 2u);
  EXPECT_TRUE(logged_error("Unable to do system reset.."));
}

TEST_F(FwCmdStarted, SenseOnAndResetForgetTheWorkingPointTheHostAskedFor) {
  open_and_start();
  ASSERT_NE(vendor_update_hw_cap(), nullptr); // the frequency points and rates
  // Pinning a frequency point turns the automatic shift off; sensing again
  // turns it back on.
  ASSERT_TRUE(vendor_force_freq_point(2));
  ASSERT_EQ(work_parm[WP_AUTO_SHIFT_DISABLED].load(), 1);
  ASSERT_EQ(zeno_sense_on(), 0u);
  EXPECT_EQ(work_parm[WP_AUTO_SHIFT_DISABLED].load(), 0);
  ASSERT_TRUE(vendor_force_freq_point(3));
  ASSERT_TRUE(vendor_force_scan_rate(1));
  ASSERT_EQ(work_parm_request[WP_FREQ_INDEX].load(), 3);
  ASSERT_EQ(work_parm_request[WP_RATE_INDEX].load(), 1);
  const int resets = sim::ic().resets;
  EXPECT_EQ(system_reset(0), 0u);
  EXPECT_EQ(sim::ic().resets, resets + 1);
  EXPECT_EQ(work_parm_request[WP_FREQ_INDEX].load(), 0xFF);
  EXPECT_EQ(work_parm_request[WP_RATE_INDEX].load(), 0xFF);
  EXPECT_EQ(work_parm[WP_AUTO_SHIFT_DISABLED].load(), 0);
}

// Loads g_header during the library's next poll sleep, as a firmware would.
const afehal_os_ops *g_sim_ops = nullptr; // the simulator's table
afehal_os_ops g_hooked;
bytes g_header;

int usleep_then_load(unsigned int us) {
  const int r = g_sim_ops->usleep(us);
  if (!g_header.empty()) {
    sim::mem_write(HOST_DATA_ADDRESS, g_header);
    g_header.clear();
  }
  return r;
}

void load_during_first_sleep(const bytes &header) {
  if (&os() != &g_hooked) {
    g_sim_ops = &os();
    g_hooked = *g_sim_ops;
    g_hooked.usleep = usleep_then_load;
    os_install(&g_hooked);
  }
  g_header = header;
}

std::vector<unsigned> fields(const chip_info &r) {
  return {r.load_count,    r.id,          r.signature, r.api_ver_third, r.api_ver_second,
          r.api_ver_first, r.chip0_ver,   r.chip0_id,  r.chip1_ver,     r.chip1_id,
          r.fw_ver,        r.svn_rev,     r.cfg_ver,   r.cfg_id,        r.cx_cfg_ver,
          r.cx_cfg_id,     r.afe_ver_cfg, r.cx_ver,    r.panel_cfg,     r.ext_id_low,
          r.ext_id_high,   r.force_len,   r.sense_len, r.ms_raw_addr};
}

TEST_F(FwCmd, OnlyTheRequestedTypeWithSignatureAndANewCounterEndsTheWait) {
  sim::host_data_never_loads(true);
  sim::mem_write(HOST_DATA_ADDRESS, {0xA5, 0x01, 0x07, 0x00});
  const struct {
    bytes header;
    uint32_t result;
  } cases[] = {
      {{0xA5, 0x01, 0x07, 0x00}, 5}, // loaded, right type, same counter
      {{0xA5, 0x30, 0x08, 0x00}, 5}, // another type
      {{0x00, 0x01, 0x08, 0x00}, 5}, // no signature
      {{0xA5, 0x01, 0x07, 0x01}, 0}, // the counter's high byte moved
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.header));
    clear_log();
    load_during_first_sleep(c.header);
    EXPECT_EQ(request_host_data(HOST_DATA_CHIP_INFO, 100), c.result);
    EXPECT_TRUE(logged_at(4, "Old cnt: 7 "));
    sim::mem_write(HOST_DATA_ADDRESS, {0xA5, 0x01, 0x07, 0x00});
  }
  EXPECT_TRUE(logged_at(3, "request_host_data", "Host data loaded after 5 ms, cnt: 263"));

  // The simulated firmware loads 3 ms after the request: seen on the second read.
  sim::host_data_never_loads(false);
  sim::clear_recording();
  EXPECT_EQ(request_host_data(0x30, 1000), 0u);
  EXPECT_EQ(sim::spi_transfers().size(), 4u);
  EXPECT_TRUE(logged_at(3, "Host data loaded after 5 ms, cnt: 1"));
}

TEST_F(FwCmd, ReadFailuresAreReturnedButALostRequestOnlyTimesOut) {
  sim::fail_spi_transfer(1, EIO);
  EXPECT_EQ(static_cast<int32_t>(request_host_data(0x01, 100)), -1);
  EXPECT_TRUE(logged_error("request_host_data", "Error reading host data -1"));
  sim::fail_spi_transfer(3, EIO);
  EXPECT_EQ(static_cast<int32_t>(request_host_data(0x01, 100)), -1);
  EXPECT_TRUE(logged_error("request_host_data", "Error reading host data memory -1"));

  // The header read and the re-read give 2; the request's buffers only lose
  // the request.
  const uint32_t results[] = {2, 2, 5, 5, 2, 2};
  for (int nth = 1; nth <= 6; ++nth) {
    SCOPED_TRACE(nth);
    sim::advance_us(10'000); // any load asked for earlier has happened
    sim::fail_allocation(nth);
    EXPECT_EQ(request_host_data(0x01, 100), results[nth - 1]);
    EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
  }
  sim::fail_allocation(0);

  chip_info r{};
  r.fw_ver = 0x7777;
  sim::fail_spi_transfer(5, EIO); // the block read after the load
  EXPECT_EQ(static_cast<int32_t>(read_chip_info(&r)), -1);
  EXPECT_TRUE(logged_error("read_chip_info", "Error reading chip info"));
  EXPECT_EQ(fields(r), fields(chip_info{}));
}

TEST_F(FwCmd, ChipInfoTakesEveryFieldFromItsOwnOffset) {
  // Every byte of the block distinct, so that any offset slip shows.
  // clang-format off
  sim::set_identity({.fw_ver = 0x1110, .cfg_ver = 0x1514, .cfg_id = 0x1716, .cx_cfg_ver = 0x1918,
                     .cx_cfg_id = 0x1B1A, .afe_ver_cfg = 0x1C, .panel_cfg = 0x1E, .cx_ver = 0x1D,
                     .chip0_ver = 0x0908, .chip0_id = 0x0B0A, .chip1_ver = 0x0D0C, .chip1_id = 0x990F,
                     .svn_rev = 0x1312, .api_first = 0x07, .api_second = 0x06, .api_third = 0x0504,
                     .ext_id_low = 0x33323130, .ext_id_high = 0x37363534, .ms_raw_addr = 0x8988});
  // clang-format on
  // A first load moves the counter off the block id's value.
  ASSERT_EQ(request_host_data(0x30, 100), 0u);
  chip_info r{};
  ASSERT_EQ(read_chip_info(&r), 0u);
  bytes block_read = {0xFB, 0x20, 0x01, 0x00, 0x00};
  block_read.resize(5 + 1 + 250, 0xFF);
  EXPECT_EQ(spi_sent().back(), block_read);
  // chip1 id from bytes 15-16: its high byte is the firmware version's low byte.
  EXPECT_EQ(fields(r),
            (std::vector<unsigned>{2,      0x01,       0xA5,       0x0504, 0x06,   0x07,
                                   0x0908, 0x0B0A,     0x0D0C,     0x100F, 0x1110, 0x1312,
                                   0x1514, 0x1716,     0x1918,     0x1B1A, 0x1C,   0x1D,
                                   0x1E,   0x33323130, 0x37363534, 16,     34,     0x8988}));
  const char *lines[] = {
      "Read Chip Info..",
      "api: V7.6.1284",
      "chip0 - version: 0x0908, id: 0x0B0A",
      "chip1 - version: 0x0D0C, id: 0x100F",
      "fw - version: 0x1110, svn_rev: 0x1312",
      "cfg - version: 0x1514, id: 0x1716",
      "cx in cfg - version: 0x1918, id: 0x1B1A",
      "afe version cfg: 0x1C, cx: 0x1D, panel cfg: 0x1E",
      "external id: 0x3736353433323130",
      "Force Length: 0x10  Sense Length: 0x22",
      "MSRaw address 0x8988",
  };
  for (const char *line : lines) {
    EXPECT_TRUE(logged_at(3, "read_chip_info", line));
  }
  EXPECT_EQ(count_logged_starting(3, "chip info - load cnt: 2, id: 0x01, signature: 0xA5, tick: "),
            1);
}

} // namespace
