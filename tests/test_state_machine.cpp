// The state machine: every entry point in every state is admitted or
// refused exactly by its mask, with its refusal value and text; the
// lifecycle moves between states in the documented order.
#include <cerrno>
#include <functional>
#include <string>

#include "afe/afe.h"
#include "platform/ioctrl.h"
#include "platform/log.h"
#include "support/fixture.h"

namespace {

constexpr uint32_t kStates[] = {KVR_STATE_CLOSED, KVR_STATE_PREWORKING, KVR_STATE_WORKING,
                                KVR_STATE_STANDBY};

const char *state_name(uint32_t state) {
  switch (state) {
  case KVR_STATE_CLOSED: return "KVR_STATE_CLOSED";
  case KVR_STATE_PREWORKING: return "KVR_STATE_PREWORKING";
  case KVR_STATE_WORKING: return "KVR_STATE_WORKING";
  default: return "KVR_STATE_STANDBY";
  }
}

uint64_t ptr_result(const void *p) { return p == nullptr ? 0 : 1; }

struct entry_point {
  const char *name;
  uint32_t mask;
  uint64_t refusal; // the value returned when refused (0 for NULL)
  std::function<uint64_t()> call;
};

const std::vector<entry_point> &entry_points() {
  static const std::vector<entry_point> table = {
      {"kvr_afe_open", 0x1, 4, [] { return uint64_t{kvr_afe_open()}; }},
      {"kvr_afe_open_project", 0x1, 4, [] { return uint64_t{kvr_afe_open_project("P1")}; }},
      {"kvr_afe_close", 0x2, 4, [] { return uint64_t{kvr_afe_close()}; }},
      {"kvr_afe_screen_on", 0xE, 4, [] { return uint64_t{kvr_afe_screen_on()}; }},
      {"kvr_afe_screen_off", 0x4, 4, [] { return uint64_t{kvr_afe_screen_off()}; }},
      {"kvr_afe_start", 0x6, 4, [] { return uint64_t{kvr_afe_start()}; }},
      {"kvr_afe_stop", 0x4, 4, [] { return uint64_t{kvr_afe_stop()}; }},
      {"kvr_afe_get_info", 0x4, 0, [] { return ptr_result(kvr_afe_get_info()); }},
      {"kvr_afe_enter_tui", 0x4, 7, [] { return uint64_t{kvr_afe_enter_tui()}; }},
      {"kvr_afe_exit_tui", 0x4, 7, [] { return uint64_t{kvr_afe_exit_tui()}; }},
      {"kvr_afe_get_frame", 0xC, 0, [] { return ptr_result(kvr_afe_get_frame()); }},
      {"kvr_afe_get_hw_cap", 0x4, 0, [] { return ptr_result(kvr_afe_get_hw_cap()); }},
      {"kvr_afe_enable_wakeup_gesture", 0xC, 7,
       [] { return uint64_t{kvr_afe_enable_wakeup_gesture(1)}; }},
      {"kvr_afe_disable_wakeup_gesture", 0xC, 7,
       [] { return uint64_t{kvr_afe_disable_wakeup_gesture()}; }},
      {"kvr_afe_enable_freq_shift", 0x4, 4, [] { return uint64_t{kvr_afe_enable_freq_shift()}; }},
      {"kvr_afe_disable_freq_shift", 0x4, 4,
       [] { return uint64_t{kvr_afe_disable_freq_shift()}; }},
      {"kvr_afe_start_calibration", 0x4, 4, [] { return uint64_t{kvr_afe_start_calibration()}; }},
      {"kvr_afe_start_autotune", 0x4, 4, [] { return uint64_t{kvr_afe_start_autotune()}; }},
      {"kvr_afe_clear_status", 0x4, 4, [] { return uint64_t{kvr_afe_clear_status(8)}; }},
      {"kvr_afe_set_baseline_update_interval", 0x4, 4,
       [] { return uint64_t{kvr_afe_set_baseline_update_interval(10)}; }},
      {"kvr_afe_set_idle_touch_threshold", 0x4, 4,
       [] { return uint64_t{kvr_afe_set_idle_touch_threshold(30)}; }},
      {"kvr_afe_reset_idle_baseline", 0x4, 7,
       [] { return uint64_t{kvr_afe_reset_idle_baseline()}; }},
      {"kvr_afe_enter_idle", 0x4, 7, [] { return uint64_t{kvr_afe_enter_idle()}; }},
      {"kvr_afe_force_exit_idle", 0x4, 7, [] { return uint64_t{kvr_afe_force_exit_idle()}; }},
      {"kvr_afe_force_to_freq_point", 0x4, 7,
       [] { return uint64_t{kvr_afe_force_to_freq_point(1)}; }},
      {"kvr_afe_force_to_scan_rate", 0x4, 7,
       [] { return uint64_t{kvr_afe_force_to_scan_rate(1)}; }},
      {"kvr_afe_inspect", 0x6, 0xFFFFFFA1, [] { return uint64_t{kvr_afe_inspect()}; }},
  };
  return table;
}

class StateMachine : public SimTest {
protected:
  // A fresh library and chip, forced into the given state.
  void enter(uint32_t state) {
    const log_sink_fn sink = log_callback.load();
    sim::reset();
    reset_library_state();
    log_callback.store(sink);
    log_level.store(5);
    gu32AFEStatus.store(state);
    sim::clear_recording();
    clear_log();
  }
};

} // namespace

TEST_F(StateMachine, EveryEntryPointAdmitsOrRefusesByItsMask) {
  for (const auto &ep : entry_points()) {
    for (uint32_t state : kStates) {
      enter(state);
      const uint64_t result = ep.call();
      const std::string refusal =
          std::string("API can't be executed in this mode [") + state_name(state) + "].";
      const bool allowed = (ep.mask & state) != 0;
      SCOPED_TRACE(std::string(ep.name) + " in " + state_name(state));
      if (allowed) {
        EXPECT_FALSE(logged(refusal));
      } else {
        EXPECT_EQ(result, ep.refusal);
        EXPECT_TRUE(logged(ep.name, refusal));
        // Written twice: sink and Android log, and nothing else happens.
        EXPECT_EQ(android_errors(), std::vector<std::string>{refusal});
        EXPECT_TRUE(sim::ioctls().empty());
        EXPECT_TRUE(sim::spi_transfers().empty());
        EXPECT_EQ(gu32AFEStatus.load(), state);
      }
    }
  }
}

TEST_F(StateMachine, StateNamesFollowTheTable) {
  EXPECT_STREQ(afe_status_to_str(1), "KVR_STATE_CLOSED");
  EXPECT_STREQ(afe_status_to_str(2), "KVR_STATE_PREWORKING");
  EXPECT_STREQ(afe_status_to_str(3), "KVR_STATE_STANDBY");
  EXPECT_STREQ(afe_status_to_str(4), "KVR_STATE_WORKING");
  EXPECT_STREQ(afe_status_to_str(8), "KVR_STATE_STANDBY");
  EXPECT_STREQ(afe_status_to_str(0), "KVR_STATE_STANDBY");
  EXPECT_STREQ(afe_status_to_str(-1), "KVR_STATE_STANDBY");
}

TEST_F(StateMachine, CallsWithoutStateCheckAnswerInEveryState) {
  for (uint32_t state : kStates) {
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
    EXPECT_FALSE(logged(std::string("API can't be executed in this mode [") +
                        state_name(state) + "]."));
  }
}

TEST_F(StateMachine, LifecycleOnTheSimulatedChip) {
  EXPECT_EQ(kvr_afe_open(), 0u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_PREWORKING});
  EXPECT_TRUE(logged("kvr_afe_open", "OUT"));
  EXPECT_EQ(kvr_afe_start(), 0u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_WORKING});
  EXPECT_TRUE(logged("kvr_afe_start", "AFE Start."));
  EXPECT_TRUE(sim::driver().blocking);

  EXPECT_EQ(kvr_afe_close(), 4u); // no way from WORKING to CLOSED
  EXPECT_EQ(kvr_afe_screen_off(), 0u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_STANDBY});
  EXPECT_FALSE(sim::driver().blocking);
  EXPECT_TRUE(logged("kvr_afe_screen_off", "AFE Suspend."));
  EXPECT_EQ(kvr_afe_stop(), 4u);

  EXPECT_EQ(kvr_afe_screen_on(), 0u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_WORKING});
  EXPECT_TRUE(sim::driver().blocking);
  EXPECT_TRUE(logged("kvr_afe_screen_on", "AFE Resume."));

  EXPECT_EQ(kvr_afe_stop(), 0u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_PREWORKING});
  EXPECT_FALSE(sim::driver().blocking);
  EXPECT_TRUE(logged("kvr_afe_stop", "AFE Stop."));
  EXPECT_EQ(kvr_afe_close(), 0u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_CLOSED});
  EXPECT_FALSE(sim::driver().open);
  EXPECT_TRUE(logged("kvr_afe_close", "Close node. AFE is closed."));
}

TEST_F(StateMachine, StartOrdersItsDriverCalls) {
  ASSERT_EQ(kvr_afe_open(), 0u);
  sim::clear_recording();
  ASSERT_EQ(kvr_afe_start(), 0u);
  // Blocking mode first, then the frame buffer flush, before any SPI.
  auto calls = sim::ioctls();
  ASSERT_GE(calls.size(), 3u);
  EXPECT_EQ(calls[0].request, 0x4004B806ul);
  EXPECT_EQ(calls[0].value, 1u);
  EXPECT_EQ(calls[1].request, 0x4004B809ul);
}

TEST_F(StateMachine, OpenFailureStaysClosed) {
  sim::fail_open(ENOENT, 2);
  EXPECT_EQ(kvr_afe_open(), 3u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_CLOSED});
  EXPECT_TRUE(logged("kvr_afe_open", "Error opening ioctrl"));
  auto errors = android_errors();
  ASSERT_FALSE(errors.empty());
  EXPECT_EQ(errors.back(), "Error opening ioctrl");
}

TEST_F(StateMachine, ScreenOffFailureLeavesStandby) {
  open_and_start();
  sim::fail_ioctl(0x4004B806, EIO);
  EXPECT_EQ(kvr_afe_screen_off(), 4u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_STANDBY});
  EXPECT_FALSE(logged("kvr_afe_screen_off", "AFE Suspend."));
}

TEST_F(StateMachine, ScreenOnFailureChangesNothing) {
  open_and_start();
  ASSERT_EQ(kvr_afe_screen_off(), 0u);
  ASSERT_EQ(kvr_afe_start_calibration(), 4u); // refused in STANDBY
  sim::fail_ioctl(0x4004B806, EIO);
  EXPECT_EQ(kvr_afe_screen_on(), 4u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_STANDBY});
  EXPECT_FALSE(logged("kvr_afe_screen_on", "AFE Resume."));
}

TEST_F(StateMachine, GetInfoCopiesTheIdentity) {
  ASSERT_EQ(kvr_afe_open_project("ABCDEFGHIJKL"), 0u);
  ASSERT_EQ(kvr_afe_start(), 0u);
  const kvr_afe_info *info = kvr_afe_get_info();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(std::string(info->ic_name, 10), "ABCDEFGHIJ");
  EXPECT_EQ(std::string(info->vendor_name).rfind("VendorQ742", 0), 0u);
  EXPECT_EQ(std::string(info->version).rfind("1.7.18", 0), 0u);
  EXPECT_TRUE(logged("kvr_afe_get_info", "OUT"));
}

TEST_F(StateMachine, TuiCallsOnlyCheckTheState) {
  open_and_start();
  sim::clear_recording();
  EXPECT_EQ(kvr_afe_enter_tui(), 0u);
  EXPECT_EQ(kvr_afe_exit_tui(), 0u);
  EXPECT_TRUE(sim::ioctls().empty());
  EXPECT_TRUE(logged("kvr_afe_enter_tui", "OUT"));
}
