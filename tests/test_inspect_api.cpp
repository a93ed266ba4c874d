// Inspection entry points: frame-wait time-outs around the run, the verdict,
// the result buffers.
#include <cstdio>
#include <string>
#include <vector>

#include "afe/afe.h"
#include "chip/inspect/inspect.h"
#include "platform/ioctrl.h"
#include "support/fixture.h"

namespace {

std::vector<uint32_t> timeouts_set() {
  std::vector<uint32_t> values;
  for (const auto &r : sim::ioctls(KVR_IOCTL_SET_TIMEOUT)) {
    values.push_back(r.value);
  }
  return values;
}

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
  const uint32_t result = kvr_afe_inspect();
  char verdict[32];
  snprintf(verdict, sizeof verdict, "Inspect = %08X", result);
  EXPECT_EQ(timeouts_set(), (std::vector<uint32_t>{1700, 253}));
  EXPECT_FALSE(mentioned("Inspect is preworking status"));
  // The verdict is passed through and always shows as an error line.
  EXPECT_TRUE(logged_error("kvr_afe_inspect", verdict));
  // The tests of the run log their own "OUT" as errors; the entry point's
  // is the last line, at level 5.
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
  const struct {
    uint16_t *(*api)();
    const char *tag;
    uint16_t *buffer;
    const char *text;
  } getters[] = {
      {kvr_afe_get_inspect_grid_data, "kvr_afe_get_inspect_grid_data", inspect_grid_data.data(),
       "Get inspect_grid_data."},
      {kvr_afe_get_inspect_line_data, "kvr_afe_get_inspect_line_data", inspect_line_data.data(),
       "Get inspect_line_data."},
      {kvr_afe_get_inspect_noise, "kvr_afe_get_inspect_noise", inspect_noise_data.data(),
       "Get inspect_noise."},
      {kvr_afe_get_inspect_calib_grid_data, "kvr_afe_get_inspect_calib_grid_data",
       inspect_calib_grid_data.data(), "Get inspect_calib_grid_data."},
      {kvr_afe_get_inspect_calib_line_data, "kvr_afe_get_inspect_calib_line_data",
       inspect_calib_line_data.data(), "Get inspect_calib_line_data."},
  };
  for (const auto &g : getters) {
    SCOPED_TRACE(g.text);
    clear_log();
    EXPECT_EQ(g.api(), g.buffer);
    EXPECT_TRUE(logged_error(g.tag, g.text));
    const auto said = log_messages();
    ASSERT_GE(said.size(), 3u);
    EXPECT_EQ(said.front(), "IN");
    EXPECT_EQ(said[said.size() - 2], g.text);
    EXPECT_TRUE(logged_at(5, g.tag, "OUT"));
    EXPECT_EQ(said.back(), "OUT");
    EXPECT_TRUE(sim::ioctls().empty());
  }
}

} // namespace
