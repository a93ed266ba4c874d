// Inspection: frame-wait time-outs around the run, verdict, result buffers.
#include <algorithm>
#include <cstdio>
#include <string>
#include <tuple>
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
  EXPECT_TRUE(logged("kvr_afe_inspect", "Inspect is preworking status"));
  // The start sets the scanning wait; the run then takes the long one.
  EXPECT_EQ(timeouts_set(), (std::vector<uint32_t>{253, 1700, 253}));
  EXPECT_EQ(gu32AFEStatus.load(), static_cast<uint32_t>(KVR_STATE_PREWORKING));

  ASSERT_EQ(kvr_afe_start(), 0u);
  clear_log();
  sim::clear_recording();
  char verdict[32];
  snprintf(verdict, sizeof verdict, "Inspect = %08X", kvr_afe_inspect());
  EXPECT_EQ(timeouts_set(), (std::vector<uint32_t>{1700, 253}));
  // The verdict is passed through and always shows as an error line.
  EXPECT_TRUE(logged("kvr_afe_inspect", verdict));
  EXPECT_EQ(android_errors().back(), verdict);
  EXPECT_EQ(log_messages().back(), "OUT");
  EXPECT_EQ(gu32AFEStatus.load(), static_cast<uint32_t>(KVR_STATE_WORKING));

  // An IC that cannot be started gives 128 and no run at all.
  ASSERT_EQ(kvr_afe_stop(), 0u);
  sim::drop_echoes(-1);
  clear_log();
  sim::clear_recording();
  EXPECT_EQ(kvr_afe_inspect(), 128u);
  EXPECT_EQ(timeouts_set(), std::vector<uint32_t>{});
  EXPECT_FALSE(logged("kvr_afe_inspect", "OUT"));
  EXPECT_EQ(gu32AFEStatus.load(), static_cast<uint32_t>(KVR_STATE_PREWORKING));
}

TEST_F(SimTest, GettersWarnUntilARunCompletedAndDefaultsResetOnlyGridAndLine) {
  const std::tuple<uint16_t *(*)(), uint16_t *, const char *, const char *> getters[] = {
      {kvr_afe_get_inspect_grid_data, inspect_grid_data.data(), "grid data", "grid_data"},
      {kvr_afe_get_inspect_line_data, inspect_line_data.data(), "line data", "line_data"},
      {kvr_afe_get_inspect_noise, inspect_noise_data.data(), "noise data", "noise"},
      {kvr_afe_get_inspect_calib_grid_data, inspect_calib_grid_data.data(), "calib grid data",
       "calib_grid_data"},
      {kvr_afe_get_inspect_calib_line_data, inspect_calib_line_data.data(), "calib line data",
       "calib_line_data"},
  };
  for (bool done : {false, true}) {
    inspect_done.store(done);
    for (const auto &[api, buffer, vendor_text, api_text] : getters) {
      clear_log();
      sim::clear_recording();
      EXPECT_EQ(api(), buffer);
      std::vector<std::string> lines = {"IN", std::string("Getting inspect ") + vendor_text + "...",
                                        "Please run kvr_afe_inspect first!",
                                        std::string("Get inspect_") + api_text + ".", "OUT"};
      std::erase(lines, done ? "Please run kvr_afe_inspect first!" : "");
      EXPECT_EQ(log_messages(), lines);
      EXPECT_EQ(android_errors(), std::vector<std::string>(lines.begin() + 1, lines.end() - 1));
      buffer[0] = 0x1234;
    }
  }

  inspect_grid_data.back() = inspect_line_data.back() = 0x1234;
  sim::clear_recording();
  set_default_inspect_data();
  auto all_default = [](const auto &buffer) {
    return std::all_of(buffer.begin(), buffer.end(), [](uint16_t v) { return v == 0x8000; });
  };
  EXPECT_TRUE(all_default(inspect_grid_data) && all_default(inspect_line_data));
  EXPECT_TRUE(inspect_noise_data[0] == 0x1234 && inspect_calib_grid_data[0] == 0x1234 &&
              inspect_calib_line_data[0] == 0x1234);
  EXPECT_EQ(android_errors(), std::vector<std::string>{
                                  "Set inspect_grid_data and inspect_line_data to default 0x8000"});
}

} // namespace
