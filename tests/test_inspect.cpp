// The whole inspection run on the simulated panel through its entry points:
// the frame-wait time-outs around it, the result mask for each fault, which
// tests ran, the five result buffers and their getters, and the clean-up.
#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "afe/afe.h"
#include "chip/inspect/diag_data.h"
#include "chip/inspect/inspect.h"
#include "chip/inspect/inspect_tests.h"
#include "chip/transport/fw_cmd.h"
#include "chip/transport/host_data.h"
#include "platform/ioctrl.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;

const bytes kItoCommand = {0xA4, 0x04, 0xFF, 0x01};
const bytes kMutualAutotune = {0xA4, 0x03, 0x03, 0x00};

int count_sent(const bytes &command) {
  const auto all = sim::fw_commands();
  return static_cast<int>(std::count(all.begin(), all.end(), command));
}

std::vector<uint32_t> timeouts_set() {
  std::vector<uint32_t> values;
  for (const auto &r : sim::ioctls(KVR_IOCTL_SET_TIMEOUT)) {
    values.push_back(r.value);
  }
  return values;
}

class InspectRunTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    open_and_start();
    sim::set_noise(0); // a quiet panel: every sync frame is the same scan
    restart();
  }
  static void restart() {
    sim::clear_faults();
    clear_log();
    sim::clear_recording();
  }
  // What a completed run must leave behind: the IC scanning, the SOS flag
  // down, the host interrupt on, and frames flowing again.
  void expect_scanning_again() {
    EXPECT_TRUE(sim::driver().irq_enabled);
    EXPECT_TRUE(sim::ic().sensing);
    EXPECT_EQ(sos_flag.load(), 0);
    EXPECT_TRUE(logged_error("vendor_afe_inspect", "Sense on and request Frame..."));
    EXPECT_NE(kvr_afe_get_frame(), nullptr);
  }
};

TEST_F(SimTest, InspectWrapsTheRunInTheLongFrameWaitStartingTheIcIfNeeded) {
  ASSERT_EQ(kvr_afe_open(), 0u);
  sim::clear_recording();
  kvr_afe_inspect();
  EXPECT_TRUE(logged_at(3, "kvr_afe_inspect", "Inspect is preworking status"));
  EXPECT_TRUE(sim::ic().sensing);
  // The start sets the scanning wait; the run then takes the long one.
  EXPECT_EQ(timeouts_set(), (std::vector<uint32_t>{253, 1700, 253}));
  EXPECT_EQ(gu32AFEStatus.load(), static_cast<uint32_t>(KVR_STATE_PREWORKING));

  ASSERT_EQ(kvr_afe_start(), 0u);
  clear_log();
  sim::clear_recording();
  sim::ito_open(sim::electrode::force, 3);
  EXPECT_EQ(kvr_afe_inspect(), 8u);
  EXPECT_EQ(timeouts_set(), (std::vector<uint32_t>{1700, 253}));
  EXPECT_FALSE(mentioned("Inspect is preworking status"));
  // The verdict always shows as an error line. The tests of the run log
  // their own "OUT" as errors; the entry point's is the last line, level 5.
  EXPECT_TRUE(logged_error("kvr_afe_inspect", "Inspect = 00000008"));
  const std::string last = log_lines().back();
  EXPECT_EQ(last.rfind("[5]", 0), 0u) << last;
  EXPECT_NE(last.find("[kvr_afe_inspect] OUT"), std::string::npos) << last;
  EXPECT_EQ(gu32AFEStatus.load(), static_cast<uint32_t>(KVR_STATE_WORKING));

  // An IC that cannot be started gives 128 and no run at all.
  ASSERT_EQ(kvr_afe_stop(), 0u);
  sim::drop_echoes(-1);
  clear_log();
  sim::clear_recording();
  EXPECT_EQ(kvr_afe_inspect(), 128u);
  EXPECT_EQ(timeouts_set(), std::vector<uint32_t>{});
  EXPECT_EQ(count_logged_starting(1, "Inspect = "), 0);
  EXPECT_FALSE(mentioned("OUT"));
  EXPECT_EQ(gu32AFEStatus.load(), static_cast<uint32_t>(KVR_STATE_PREWORKING));
}

// In any state, before any run: each getter hands out its buffer as it
// stands and says which one as an error line.
TEST_F(SimTest, GettersHandOutTheirBufferInAnyState) {
#define GETTER(name, buffer)                                                                       \
  { kvr_afe_get_inspect_##name, "kvr_afe_get_inspect_" #name, buffer.data() }
  const struct {
    uint16_t *(*api)();
    std::string tag;
    uint16_t *buffer;
  } getters[] = {GETTER(grid_data, inspect_grid_data), GETTER(line_data, inspect_line_data),
                 GETTER(noise, inspect_noise_data),
                 GETTER(calib_grid_data, inspect_calib_grid_data),
                 GETTER(calib_line_data, inspect_calib_line_data)};
#undef GETTER
  for (const auto &g : getters) {
    SCOPED_TRACE(g.tag);
    clear_log();
    EXPECT_EQ(g.api(), g.buffer);
    const std::string text = "Get " + g.tag.substr(std::strlen("kvr_afe_get_")) + ".";
    EXPECT_TRUE(logged_error(g.tag, text));
    EXPECT_TRUE(logged_at(5, g.tag, "OUT"));
    const auto said = log_messages();
    ASSERT_GE(said.size(), 3u);
    EXPECT_EQ(std::tie(said.front(), said[said.size() - 2], said.back()),
              std::tie("IN", text, "OUT"));
    EXPECT_TRUE(sim::ioctls().empty());
  }
}

// Output position of node (f, s) of a 16 x 34 frame: the panel's output is
// transposed, with both the force and the sense order reversed.
size_t out_index(int f, int s) {
  return static_cast<size_t>((33 - s) * 16 + (15 - f));
}

TEST_F(InspectRunTest, HealthyPanelPassesWithAllFiveBuffersInOutputOrientation) {
  EXPECT_EQ(kvr_afe_inspect(), 0u);
  for (const char *passed :
       {"SRAM test passed", "ITO test passed", "Noise test passed", "CX data test passed"}) {
    EXPECT_TRUE(logged_error("vendor_afe_inspect", passed));
  }
  EXPECT_TRUE(logged_error("kvr_afe_inspect", "Inspect = 00000000"));
  EXPECT_FALSE(mentioned("Production tests are not available in this build"));
  EXPECT_EQ(count_sent(kItoCommand), 1);
  expect_scanning_again();
  EXPECT_EQ(sim::ioctls(KVR_IOCTL_SET_IRQ).front().value, 0u);

  // The scan of a quiet panel, read back now, is what the run stored.
  mutual_holder ms, lp;
  self_holder ss;
  ss_holder total;
  ASSERT_EQ(request_host_data(HOST_DATA_SYNC_FRAME, SYNC_FRAME_TIMEOUT_MS), 0u);
  ASSERT_EQ(read_sync_frame(&ms.f, &ss.f, 1, 1), 0u);
  ASSERT_EQ(read_ms_cx_data(0x51, &lp.f), 0u);
  ASSERT_EQ(read_ss_cx_data(0x52, &total.ix, &total.cx), 0u);
  const auto &ix = total.ix;
  ASSERT_EQ(std::tuple(ms.nodes(), lp.nodes(), ix.force_len, ix.sense_len),
            std::tuple(544u, 544u, 16, 34));
  for (int f = 0; f < 16; ++f) {
    for (int s = 0; s < 34; ++s) {
      const size_t at = out_index(f, s);
      ASSERT_EQ(inspect_grid_data[at], static_cast<uint16_t>(ms.f.data[f * 34 + s] ^ 0x8000))
          << f << "," << s;
      ASSERT_EQ(inspect_calib_grid_data[at], static_cast<uint16_t>(lp.f.data[f * 34 + s]));
      ASSERT_EQ(inspect_noise_data[at], 0u); // thirty identical frames
    }
    // Lines: the 16 force values (reversed) first, then the 34 sense values.
    EXPECT_EQ(inspect_line_data[15 - f], static_cast<uint16_t>(ss.f.force_data[f] ^ 0x8000));
    EXPECT_EQ(inspect_calib_line_data[15 - f], static_cast<uint16_t>(ix.force_data[f]));
  }
  for (int s = 0; s < 34; ++s) {
    EXPECT_EQ(inspect_line_data[16 + 33 - s], static_cast<uint16_t>(ss.f.sense_data[s] ^ 0x8000));
    EXPECT_EQ(inspect_calib_line_data[16 + 33 - s], static_cast<uint16_t>(ix.sense_data[s]));
  }
  // Beyond the panel the grid keeps the default, the line too.
  EXPECT_EQ(std::tuple(inspect_grid_data[544], inspect_line_data[50]), std::tuple(0x8000, 0x8000));
}

// One simulated panel per documented mask value, the tests each must run,
// and the verdict line it must log.
TEST_F(InspectRunTest, EachFaultGivesItsMaskAndRunsOnlyItsTests) {
  using sim::transfer_dir;
  const auto unacknowledged = [] { sim::drop_echoes_of(kItoCommand, 2); };
  const auto open = [] { sim::ito_open(sim::electrode::force, 3); };
  const auto noisy = [] { sim::noisy_node(2, 5, 100); };
  const struct {
    const char *panel;
    std::function<void()> fault;
    uint32_t mask;
    const char *verdict;
  } cases[] = {
      {"stuck DRAM bit", [] { sim::stuck_bit(0x00100010, 0x01, false); }, 0x40,
       "SRAM Test failed 64"},
      {"core cannot be held", [] { sim::transfer_error_at(0x20000126, transfer_dir::write, 5); },
       0x40, "SRAM Test failed 1"},
      {"first reset fails", [] { sim::transfer_error_at(0x20000024, transfer_dir::write, 5); },
       0x01, "Error while system resetting"},
      {"chip info never loads", [] { sim::block_never_loads(0x01); }, 0x01,
       "Error reading chip info"},
      {"open electrode", open, 0x08, "ITO test failed 8"},
      {"ITO command unacknowledged", unacknowledged, 0x10, "ITO test failed 16"},
      {"ITO frame unreadable", [] { sim::transfer_error_at(0x20011234, transfer_dir::read, 5, 3); },
       0x10, "ITO test failed 1"},
      {"unacknowledged and shorted",
       [=] {
         unacknowledged();
         sim::ito_short(sim::electrode::sense, 20);
       },
       0x18, "ITO test failed 24"},
      {"noisy node", noisy, 0x04, "Noise data test failed 4"},
      {"everything but CX",
       [=] {
         unacknowledged();
         open();
         noisy();
       },
       0x1C, "Noise data test failed 4"},
      {"compensation drift",
       [] { sim::drift_after_autotune(sim::comp_set::ms_lp_total, 40, 30001); }, 0x80,
       "CX data test failed 128"},
      // The CX verdict replaces the others instead of adding to them.
      {"drift on a panel failing everything",
       [=] {
         unacknowledged();
         open();
         noisy();
         sim::drift_after_autotune(sim::comp_set::ss_sense, 7, 30001);
       },
       0x80, "CX data test failed 128"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.panel);
    inspect_done.store(false);
    inspect_noise_data.fill(0x1234);
    restart();
    c.fault();
    EXPECT_EQ(kvr_afe_inspect(), c.mask);
    EXPECT_TRUE(logged_error("vendor_afe_inspect", c.verdict));
    const bool tests_ran = c.mask > 1 && c.mask != 0x40; // ITO, noise and CX
    EXPECT_EQ(count_sent(kItoCommand) > 0, tests_ran);
    EXPECT_EQ(count_sent(kMutualAutotune) > 0, tests_ran);
    EXPECT_EQ(inspect_done.load(), tests_ran);
    if (!tests_ran) {
      // Grid and line hold the default, the noise buffer what it had.
      EXPECT_EQ(std::count(inspect_grid_data.begin(), inspect_grid_data.end(), 0x8000),
                static_cast<long>(inspect_grid_data.size()));
      EXPECT_EQ(std::count(inspect_line_data.begin(), inspect_line_data.end(), 0x8000),
                static_cast<long>(inspect_line_data.size()));
      EXPECT_EQ(inspect_noise_data[100], 0x1234);
    }
    sim::clear_faults();
    expect_scanning_again();
  }
}

// A test that fails while the firmware answers is final; one whose firmware
// died is run again after a reset, and the second attempt's verdict stands.
TEST_F(InspectRunTest, OnlyATestWhoseFirmwareDiedIsRetried) {
  const struct {
    const char *retry;
    bytes kills;
    int deaths;
    uint32_t mask;
    int resets; // two before the tests, one before each retry, one at the end
  } cases[] = {
      {"Retry ITO test", kItoCommand, 1, 0x00, 4},
      // The firmware stays dead after the second attempt: the noise test
      // cannot enter factory mode and passes as it always has; the CX test
      // fails its reads and is retried after a reset of its own.
      {"Retry ITO test", kItoCommand, 2, 0x18, 5},
      {"Retry noise test", {0xA4, 0x06, 0x30}, 1, 0x00, 4},
      {"Retry CX test", kMutualAutotune, 1, 0x00, 4},
      // An open electrode fails with the firmware alive: no second attempt.
      {nullptr, {}, 0, 0x08, 3},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.retry << " " << c.deaths);
    restart();
    if (c.deaths > 0) {
      sim::firmware_dies_on(c.kills, c.deaths);
    } else {
      sim::ito_open(sim::electrode::sense, 9);
    }
    const int resets_before = sim::ic().resets;
    EXPECT_EQ(kvr_afe_inspect(), c.mask);
    if (c.retry) {
      EXPECT_EQ(count_logged(1, c.retry), 1);
      EXPECT_TRUE(logged_error(c.retry));
      EXPECT_TRUE(logged_error("is_fw_alive", "FW is dead - get echo event timeout"));
    } else {
      EXPECT_EQ(count_sent(kItoCommand), 1);
      EXPECT_FALSE(mentioned("Retry ITO test"));
      EXPECT_TRUE(logged_error("is_fw_alive", "FW is alive"));
    }
    EXPECT_EQ(sim::ic().resets - resets_before, c.resets);
    expect_scanning_again();
  }
}

// The two early returns restore nothing: after a failed interrupt switch
// nothing was touched; after a failed limits copy the interrupt stays off.
// inspect_done, once set, survives both.
TEST_F(InspectRunTest, EarlyReturnsRestoreNothingAndKeepInspectDone) {
  ASSERT_EQ(kvr_afe_inspect(), 0u);
  ASSERT_TRUE(inspect_done.load());

  restart();
  sim::fail_ioctl(KVR_IOCTL_SET_IRQ, 5);
  EXPECT_EQ(kvr_afe_inspect(), 0x80u);
  EXPECT_TRUE(logged_error("vendor_afe_inspect", "Error disabling the host irq"));
  EXPECT_EQ(sim::ioctls(KVR_IOCTL_SET_IRQ).size(), 1u);
  EXPECT_TRUE(sim::fw_commands().empty());
  EXPECT_TRUE(sim::driver().irq_enabled);

  inspect_grid_data.fill(7);
  restart();
  sim::fail_allocation(1);
  const int resets = sim::ic().resets;
  EXPECT_EQ(kvr_afe_inspect(), 0x80u);
  EXPECT_TRUE(logged_error("vendor_afe_inspect", "Error allocating memory"));
  EXPECT_FALSE(sim::driver().irq_enabled);
  EXPECT_EQ(sim::ic().resets, resets);
  EXPECT_FALSE(mentioned("Sense on and request Frame..."));
  EXPECT_EQ(inspect_grid_data[0], 0x8000); // reset before the copy was attempted
  EXPECT_TRUE(logged_error("set_default_inspect_data",
                           "Set inspect_grid_data and inspect_line_data to default 0x8000"));
  inspect_line_data.fill(7);
  EXPECT_EQ(set_default_inspect_data(), 0u);
  EXPECT_EQ(inspect_line_data[50], 0x8000);
  EXPECT_TRUE(inspect_done.load());
  clear_log();
  EXPECT_EQ(kvr_afe_get_inspect_noise(), inspect_noise_data.data());
  EXPECT_FALSE(mentioned("Please run kvr_afe_inspect first!"));
  EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
}

// An allocation that fails anywhere in the run costs a verdict at most:
// nothing leaks and the library scans again afterwards.
TEST_F(InspectRunTest, AnAllocationFailingAnywhereLeaksNothingAndScanningResumes) {
  const std::vector<uint32_t> documented = {0x00, 0x01, 0x04, 0x08, 0x0C, 0x10,
                                            0x14, 0x18, 0x1C, 0x40, 0x80};
  for (int nth : {2, 5, 40, 200, 400, 800, 1600}) {
    SCOPED_TRACE(nth);
    sim::fail_allocation(nth);
    const uint32_t mask = kvr_afe_inspect();
    sim::fail_allocation(0);
    EXPECT_NE(std::find(documented.begin(), documented.end(), mask), documented.end()) << mask;
    EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
    expect_scanning_again();
  }
}

} // namespace
