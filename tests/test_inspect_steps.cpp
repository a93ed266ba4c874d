// The inspection tests one by one (limits look-up, boundaries, commands that
// may fail), dump_cx, and the driver's early returns and allocation failures.
#include <algorithm>
#include <string>
#include <vector>

#include "afe/afe.h"
#include "chip/inspect/inspect.h"
#include "chip/inspect/inspect_tests.h"
#include "chip/transport/fw_cmd.h"
#include "chip/transport/host_data.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;

// A limits copy of the embedded text's exact length (no terminating NUL,
// like the driver's) with the first `from` after `after` replaced by `to`
// of the same length.
std::vector<char> limits_with(const std::string &after, const std::string &from,
                              const std::string &to) {
  std::vector<char> copy(limit_file_data, limit_file_data + limit_file_size);
  const std::string text(copy.begin(), copy.end());
  const size_t at = text.find(from, text.find(after));
  EXPECT_NE(at, std::string::npos) << from;
  EXPECT_EQ(from.size(), to.size());
  if (at != std::string::npos) {
    std::copy(to.begin(), to.end(), copy.begin() + static_cast<long>(at));
  }
  return copy;
}

class InspectStepTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    open_and_start();
    sim::set_noise(0);
    // The driver refreshes the chip info before the tests that use it.
    ASSERT_EQ(read_chip_info(&sys_info), 0u);
    clear_log();
    sim::clear_recording();
  }
};

// A missing label ends its test with its own message before any command; a
// table with fewer values than the panel has nodes cannot judge it, and the
// test fails instead of reading past the table.
TEST_F(InspectStepTest, AMissingOrTooSmallLimitsTableFailsItsTest) {
  const struct {
    uint32_t (*test)(const char *);
    const char *label;
    const char *named; // in the message, when not the label itself
    bool shrink;       // also run with a table of one row
  } cases[] = {
      {inspect_ito, "MS_RAW_ITO_DATA_MIN", nullptr, false},
      {inspect_ito, "MS_RAW_ITO_DATA_MAX", nullptr, true},
      {inspect_raw_data, "MS_RAW_DATA_EACH_MIN", nullptr, true},
      // The raw-data test names its minimum for either label.
      {inspect_raw_data, "MS_RAW_DATA_EACH_MAX", "MS_RAW_DATA_EACH_MIN", true},
      {inspect_noise, "MS_RAW_NOISE_DATA_DELTA", nullptr, true},
      {inspect_cx, "SS_DETECT_TOTAL_IX_FORCE_MAX", nullptr, false},
      {inspect_cx, "SS_DETECT_TOTAL_IX_SENSE_MAX", nullptr, false},
      {inspect_cx, "SS_TOUCH_ACTIVE_TOTAL_IX_FORCE_MAX", nullptr, false},
      {inspect_cx, "SS_TOUCH_ACTIVE_TOTAL_IX_SENSE_MAX", nullptr, false},
      // Last: its verdicts are read below.
      {inspect_cx, "MS_TOUCH_LOWPOWER_TOTAL_CX_MAX", nullptr, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.label);
    const std::string header = std::string("*") + c.label + ",";
    const auto missing = limits_with("", header, "*X" + header.substr(2));
    clear_log();
    sim::clear_recording();
    EXPECT_EQ(c.test(missing.data()), 128u);
    EXPECT_TRUE(logged_error("parse_limits_file", "Couldnt find the test limit\n"));
    EXPECT_TRUE(logged_error(std::string("Couldnt find the label ") +
                             (c.named ? c.named : c.label) + " in the test limit file"));
    EXPECT_TRUE(sim::fw_commands().empty());
    EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
    if (c.shrink) {
      const auto smaller = limits_with("", header + "16,34", header + "1 ,34");
      clear_log();
      EXPECT_EQ(c.test(smaller.data()), 128u);
      EXPECT_EQ(count_logged_starting(1, "Limits "), 1);
      EXPECT_EQ(count_logged_starting(1, "Node[") + count_logged_starting(1, " node["), 0);
      EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
    }
  }
  EXPECT_TRUE(logged_error("inspect_cx", "Mutual Lowpower Total CX FAIL"));
  EXPECT_TRUE(logged_error("inspect_cx", "Self Sense Total IX OK!!"));
}

// Each node's spread over the thirty frames: a swing of +-75 makes a delta
// of 150, exactly the limit, and passes; the same delta fails a limit of
// 149.
TEST_F(InspectStepTest, NoiseDeltaEqualToItsLimitPassesAndOneMoreFails) {
  sim::noisy_node(0, 0, 75);
  EXPECT_EQ(inspect_noise(limit_file_data), 0u);
  EXPECT_TRUE(logged_error("inspect_noise", "Freq 0 noise data test OK!!"));
  EXPECT_TRUE(logged_at(3, "inspect_noise", "Freq 0 Mutual Noise Delta: "));
  // Node (0, 0) is the last entry of the transposed, reversed output.
  EXPECT_EQ(inspect_noise_data[543], 150u);
  EXPECT_EQ(std::count(inspect_noise_data.begin(), inspect_noise_data.begin() + 544, 0), 543);
  const uint16_t first_grid = inspect_grid_data[543];
  // Thirty frames, each asked for and each answered.
  const auto commands = sim::fw_commands();
  EXPECT_EQ(std::count(commands.begin(), commands.end(), bytes{0xA4, 0x06, 0x30}), 30);

  const auto limits = limits_with("*MS_RAW_NOISE_DATA_DELTA,", "\r\n150,", "\r\n149,");
  clear_log();
  EXPECT_EQ(inspect_noise(limits.data()), 4u);
  EXPECT_TRUE(logged_error("inspect_noise", "Freq 0 noise data test FAIL"));
  EXPECT_EQ(count_logged_starting(1, "Node[0,0] = 150 exceed limit > 149"), 1);
  // The grid holds the first frame of the run: the node at one end of its
  // swing, the other end a frame later.
  const int raw = static_cast<int16_t>(inspect_grid_data[543] ^ 0x8000);
  const int before = static_cast<int16_t>(first_grid ^ 0x8000);
  EXPECT_EQ(std::abs(raw - before) % 150, 0);
}

TEST_F(InspectStepTest, RawDataTestPassesWithoutFactoryModeAndStopsAtOnceOnItsFirstSteps) {
  EXPECT_EQ(inspect_raw_data(limit_file_data), 0u);
  EXPECT_TRUE(logged_error("inspect_raw_data", "MUTUAL RAW MIN MAX TEST OK"));
  EXPECT_TRUE(logged_at(3, "inspect_raw_data", "OUT"));
  EXPECT_NE(inspect_grid_data[0], 0u);
  // Factory mode and scan lock go out as exactly three bytes each.
  const auto commands = sim::fw_commands();
  EXPECT_EQ(std::count(commands.begin(), commands.end(), bytes{0xC0, 0x01, 0x02}), 1);
  EXPECT_EQ(std::count(commands.begin(), commands.end(), bytes{0xA0, 0x03, 0x00}), 1);

  const struct {
    bytes unanswered;
    uint32_t result;
    const char *message;
  } cases[] = {
      {{0xC0, 0x01, 0x02}, 0, "Error enabling factory mode"},
      {{0xA0, 0x03, 0x00}, 1, "Error writing scan lock mode"},
      {{0xA4, 0x06, 0x30}, 1, "Error requesting new frame"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.message);
    sim::clear_faults();
    sim::firmware_dies_on(c.unanswered, 1);
    clear_log();
    EXPECT_EQ(inspect_raw_data(limit_file_data), c.result);
    EXPECT_TRUE(logged_error("inspect_raw_data", c.message));
    // No retry rule on these steps: the firmware is not even asked.
    EXPECT_FALSE(mentioned("Retry raw data test"));
    EXPECT_FALSE(mentioned("FW is alive") || mentioned("FW is dead - get echo event timeout"));
    ASSERT_EQ(system_reset(1), 0u);
  }
  // Node (0, 0) under a minimum of 30000.
  sim::clear_faults();
  const auto limits = limits_with("*MS_RAW_DATA_EACH_MIN,", "\r\n-30000,", "\r\n030000,");
  clear_log();
  EXPECT_EQ(inspect_raw_data(limits.data()), 2u);
  EXPECT_EQ(count_logged_starting(1, " node[0,0] = "), 1);
  EXPECT_TRUE(logged_error("inspect_raw_data", "MUTUAL RAW MIN MAX TEST FAIL"));
}

TEST_F(InspectStepTest, CxTestJudgesWhateverTheTuningCommandsAnswerAndRunsAllFiveChecks) {
  sim::drop_echoes_of({0xA4, 0x03, 0x03, 0x00}, 2);
  EXPECT_EQ(inspect_cx(limit_file_data), 0u);
  EXPECT_TRUE(logged_error("inspect_cx", "Mutual autotune failed"));
  EXPECT_TRUE(logged_error("inspect_cx", "Mutual Lowpower Total CX OK!!"));

  sim::clear_faults();
  sim::drift_after_autotune(sim::comp_set::ms_lp_total, 40, 30001);
  clear_log();
  EXPECT_EQ(inspect_cx(limit_file_data), 128u);
  EXPECT_TRUE(logged_error("inspect_cx", "Mutual Lowpower Total CX FAIL"));
  for (const char *ok : {"Self Force Detect Total IX OK!!", "Self Sense Detect Total IX OK!!",
                         "Self Force Total IX OK!!", "Self Sense Total IX OK!!"}) {
    EXPECT_TRUE(logged_error("inspect_cx", ok));
  }
  EXPECT_TRUE(logged_at(3, "inspect_cx", "Self Force Total IX: "));
  // The calibration buffer holds the new value, not the change.
  EXPECT_GT(inspect_calib_grid_data[(33 - 6) * 16 + (15 - 1)], 30001u);

  // A read made only for the log still ends the test with its reader's code.
  sim::clear_faults();
  sim::block_never_loads(0x12);
  clear_log();
  EXPECT_EQ(inspect_cx(limit_file_data), 1u);
  EXPECT_TRUE(logged_error("inspect_cx", "Error reading SS IX & CX"));
  EXPECT_FALSE(mentioned("Mutual Lowpower Total CX OK!!"));

  // A self table with more values than the panel has channels cannot be
  // walked: its check fails without reading past the channels.
  sim::clear_faults();
  sim::cfg_write(0x0030, {33, 16});
  clear_log();
  EXPECT_EQ(inspect_cx(limit_file_data), 128u);
  EXPECT_TRUE(logged_error("inspect_cx", "Self Sense Detect Total IX FAIL"));
  EXPECT_TRUE(logged_error("inspect_cx", "Self Force Detect Total IX OK!!"));
}

TEST_F(InspectStepTest, DumpCxWritesTheLowPowerFrameAndStopsAtTheFirstFailedRead) {
  std::vector<uint16_t> out(3000, 0xBEEF);
  uint32_t count = 0;
  EXPECT_EQ(dump_cx(out.data(), &count), 0u);
  EXPECT_EQ(count, 544u);
  EXPECT_TRUE(logged_at(3, "dump_cx", "Mutual Lowpower Total CX: 16 * 34"));
  EXPECT_TRUE(logged_at(3, "dump_cx", "Self Sense Detect Total IX: 34"));
  EXPECT_TRUE(logged_at(3, "dump_cx", "Self Force Total IX: 16"));
  EXPECT_EQ(std::count(out.begin(), out.end(), 0xBEEF), 3000 - 544);
  EXPECT_NE(out[543], 0xBEEF);
  sim::block_never_loads(0x53);
  clear_log();
  EXPECT_EQ(dump_cx(out.data(), &count), 1u);
  EXPECT_TRUE(logged_error("dump_cx", "Error reading SS LP Total IX & CX"));
  EXPECT_FALSE(mentioned("Self Force Detect Total IX: 16") || mentioned("Self Force Total IX: 16"));
}

TEST_F(InspectStepTest, SramMismatchAtTheFirstByteStopsBeforeTheFrameMemory) {
  sim::stuck_bit(0x00100000, 0x01, false);
  EXPECT_EQ(inspect_sram(), 64u);
  EXPECT_TRUE(logged_error("check_ram", "Data read from 00100000 is A4, while expecting A5"));
  EXPECT_TRUE(logged_error("inspect_sram", "Error checking DRAM.."));
  EXPECT_TRUE(logged_error("inspect_sram", "OUT"));
  for (const auto &tx : spi_sent()) {
    ASSERT_FALSE(tx.size() > 5 && tx[0] == 0xFA && tx[1] == 0x20 && tx[2] == 0x01)
        << "frame memory written";
  }
  EXPECT_TRUE(sim::ic().core_held);

  // DRAM passes; a bad frame-memory byte fails the test with its own line.
  sim::clear_faults();
  ASSERT_EQ(system_reset(1), 0u);
  sim::stuck_bit(0x20010040, 0x80, true);
  clear_log();
  EXPECT_EQ(inspect_sram(), 64u);
  EXPECT_TRUE(logged_error("inspect_sram", "Error checking frame memory"));
  const auto sent = spi_sent();
  EXPECT_NE(std::find_if(sent.begin(), sent.end(),
                         [](const bytes &tx) {
                           return tx.size() > 5 && bytes(tx.begin(), tx.begin() + 5) ==
                                                       bytes{0xFA, 0x20, 0x01, 0x00, 0x00};
                         }),
            sent.end())
      << "frame memory starts at 0x20010000";
  EXPECT_FALSE(mentioned("Error checking DRAM.."));
}

} // namespace
