// The inspection entry points (state rule, frame-wait time-outs around the
// run, the verdict line) and the result buffers behind the getters.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "afe/afe.h"
#include "platform/ioctrl.h"
#include "support/fixture.h"
#include "vendor/inspect/inspect.h"
#include "vendor/vendor.h"

namespace {

const std::vector<uint8_t> kSenseOn{0xA0, 0x03, 0x00};

std::vector<uint32_t> timeouts_set() {
  std::vector<uint32_t> values;
  for (const auto &r : sim::ioctls(KVR_IOCTL_SET_TIMEOUT)) {
    values.push_back(r.value);
  }
  return values;
}

bool android_logged(const std::string &text) {
  std::vector<std::string> errors = android_errors();
  return std::find(errors.begin(), errors.end(), text) != errors.end();
}

std::string verdict_text(uint32_t result) {
  char text[32];
  snprintf(text, sizeof text, "Inspect = %08X", result);
  return text;
}

TEST_F(SimTest, InspectIsRefusedInClosedAndStandby) {
  EXPECT_EQ(kvr_afe_inspect(), 0xFFFFFFA1u);
  open_and_start();
  ASSERT_EQ(kvr_afe_screen_off(), 0u);
  clear_log();
  sim::clear_recording();
  EXPECT_EQ(kvr_afe_inspect(), 0xFFFFFFA1u);
  EXPECT_EQ(log_messages(), (std::vector<std::string>{
                                "IN", "API can't be executed in this mode [KVR_STATE_STANDBY]."}));
  EXPECT_TRUE(android_logged("API can't be executed in this mode [KVR_STATE_STANDBY]."));
  EXPECT_TRUE(sim::ioctls().empty());
}

TEST_F(SimTest, InspectInWorkingWrapsTheRunInTheLongFrameWait) {
  open_and_start();
  clear_log();
  sim::clear_recording();
  const uint32_t result = kvr_afe_inspect();
  EXPECT_EQ(timeouts_set(), (std::vector<uint32_t>{1700, 253}));
  // The verdict is passed through and always shows as an error line.
  EXPECT_TRUE(logged("kvr_afe_inspect", verdict_text(result)));
  EXPECT_TRUE(android_logged(verdict_text(result)));
  EXPECT_EQ(log_messages().back(), "OUT");
  EXPECT_FALSE(logged("Inspect is preworking status"));
  EXPECT_EQ(gu32AFEStatus.load(), static_cast<uint32_t>(KVR_STATE_WORKING));
}

TEST_F(SimTest, InspectFromPreworkingStartsTheIcButStaysPreworking) {
  ASSERT_EQ(kvr_afe_open(), 0u);
  sim::clear_recording();
  const uint32_t result = kvr_afe_inspect();
  EXPECT_TRUE(logged("kvr_afe_inspect", "Inspect is preworking status"));
  const auto commands = sim::fw_commands();
  EXPECT_NE(std::find(commands.begin(), commands.end(), kSenseOn), commands.end());
  // The start sets the scanning wait; the run then takes the long one.
  EXPECT_EQ(timeouts_set(), (std::vector<uint32_t>{253, 1700, 253}));
  EXPECT_TRUE(logged("kvr_afe_inspect", verdict_text(result)));
  EXPECT_EQ(gu32AFEStatus.load(), static_cast<uint32_t>(KVR_STATE_PREWORKING));

  // An IC that cannot be started gives 128 and no run at all.
  ASSERT_EQ(kvr_afe_close(), 0u);
  ASSERT_EQ(kvr_afe_open(), 0u);
  sim::drop_echoes(-1);
  clear_log();
  sim::clear_recording();
  EXPECT_EQ(kvr_afe_inspect(), 128u);
  EXPECT_EQ(timeouts_set(), std::vector<uint32_t>{});
  EXPECT_FALSE(logged("kvr_afe_inspect", "OUT"));
  EXPECT_EQ(gu32AFEStatus.load(), static_cast<uint32_t>(KVR_STATE_PREWORKING));
}

// ---- Getters and result buffers ------------------------------------------------

struct getter {
  uint16_t *(*api)();
  const char *api_text;
  const char *vendor_text;
  uint16_t *buffer;
};

const getter kGetters[] = {
    {kvr_afe_get_inspect_grid_data, "Get inspect_grid_data.", "Getting inspect grid data...",
     inspect_grid_data.data()},
    {kvr_afe_get_inspect_line_data, "Get inspect_line_data.", "Getting inspect line data...",
     inspect_line_data.data()},
    {kvr_afe_get_inspect_noise, "Get inspect_noise.", "Getting inspect noise data...",
     inspect_noise_data.data()},
    {kvr_afe_get_inspect_calib_grid_data, "Get inspect_calib_grid_data.",
     "Getting inspect calib grid data...", inspect_calib_grid_data.data()},
    {kvr_afe_get_inspect_calib_line_data, "Get inspect_calib_line_data.",
     "Getting inspect calib line data...", inspect_calib_line_data.data()},
};

TEST_F(SimTest, GettersHandOutTheirBuffersAndWarnUntilARunCompleted) {
  for (const getter &g : kGetters) {
    SCOPED_TRACE(g.api_text);
    clear_log();
    sim::clear_recording();
    EXPECT_EQ(g.api(), g.buffer);
    const std::vector<std::string> errors = {g.vendor_text, "Please run kvr_afe_inspect first!",
                                             g.api_text};
    EXPECT_EQ(android_errors(), errors);
    std::vector<std::string> all = {"IN"};
    all.insert(all.end(), errors.begin(), errors.end());
    all.push_back("OUT");
    EXPECT_EQ(log_messages(), all);
  }
  inspect_done.store(true);
  for (const getter &g : kGetters) {
    clear_log();
    EXPECT_EQ(g.api(), g.buffer);
    EXPECT_FALSE(logged("Please run kvr_afe_inspect first!")) << g.api_text;
  }
}

TEST_F(SimTest, DefaultDataResetsOnlyGridAndLine) {
  for (const getter &g : kGetters) {
    g.buffer[0] = 0x1234;
  }
  inspect_grid_data.back() = 0x1234;
  inspect_line_data.back() = 0x1234;
  set_default_inspect_data();
  auto all_default = [](const auto &buffer) {
    return std::all_of(buffer.begin(), buffer.end(), [](uint16_t v) { return v == 0x8000; });
  };
  EXPECT_TRUE(all_default(inspect_grid_data));
  EXPECT_TRUE(all_default(inspect_line_data));
  EXPECT_EQ(inspect_noise_data[0], 0x1234);
  EXPECT_EQ(inspect_calib_grid_data[0], 0x1234);
  EXPECT_EQ(inspect_calib_line_data[0], 0x1234);
  EXPECT_TRUE(android_logged("Set inspect_grid_data and inspect_line_data to default 0x8000"));
}

} // namespace
