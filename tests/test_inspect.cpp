// The whole inspection run on the simulated panel: the result mask for each
// fault, which tests ran, the five result buffers and the clean-up.
#include <algorithm>
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
const bytes kFactoryMode = {0xC0, 0x01, 0x02};
const bytes kMutualAutotune = {0xA4, 0x03, 0x03, 0x00};

class InspectRunTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    open_and_start();
    // A quiet panel: every sync frame is the same scan.
    sim::set_noise(0);
    clear_log();
    sim::clear_recording();
  }

  static bool sent(const bytes &command) {
    const auto all = sim::fw_commands();
    return std::find(all.begin(), all.end(), command) != all.end();
  }
  static int count_sent(const bytes &command) {
    const auto all = sim::fw_commands();
    return static_cast<int>(std::count(all.begin(), all.end(), command));
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

// Output position of node (f, s) of a 16 x 34 frame: the panel's output is
// transposed, with both the force and the sense order reversed.
size_t out_index(int f, int s) {
  return static_cast<size_t>((33 - s) * 16 + (15 - f));
}

TEST_F(InspectRunTest, HealthyPanelPassesWithAllFiveBuffersInOutputOrientation) {
  EXPECT_EQ(kvr_afe_inspect(), 0u);
  EXPECT_TRUE(logged_error("vendor_afe_inspect", "SRAM test passed"));
  EXPECT_TRUE(logged_error("vendor_afe_inspect", "ITO test passed"));
  EXPECT_TRUE(logged_error("vendor_afe_inspect", "Noise test passed"));
  EXPECT_TRUE(logged_error("vendor_afe_inspect", "CX data test passed"));
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
  ASSERT_EQ(std::tuple(ms.nodes(), lp.nodes(), total.ix.force_len, total.ix.sense_len),
            std::tuple(544u, 544u, 16, 34));
  const auto &ix = total.ix;
  for (int f = 0; f < 16; ++f) {
    for (int s = 0; s < 34; ++s) {
      const size_t at = out_index(f, s);
      ASSERT_EQ(inspect_grid_data[at], static_cast<uint16_t>(ms.f.data[f * 34 + s] ^ 0x8000))
          << f << "," << s;
      ASSERT_EQ(inspect_calib_grid_data[at], static_cast<uint16_t>(lp.f.data[f * 34 + s]));
      ASSERT_EQ(inspect_noise_data[at], 0u); // thirty identical frames
    }
  }
  // Lines: the 16 force values (reversed) first, then the 34 sense values.
  for (int f = 0; f < 16; ++f) {
    EXPECT_EQ(inspect_line_data[15 - f], static_cast<uint16_t>(ss.f.force_data[f] ^ 0x8000));
    EXPECT_EQ(inspect_calib_line_data[15 - f], static_cast<uint16_t>(ix.force_data[f]));
  }
  for (int s = 0; s < 34; ++s) {
    EXPECT_EQ(inspect_line_data[16 + 33 - s], static_cast<uint16_t>(ss.f.sense_data[s] ^ 0x8000));
    EXPECT_EQ(inspect_calib_line_data[16 + 33 - s], static_cast<uint16_t>(ix.sense_data[s]));
  }
  // Beyond the panel the grid keeps the default, the line too.
  EXPECT_EQ(inspect_grid_data[544], 0x8000);
  EXPECT_EQ(inspect_line_data[50], 0x8000);
}

// One simulated panel per documented mask value, the tests each must run,
// and the verdict line it must log.
TEST_F(InspectRunTest, EachFaultGivesItsMaskAndRunsOnlyItsTests) {
  const uint32_t kResetAddress = 0x20000024;
  const struct {
    const char *panel;
    void (*fault)();
    uint32_t mask;
    bool tests_ran; // ITO, noise and CX
    const char *verdict;
  } cases[] = {
      {"stuck DRAM bit", [] { sim::stuck_bit(0x00100010, 0x01, false); }, 0x40, false,
       "SRAM Test failed 64"},
      {"core cannot be held",
       [] { sim::transfer_error_at(0x20000126, sim::transfer_dir::write, 5); }, 0x40, false,
       "SRAM Test failed 1"},
      {"first reset fails",
       [] { sim::transfer_error_at(kResetAddress, sim::transfer_dir::write, 5); }, 0x01, false,
       "Error while system resetting"},
      {"chip info never loads", [] { sim::block_never_loads(0x01); }, 0x01, false,
       "Error reading chip info"},
      {"open electrode", [] { sim::ito_open(sim::electrode::force, 3); }, 0x08, true,
       "ITO test failed 8"},
      {"ITO command unacknowledged", [] { sim::drop_echoes_of(kItoCommand, 2); }, 0x10, true,
       "ITO test failed 16"},
      {"ITO frame unreadable",
       [] { sim::transfer_error_at(0x20011234, sim::transfer_dir::read, 5, 3); }, 0x10, true,
       "ITO test failed 1"},
      {"unacknowledged and open",
       [] {
         sim::drop_echoes_of(kItoCommand, 2);
         sim::ito_short(sim::electrode::sense, 20);
       },
       0x18, true, "ITO test failed 24"},
      {"noisy node", [] { sim::noisy_node(2, 5, 100); }, 0x04, true, "Noise data test failed 4"},
      {"open and noisy",
       [] {
         sim::ito_open(sim::electrode::force, 3);
         sim::noisy_node(2, 5, 100);
       },
       0x0C, true, "Noise data test failed 4"},
      {"unacknowledged and noisy",
       [] {
         sim::drop_echoes_of(kItoCommand, 2);
         sim::noisy_node(2, 5, 100);
       },
       0x14, true, "Noise data test failed 4"},
      {"everything but CX",
       [] {
         sim::drop_echoes_of(kItoCommand, 2);
         sim::ito_open(sim::electrode::force, 3);
         sim::noisy_node(2, 5, 100);
       },
       0x1C, true, "Noise data test failed 4"},
      {"compensation drift",
       [] { sim::drift_after_autotune(sim::comp_set::ms_lp_total, 40, 30001); }, 0x80, true,
       "CX data test failed 128"},
      // The CX verdict replaces the others instead of adding to them.
      {"drift on a panel failing everything",
       [] {
         sim::drop_echoes_of(kItoCommand, 2);
         sim::ito_open(sim::electrode::force, 3);
         sim::noisy_node(2, 5, 100);
         sim::drift_after_autotune(sim::comp_set::ss_sense, 7, 30001);
       },
       0x80, true, "CX data test failed 128"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.panel);
    sim::clear_faults();
    inspect_done.store(false);
    inspect_noise_data.fill(0x1234);
    c.fault();
    clear_log();
    sim::clear_recording();
    EXPECT_EQ(kvr_afe_inspect(), c.mask);
    EXPECT_TRUE(logged_error("vendor_afe_inspect", c.verdict));
    EXPECT_EQ(sent(kItoCommand), c.tests_ran);
    EXPECT_EQ(sent(kMutualAutotune), c.tests_ran);
    EXPECT_EQ(inspect_done.load(), c.tests_ran);
    if (!c.tests_ran) {
      // Grid and line hold the default, the noise buffer what it had.
      EXPECT_TRUE(std::all_of(inspect_grid_data.begin(), inspect_grid_data.end(),
                              [](uint16_t v) { return v == 0x8000; }));
      EXPECT_TRUE(std::all_of(inspect_line_data.begin(), inspect_line_data.end(),
                              [](uint16_t v) { return v == 0x8000; }));
      EXPECT_EQ(inspect_noise_data[100], 0x1234);
    }
    sim::clear_faults();
    expect_scanning_again();
  }
}

// A test that fails while the firmware answers is final; one whose firmware
// died is run again after a reset, and the second attempt's verdict stands.
TEST_F(InspectRunTest, OnlyATestWhoseFirmwareDiedIsRetried) {
  const bytes kSyncRequest = {0xA4, 0x06, 0x30};
  const struct {
    const char *what;
    bytes kills;
    int deaths;
    const char *retry;
    uint32_t mask;
    int resets;
  } cases[] = {
      {"ITO, once", kItoCommand, 1, "Retry ITO test", 0x00, 4},
      // The firmware stays dead after the second attempt: the noise test
      // cannot enter factory mode and passes as it always has; the CX test
      // fails its reads and is retried after a reset of its own.
      {"ITO, twice", kItoCommand, 2, "Retry ITO test", 0x18, 5},
      {"noise, once", kSyncRequest, 1, "Retry noise test", 0x00, 4},
      {"CX, once", kMutualAutotune, 1, "Retry CX test", 0x00, 4},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    sim::clear_faults();
    sim::firmware_dies_on(c.kills, c.deaths);
    clear_log();
    sim::clear_recording();
    const int resets_before = sim::ic().resets;
    EXPECT_EQ(kvr_afe_inspect(), c.mask);
    EXPECT_EQ(count_logged(1, c.retry), 1);
    EXPECT_TRUE(logged_error(c.retry));
    EXPECT_TRUE(logged_error("is_fw_alive", "FW is dead - get echo event timeout"));
    // Two resets before the tests, one before each retry, one at the end.
    EXPECT_EQ(sim::ic().resets - resets_before, c.resets);
    expect_scanning_again();
  }
  // An open electrode fails with the firmware alive: no second attempt.
  sim::clear_faults();
  sim::ito_open(sim::electrode::sense, 9);
  clear_log();
  sim::clear_recording();
  EXPECT_EQ(kvr_afe_inspect(), 0x08u);
  EXPECT_EQ(count_sent(kItoCommand), 1);
  EXPECT_FALSE(mentioned("Retry ITO test"));
  EXPECT_TRUE(logged_error("is_fw_alive", "FW is alive"));
}

// The two early returns restore nothing: after a failed interrupt switch
// nothing was touched; after a failed limits copy the interrupt stays off.
// inspect_done, once set, survives both.
TEST_F(InspectRunTest, EarlyReturnsRestoreNothingAndKeepInspectDone) {
  ASSERT_EQ(kvr_afe_inspect(), 0u);
  ASSERT_TRUE(inspect_done.load());

  sim::fail_ioctl(KVR_IOCTL_SET_IRQ, 5);
  clear_log();
  sim::clear_recording();
  EXPECT_EQ(kvr_afe_inspect(), 0x80u);
  EXPECT_TRUE(logged_error("vendor_afe_inspect", "Error disabling the host irq"));
  EXPECT_EQ(sim::ioctls(KVR_IOCTL_SET_IRQ).size(), 1u);
  EXPECT_TRUE(sim::fw_commands().empty());
  EXPECT_TRUE(sim::driver().irq_enabled);

  inspect_grid_data.fill(7);
  sim::fail_allocation(1);
  clear_log();
  sim::clear_recording();
  const int resets = sim::ic().resets;
  EXPECT_EQ(kvr_afe_inspect(), 0x80u);
  EXPECT_TRUE(logged_error("vendor_afe_inspect", "Error allocating memory"));
  EXPECT_FALSE(sim::driver().irq_enabled);
  EXPECT_EQ(sim::ic().resets, resets);
  EXPECT_FALSE(mentioned("Sense on and request Frame..."));
  EXPECT_EQ(inspect_grid_data[0], 0x8000); // reset before the copy was attempted
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
