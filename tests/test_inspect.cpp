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

} // namespace
