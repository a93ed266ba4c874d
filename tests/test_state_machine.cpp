// The state machine: every entry point against every state, and the lifecycle.
#include <cerrno>
#include <string>
#include <tuple>
#include <type_traits>

#include "afe/afe.h"
#include "platform/ioctrl.h"
#include "platform/log.h"
#include "support/fixture.h"

namespace {

const std::pair<uint32_t, const char *> kStates[] = {{KVR_STATE_CLOSED, "KVR_STATE_CLOSED"},
                                                     {KVR_STATE_PREWORKING, "KVR_STATE_PREWORKING"},
                                                     {KVR_STATE_WORKING, "KVR_STATE_WORKING"},
                                                     {KVR_STATE_STANDBY, "KVR_STATE_STANDBY"}};

// Entry points answer a code or a pointer; a pointer counts as 1, NULL as 0.
template <typename T> uint64_t as_result(T v) {
  return std::is_pointer_v<T> ? v != T{} : (uint64_t)v;
}

struct entry_point {
  const char *name;
  uint32_t mask;
  uint64_t refusal; // the value returned when refused
  uint64_t (*call)();
};

#define ENTRY(fn, mask, refusal, ...)                                                              \
  {                                                                                                \
    "" #fn, mask, refusal, [] { return as_result(fn(__VA_ARGS__)); }                               \
  }

// clang-format off
const entry_point kEntryPoints[] = {
    ENTRY(kvr_afe_open, 0x1, 4), ENTRY(kvr_afe_open_project, 0x1, 4, "P1"),
    ENTRY(kvr_afe_close, 0x2, 4), ENTRY(kvr_afe_screen_on, 0xE, 4),
    ENTRY(kvr_afe_screen_off, 0x4, 4), ENTRY(kvr_afe_start, 0x6, 4),
    ENTRY(kvr_afe_stop, 0x4, 4), ENTRY(kvr_afe_get_info, 0x4, 0),
    ENTRY(kvr_afe_enter_tui, 0x4, 7), ENTRY(kvr_afe_exit_tui, 0x4, 7),
    ENTRY(kvr_afe_get_frame, 0xC, 0), ENTRY(kvr_afe_get_hw_cap, 0x4, 0),
    ENTRY(kvr_afe_enable_wakeup_gesture, 0xC, 7, 1), ENTRY(kvr_afe_disable_wakeup_gesture, 0xC, 7),
    ENTRY(kvr_afe_enable_freq_shift, 0x4, 4), ENTRY(kvr_afe_disable_freq_shift, 0x4, 4),
    ENTRY(kvr_afe_start_calibration, 0x4, 4), ENTRY(kvr_afe_start_autotune, 0x4, 4),
    ENTRY(kvr_afe_clear_status, 0x4, 4, 8), ENTRY(kvr_afe_set_baseline_update_interval, 0x4, 4, 10),
    ENTRY(kvr_afe_set_idle_touch_threshold, 0x4, 4, 30), ENTRY(kvr_afe_reset_idle_baseline, 0x4, 7),
    ENTRY(kvr_afe_enter_idle, 0x4, 7), ENTRY(kvr_afe_force_exit_idle, 0x4, 7),
    ENTRY(kvr_afe_force_to_freq_point, 0x4, 7, 1), ENTRY(kvr_afe_force_to_scan_rate, 0x4, 7, 1),
    ENTRY(kvr_afe_inspect, 0x6, 0xFFFFFFA1),
};
// clang-format on

std::string refusal_text(const char *state_name) {
  return std::string("API can't be executed in this mode [") + state_name + "].";
}

class StateMachine : public SimTest {
protected:
  // A fresh library and chip (no leak left behind), forced into the given state.
  void enter(uint32_t state) {
    TearDown();
    SetUp();
    gu32AFEStatus.store(state);
  }
};

} // namespace

TEST_F(StateMachine, EveryEntryPointAdmitsOrRefusesByItsMask) {
  for (const auto &ep : kEntryPoints) {
    for (const auto &[state, name] : kStates) {
      SCOPED_TRACE(std::string(ep.name) + " in " + name);
      enter(state);
      const uint64_t result = ep.call();
      if ((ep.mask & state) != 0) {
        EXPECT_FALSE(logged(refusal_text(name)));
      } else {
        EXPECT_EQ(result, ep.refusal);
        EXPECT_TRUE(logged(ep.name, refusal_text(name)));
        // Written twice: sink and Android log, and nothing else happens.
        EXPECT_EQ(android_errors(), std::vector<std::string>{refusal_text(name)});
        EXPECT_TRUE(sim::ioctls().empty());
        EXPECT_TRUE(sim::spi_transfers().empty());
        EXPECT_EQ(gu32AFEStatus.load(), state);
      }
    }
  }
}

TEST_F(StateMachine, CallsWithoutStateCheckAnswerInEveryState) {
  for (int32_t other : {3, 0, -1}) { // names go by state - 1; the rest read STANDBY
    EXPECT_STREQ(afe_status_to_str(other), "KVR_STATE_STANDBY");
  }
  for (const auto &[state, name] : kStates) {
    EXPECT_STREQ(afe_status_to_str(static_cast<int32_t>(state)), name);
    enter(state);
    EXPECT_EQ(kvr_afe_hal_spec_version(), 70400u);
    EXPECT_EQ(kvr_afe_hal_spec_major_version(), 1u);
    EXPECT_EQ(kvr_afe_hal_spec_minor_version(), 19u);
    EXPECT_EQ(kvr_afe_hal_spec_patch_version(), 0u);
    EXPECT_EQ(count_logged("IN_OUT"), 4);
    EXPECT_EQ(kvr_afe_set_calib_data_callback_func(nullptr, nullptr), 0u);
    EXPECT_EQ(kvr_afe_reset_freq_state(), 0u);
    EXPECT_EQ(kvr_afe_set_freq_point_min_hold_time(5), 0u);
    EXPECT_EQ(kvr_afe_set_idle_scan_rate(3), 0u);
    EXPECT_EQ(kvr_afe_start_freq_shift(), 0u);
    EXPECT_EQ(kvr_afe_set_wakeup_gesture_scan_rate(4), 0u);
    EXPECT_NE(kvr_afe_get_inspect_grid_data(), nullptr);
    EXPECT_FALSE(logged(refusal_text(name)));
  }
}

TEST_F(StateMachine, LifecycleOnTheSimulatedChip) {
  const struct {
    uint32_t (*call)();
    const char *tag, *text;
    uint32_t state;
  } steps[] = {
      {kvr_afe_open, "kvr_afe_open", "OUT", KVR_STATE_PREWORKING},
      {kvr_afe_start, "kvr_afe_start", "AFE Start.", KVR_STATE_WORKING},
      {kvr_afe_screen_off, "kvr_afe_screen_off", "AFE Suspend.", KVR_STATE_STANDBY},
      {kvr_afe_screen_on, "kvr_afe_screen_on", "AFE Resume.", KVR_STATE_WORKING},
      {kvr_afe_stop, "kvr_afe_stop", "AFE Stop.", KVR_STATE_PREWORKING},
      {kvr_afe_close, "kvr_afe_close", "Close node. AFE is closed.", KVR_STATE_CLOSED},
  };
  for (const auto &step : steps) {
    SCOPED_TRACE(step.tag);
    sim::clear_recording();
    EXPECT_EQ(step.call(), 0u);
    EXPECT_EQ(gu32AFEStatus.load(), step.state);
    EXPECT_TRUE(logged(step.tag, step.text));
    if (step.call != kvr_afe_open) { // the node opens in whatever mode the driver keeps
      EXPECT_EQ(sim::driver().blocking, step.state == KVR_STATE_WORKING);
    }
    if (step.call == kvr_afe_start) { // blocking mode, then the flush, before any SPI
      const auto calls = sim::ioctls();
      ASSERT_GE(calls.size(), 3u);
      EXPECT_EQ(std::make_tuple(calls[0].request, calls[0].value, calls[1].request),
                std::make_tuple(0x4004B806ul, 1u, 0x4004B809ul));
    }
  }
  EXPECT_FALSE(sim::driver().open);
}

TEST_F(StateMachine, FailuresOnTheWay) {
  sim::fail_open(ENOENT, 2);
  EXPECT_EQ(kvr_afe_open(), 3u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_CLOSED});
  EXPECT_TRUE(logged("kvr_afe_open", "Error opening ioctrl"));
  EXPECT_EQ(last_error(), "Error opening ioctrl");

  // A failed screen-off still publishes STANDBY; a failed screen-on changes nothing.
  open_and_start();
  sim::fail_ioctl(0x4004B806, EIO);
  EXPECT_EQ(kvr_afe_screen_off(), 4u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_STANDBY});
  EXPECT_FALSE(logged("kvr_afe_screen_off", "AFE Suspend."));
  ASSERT_EQ(kvr_afe_start_calibration(), 4u); // refused in STANDBY
  sim::fail_ioctl(0x4004B806, EIO);
  EXPECT_EQ(kvr_afe_screen_on(), 4u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_STANDBY});
  EXPECT_FALSE(logged("kvr_afe_screen_on", "AFE Resume."));
}

TEST_F(StateMachine, GetInfoCopiesTheIdentityAndTuiCallsOnlyCheckTheState) {
  ASSERT_EQ(kvr_afe_open_project("ABCDEFGHIJKL"), 0u);
  ASSERT_EQ(kvr_afe_start(), 0u);
  const kvr_afe_info *info = kvr_afe_get_info();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(std::string(info->ic_name, 10), "ABCDEFGHIJ");
  EXPECT_EQ(std::string(info->vendor_name).rfind("VendorQ742", 0), 0u);
  EXPECT_EQ(std::string(info->version).rfind("1.7.18", 0), 0u);
  EXPECT_TRUE(logged("kvr_afe_get_info", "OUT"));
  sim::clear_recording();
  EXPECT_EQ(kvr_afe_enter_tui(), 0u);
  EXPECT_EQ(kvr_afe_exit_tui(), 0u);
  EXPECT_TRUE(sim::ioctls().empty());
  EXPECT_TRUE(logged("kvr_afe_enter_tui", "OUT"));
}
