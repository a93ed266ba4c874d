// The state machine: every entry point against every state, the lifecycle
// as the chip and the frame thread see it, and the deferred command queue:
// requests queued now, sent by frame-thread passes.
#include <cerrno>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "afe/afe.h"
#include "chip/ops/idle_calib.h"
#include "chip/ops/lifecycle.h"
#include "platform/ioctrl.h"
#include "platform/log.h"
#include "platform/os.h"
#include "support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using commands = std::vector<bytes>;

const bytes kSenseOn{0xA0, 0x03, 0x00};
const bytes kSenseOff{0xA0, 0x00, 0x00};
const bytes kScanRate1{0xC0, 0x00, 0x01};
const bytes kEnterIdle{0xA0, 0x03, 0x02};
const bytes kCalibration{0xC0, 0x02};

// A frame-thread call with the driver's queue empty runs every pending
// command. Returns the firmware commands the IC received; the log holds what
// the pass said.
commands full_pass() {
  ioctrl_clear_frame_buffer();
  clear_log();
  sim::clear_recording();
  kvr_afe_get_frame();
  return sim::fw_commands();
}

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
  uint64_t refusal;
  const char *first_line; // level-3 line logged before "IN", or nullptr
  uint64_t (*call)();
};

#define ENTRY(fn, mask, refusal, first, ...)                                                       \
  {                                                                                                \
    "" #fn, mask, refusal, first, [] { return as_result(fn(__VA_ARGS__)); }                        \
  }

// clang-format off
const entry_point kEntryPoints[] = {
    ENTRY(kvr_afe_open, 0x1, 4, nullptr), ENTRY(kvr_afe_open_project, 0x1, 4, nullptr, "P1"),
    ENTRY(kvr_afe_close, 0x2, 4, nullptr), ENTRY(kvr_afe_screen_on, 0xE, 4, nullptr),
    ENTRY(kvr_afe_screen_off, 0x4, 4, nullptr), ENTRY(kvr_afe_start, 0x6, 4, nullptr),
    ENTRY(kvr_afe_stop, 0x4, 4, nullptr), ENTRY(kvr_afe_get_info, 0x4, 0, nullptr),
    ENTRY(kvr_afe_enter_tui, 0x4, 7, nullptr), ENTRY(kvr_afe_exit_tui, 0x4, 7, nullptr),
    ENTRY(kvr_afe_get_frame, 0xC, 0, nullptr), ENTRY(kvr_afe_get_hw_cap, 0x4, 0, nullptr),
    ENTRY(kvr_afe_enable_wakeup_gesture, 0xC, 7, nullptr, 1),
    ENTRY(kvr_afe_disable_wakeup_gesture, 0xC, 7, nullptr),
    ENTRY(kvr_afe_enable_freq_shift, 0x4, 4, nullptr),
    ENTRY(kvr_afe_disable_freq_shift, 0x4, 4, nullptr),
    ENTRY(kvr_afe_start_calibration, 0x4, 4, "Send start calibration command"),
    ENTRY(kvr_afe_start_autotune, 0x4, 4, "Send start autotune command"),
    ENTRY(kvr_afe_clear_status, 0x4, 4, nullptr, 8),
    ENTRY(kvr_afe_set_baseline_update_interval, 0x4, 4, nullptr, 10),
    ENTRY(kvr_afe_set_idle_touch_threshold, 0x4, 4, nullptr, 30),
    ENTRY(kvr_afe_reset_idle_baseline, 0x4, 7, "Send reset idle baseline command"),
    ENTRY(kvr_afe_enter_idle, 0x4, 7, "Send enter idle command"),
    ENTRY(kvr_afe_force_exit_idle, 0x4, 7, "Send force exit idle command"),
    ENTRY(kvr_afe_force_to_freq_point, 0x4, 7, "Send force freq point command 2", 2),
    ENTRY(kvr_afe_force_to_scan_rate, 0x4, 7, "Send force scan rate command 1", 1),
    ENTRY(kvr_afe_inspect, 0x6, 0xFFFFFFA1, nullptr),
};
// clang-format on

std::string refusal_text(const char *state_name) {
  return std::string("API can't be executed in this mode [") + state_name + "].";
}

// The state word at each blocking-mode ioctl, and at each queue reset.
std::vector<std::pair<uint32_t, uint32_t>> g_block_calls; // {value, state}
std::vector<uint32_t> g_states_at_queue_reset;
afehal_os_ops g_spy_os;
int (*g_next_ioctl)(int, unsigned long, unsigned long);
log_sink_fn g_next_sink;

int spy_ioctl(int fd, unsigned long request, unsigned long arg) {
  if (request == KVR_IOCTL_SET_BLOCK) {
    g_block_calls.emplace_back(static_cast<uint32_t>(arg), gu32AFEStatus.load());
  }
  return g_next_ioctl(fd, request, arg);
}

void spy_sink(const char *line) {
  if (strstr(line, "Reset all command flags and parameters to 0") != nullptr) {
    g_states_at_queue_reset.push_back(gu32AFEStatus.load());
  }
  g_next_sink(line);
}

class StateMachine : public SimTest {
protected:
  // A fresh library and chip brought into state by the production calls.
  void reach(uint32_t state) {
    TearDown();
    SetUp();
    if (state != KVR_STATE_CLOSED) {
      ASSERT_EQ(kvr_afe_open(), 0u);
    }
    if (state & (KVR_STATE_WORKING | KVR_STATE_STANDBY)) {
      ASSERT_EQ(kvr_afe_start(), 0u);
    }
    if (state == KVR_STATE_STANDBY) {
      ASSERT_EQ(kvr_afe_screen_off(), 0u);
    }
    clear_log();
    sim::clear_recording();
  }
};

TEST_F(StateMachine, EveryEntryPointAdmitsOrRefusesByItsMask) {
  for (const auto &ep : kEntryPoints) {
    for (const auto &[state, name] : kStates) {
      SCOPED_TRACE(std::string(ep.name) + " in " + name);
      reach(state);
      const uint64_t result = ep.call();
      if ((ep.mask & state) != 0) {
        EXPECT_FALSE(mentioned(refusal_text(name)));
        continue;
      }
      EXPECT_EQ(result, ep.refusal);
      EXPECT_TRUE(logged_error(ep.name, refusal_text(name)));
      const bool frame_call = strcmp(ep.name, "kvr_afe_get_frame") == 0;
      EXPECT_TRUE(frame_call ? logged_at(3, ep.name, "IN.") : logged_at(5, ep.name, "IN"));
      std::vector<std::string> said = {frame_call ? "IN." : "IN", refusal_text(name)};
      if (ep.first_line != nullptr) {
        EXPECT_TRUE(logged_at(3, ep.name, ep.first_line));
        said.insert(said.begin(), ep.first_line);
      }
      // Nothing else happens: no other line, no ioctl, no state change.
      EXPECT_EQ(log_messages(), said);
      EXPECT_TRUE(sim::ioctls().empty());
      EXPECT_EQ(gu32AFEStatus.load(), state);
    }
  }
}

void dummy_calib(void) {}
void dummy_context(void) {}

TEST_F(StateMachine, UncheckedCallsAnswerInEveryState) {
  for (int32_t other : {3, 0, -1}) { // names go by state - 1; the rest read STANDBY
    EXPECT_STREQ(afe_status_to_str(other), "KVR_STATE_STANDBY");
  }
  const std::pair<uint32_t (*)(), const char *> deprecated[] = {
      {kvr_afe_reset_freq_state, "function is empty due to deprecation"},
      {[] { return kvr_afe_set_freq_point_min_hold_time(65535); },
       "function is empty due to deprecation. 65535"},
      {[] { return kvr_afe_set_idle_scan_rate(200); }, "function is empty: 200"},
      {kvr_afe_start_freq_shift, "this api has been deprecated, no need to implement it."},
      {[] { return kvr_afe_set_wakeup_gesture_scan_rate(7); }, "function is empty: 7"},
  };
  for (const auto &[state, name] : kStates) {
    SCOPED_TRACE(name);
    EXPECT_STREQ(afe_status_to_str(static_cast<int32_t>(state)), name);
    reach(state);
    EXPECT_EQ(kvr_afe_hal_spec_version(), 70400u);
    EXPECT_EQ(kvr_afe_hal_spec_major_version(), 1u);
    EXPECT_EQ(kvr_afe_hal_spec_minor_version(), 19u);
    EXPECT_EQ(kvr_afe_hal_spec_patch_version(), 0u);
    EXPECT_EQ(count_logged(5, "IN_OUT"), 4);
    for (const auto &[call, text] : deprecated) {
      clear_log();
      EXPECT_EQ(call(), 0u);
      EXPECT_EQ(log_messages(), std::vector<std::string>{text});
      EXPECT_TRUE(logged_at(3, text));
    }
    EXPECT_EQ(kvr_afe_set_calib_data_callback_func(dummy_calib, dummy_context), 0u);
    EXPECT_EQ(count_logged(5, "only write has been used"), 1);
    EXPECT_TRUE(logged_at(3, "vendor_set_calib_data_callback_func", "only write has been used"));
    EXPECT_TRUE(autotune_ops.function.load() == dummy_calib &&
                autotune_ops.context.load() == dummy_context);
    EXPECT_TRUE(sim::ioctls().empty());
  }
}

TEST_F(StateMachine, LifecycleOnTheSimulatedChip) {
  const struct {
    uint32_t (*call)();
    const char *tag, *text;
    uint32_t state;
    bool sensing;
    const bytes *last_command; // the last firmware command the IC saw
  } steps[] = {
      {kvr_afe_open, "kvr_afe_open", nullptr, KVR_STATE_PREWORKING, false, nullptr},
      {kvr_afe_start, "kvr_afe_start", "AFE Start.", KVR_STATE_WORKING, true, &kSenseOn},
      {kvr_afe_screen_off, "kvr_afe_screen_off", "AFE Suspend.", KVR_STATE_STANDBY, false,
       &kSenseOff},
      {kvr_afe_screen_on, "kvr_afe_screen_on", "AFE Resume.", KVR_STATE_WORKING, true, &kSenseOn},
      {kvr_afe_stop, "kvr_afe_stop", "AFE Stop.", KVR_STATE_PREWORKING, false, &kSenseOff},
      {kvr_afe_close, "kvr_afe_close", "Close node. AFE is closed.", KVR_STATE_CLOSED, false,
       nullptr},
  };
  for (const auto &step : steps) {
    SCOPED_TRACE(step.tag);
    clear_log();
    sim::clear_recording();
    EXPECT_EQ(step.call(), 0u);
    EXPECT_EQ(gu32AFEStatus.load(), step.state);
    EXPECT_TRUE(logged_at(5, step.tag, "OUT"));
    EXPECT_TRUE(step.text == nullptr || logged_at(3, step.tag, step.text));
    EXPECT_EQ(sim::ic().sensing, step.sensing);
    const auto commands = sim::fw_commands();
    if (step.last_command == nullptr) {
      EXPECT_TRUE(commands.empty());
    } else {
      ASSERT_FALSE(commands.empty());
      EXPECT_EQ(commands.back(), *step.last_command);
    }
    if (step.call != kvr_afe_open) { // the node opens in whatever mode the driver keeps
      EXPECT_EQ(sim::driver().blocking, step.state == KVR_STATE_WORKING);
    }
    const auto calls = sim::ioctls();
    if (step.call == kvr_afe_start) { // blocking mode, then the flush, before any SPI
      ASSERT_GE(calls.size(), 3u);
      EXPECT_EQ(calls[0].request, KVR_IOCTL_SET_BLOCK);
      EXPECT_EQ(calls[0].value, 1u);
      EXPECT_EQ(calls[1].request, KVR_IOCTL_CLEAR_FRAME_BUFFER);
    }
    if (step.call == kvr_afe_screen_on) { // the flush, the chip, then blocking mode
      ASSERT_GE(calls.size(), 3u);
      EXPECT_EQ(calls.front().request, KVR_IOCTL_CLEAR_FRAME_BUFFER);
      EXPECT_EQ(calls[1].request, KVR_IOCTL_SPI_SYNC);
      EXPECT_EQ(calls.back().request, KVR_IOCTL_SET_BLOCK);
      EXPECT_EQ(calls.back().value, 1u);
    }
  }
  EXPECT_FALSE(sim::driver().open);
}

// The frame thread reads the state word without a lock: screen-off must
// publish STANDBY before it stops the blocking reads, and start and
// screen-on must drop the queue before they publish WORKING.
TEST_F(StateMachine, StateIsPublishedInTheOrderTheFrameThreadRelies) {
  g_block_calls.clear();
  g_states_at_queue_reset.clear();
  g_spy_os = os();
  g_next_ioctl = g_spy_os.ioctl;
  g_spy_os.ioctl = spy_ioctl;
  os_install(&g_spy_os);
  g_next_sink = log_callback.load();
  log_callback.store(spy_sink);

  ASSERT_EQ(kvr_afe_open(), 0u);
  ASSERT_EQ(kvr_afe_start(), 0u);
  ASSERT_EQ(kvr_afe_screen_off(), 0u);
  ASSERT_EQ(kvr_afe_screen_on(), 0u);
  EXPECT_EQ(g_states_at_queue_reset,
            (std::vector<uint32_t>{KVR_STATE_PREWORKING, KVR_STATE_STANDBY}));
  EXPECT_EQ(g_block_calls,
            (std::vector<std::pair<uint32_t, uint32_t>>{
                {1, KVR_STATE_PREWORKING}, {0, KVR_STATE_STANDBY}, {1, KVR_STATE_STANDBY}}));
}

// The lifecycle calls hand the chip side's result back unchanged and still
// move on; start and screen-on forget an SOS raised on the way.
TEST_F(StateMachine, ChipSideFailuresArePassedThroughWithoutRollingBack) {
  const char *kOnFailed = "Error writing sense-on command!!";
  const char *kOffFailed = "Error writing sense off command!!";
  const struct {
    uint32_t (*call)();
    uint32_t result;
    uint32_t state;
    const char *tag, *error;
  } cases[] = {{kvr_afe_start, 3, KVR_STATE_WORKING, "vendor_afe_start", kOnFailed},
               {kvr_afe_screen_on, 4, KVR_STATE_WORKING, "vendor_afe_start", kOnFailed},
               {kvr_afe_screen_off, 4, KVR_STATE_STANDBY, "vendor_afe_stop", kOffFailed},
               {kvr_afe_stop, 3, KVR_STATE_PREWORKING, "vendor_afe_stop", kOffFailed}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.result);
    reach(KVR_STATE_WORKING);
    sim::drop_echoes(-1); // each command still takes effect, but its echo is lost
    EXPECT_EQ(c.call(), c.result);
    EXPECT_EQ(gu32AFEStatus.load(), c.state);
    EXPECT_TRUE(logged_error("fw_write", "triggering SOS.."));
    EXPECT_TRUE(logged_error(c.tag, c.error));
    sim::clear_faults();
    if (c.state == KVR_STATE_WORKING) {
      EXPECT_EQ(kvr_afe_get_frame(), &frame_data) << "the SOS of the failed command stayed";
    } else { // still raised; the exported getter hands it out once
      EXPECT_EQ(get_sos_frame(), &sos_frame_data);
      EXPECT_EQ(get_sos_frame(), nullptr);
    }
  }
}

TEST_F(StateMachine, FailedBlockingIoctlsAndNode) {
  sim::fail_open(ENOENT, 2);
  EXPECT_EQ(kvr_afe_open(), 3u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_CLOSED});
  EXPECT_TRUE(logged_error("kvr_afe_open", "Error opening ioctrl"));

  // A screen-on that cannot set blocking mode changes nothing, not even the
  // queue.
  reach(KVR_STATE_WORKING);
  ASSERT_NE(kvr_afe_get_hw_cap(), nullptr); // the rate list the command needs
  ASSERT_EQ(kvr_afe_force_to_scan_rate(1), 0u);
  sim::fail_ioctl(KVR_IOCTL_SET_BLOCK, EIO);
  EXPECT_EQ(kvr_afe_screen_on(), 4u);
  EXPECT_FALSE(mentioned("AFE Resume."));
  EXPECT_EQ(full_pass(), std::vector<bytes>{kScanRate1});

  // Screen-off publishes STANDBY even when blocking mode cannot be left, but
  // then leaves the IC scanning.
  sim::clear_recording();
  sim::fail_ioctl(KVR_IOCTL_SET_BLOCK, EIO);
  EXPECT_EQ(kvr_afe_screen_off(), 4u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_STANDBY});
  EXPECT_TRUE(sim::ic().sensing);
  EXPECT_TRUE(sim::fw_commands().empty());
  EXPECT_FALSE(mentioned("AFE Suspend."));
  sim::fail_ioctl(KVR_IOCTL_SET_BLOCK, EIO);
  EXPECT_EQ(kvr_afe_screen_on(), 4u);
  EXPECT_EQ(gu32AFEStatus.load(), uint32_t{KVR_STATE_STANDBY});
}

TEST_F(StateMachine, GetInfoCopiesTheIdentityAndTuiCallsOnlyCheckTheState) {
  ASSERT_EQ(kvr_afe_open_project("ABCDEFGHIJKL"), 0u);
  ASSERT_EQ(kvr_afe_start(), 0u);
  const sim::chip_identity id = sim::identity();
  char version[64];
  snprintf(version, sizeof version, "1.7.18 %04X %04X %04X 0021", id.fw_ver, id.cfg_ver,
           id.cx_cfg_ver);
  clear_log();
  const kvr_afe_info *info = kvr_afe_get_info();
  ASSERT_NE(info, nullptr);
  EXPECT_STREQ(info->ic_name, "ABCDEFGHIJ");
  EXPECT_STREQ(info->vendor_name, "VendorQ742ABCDEFGHIJ");
  EXPECT_STREQ(info->version, version);
  EXPECT_TRUE(
      logged_at(3, "kvr_afe_get_info", std::string("ABCDEFGHIJ/VendorQ742ABCDEFGHIJ/") + version));
  EXPECT_TRUE(logged_at(5, "kvr_afe_get_info", "OUT"));
  // The fields are rewritten whole: a shorter project leaves nothing behind.
  ASSERT_EQ(kvr_afe_stop(), 0u);
  ASSERT_EQ(kvr_afe_close(), 0u);
  ASSERT_EQ(kvr_afe_open_project("XY"), 0u);
  ASSERT_EQ(kvr_afe_start(), 0u);
  ASSERT_EQ(kvr_afe_get_info(), info);
  EXPECT_EQ(std::string(info->ic_name, 32), std::string("XY") + std::string(30, '\0'));
  EXPECT_EQ(std::string(info->vendor_name, 32), "VendorQ742XY" + std::string(20, '\0'));
  sim::clear_recording();
  EXPECT_EQ(kvr_afe_enter_tui(), 0u);
  EXPECT_EQ(kvr_afe_exit_tui(), 0u);
  EXPECT_TRUE(sim::ioctls().empty());
  EXPECT_TRUE(logged_at(5, "kvr_afe_exit_tui", "OUT"));
}

// The panel's frame rate byte in the configuration; the idle interval is
// written in frames of it.
constexpr uint16_t kCfgFrameRate = 0x0087;
constexpr uint16_t kCfgIdleInterval = 0x0042;

class CommandQueueTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    sim::cfg_write(kCfgFrameRate, {20});
    open_and_start();
    ASSERT_NE(kvr_afe_get_hw_cap(), nullptr);
    clear_log();
    sim::clear_recording();
  }
};

TEST_F(CommandQueueTest, FullPassRunsPendingCommandsInTableOrderOnce) {
  // Automatic shift comes back only with a sense-on, and this IC resets its
  // idle baseline by itself: none of these requests sends anything.
  ASSERT_EQ(kvr_afe_enable_freq_shift(), 0u);
  ASSERT_EQ(kvr_afe_disable_freq_shift(), 0u);
  ASSERT_EQ(kvr_afe_reset_idle_baseline(), 0u);
  full_pass();
  EXPECT_TRUE(sim::spi_transfers().empty());

  // Queued against the table order; the exit cancels the first idle entry.
  ASSERT_EQ(kvr_afe_enter_idle(), 0u);
  ASSERT_EQ(kvr_afe_force_exit_idle(), 0u);
  ASSERT_EQ(kvr_afe_force_to_scan_rate(0), 0u);
  ASSERT_EQ(kvr_afe_force_to_scan_rate(1), 0u); // overwrites the unexecuted 0
  ASSERT_EQ(kvr_afe_force_to_freq_point(0), 0u);
  EXPECT_TRUE(sim::fw_commands().empty()) << "the control thread never talks to the IC";
  EXPECT_EQ(full_pass(), (commands{kSenseOn, bytes{0xA0, 0x03, 0x04}, kScanRate1}));
  EXPECT_TRUE(full_pass().empty());

  // An exit does not cancel a later entry; it runs first.
  ASSERT_EQ(kvr_afe_enter_idle(), 0u);
  ASSERT_EQ(kvr_afe_force_exit_idle(), 0u);
  ASSERT_EQ(kvr_afe_enter_idle(), 0u);
  EXPECT_EQ(full_pass(), (commands{kSenseOn, kEnterIdle}));
  EXPECT_EQ(sim::driver().frame_timeout_ms, KVR_TIMEOUT_IDLE_MS);
}

// A command whose transfer fails stays pending and goes out on the next
// pass, once.
TEST_F(CommandQueueTest, FailedCommandsAreRedoneOnTheNextPass) {
  const struct {
    const char *name;
    uint32_t (*queue)();
    bytes sent; // the transfer that carries the command to the IC
    const char *tag, *error;
  } cases[] = {
      {"enter idle", kvr_afe_enter_idle, kEnterIdle, "vendor_enter_idle",
       "Entering idle mode failed"},
      {"exit idle", kvr_afe_force_exit_idle, kSenseOn, "fw_write",
       "Error sending dummy HW command"},
      {"frequency point", [] { return kvr_afe_force_to_freq_point(1); }, bytes{0xA0, 0x03, 0x05},
       "callback_force_freq_point", "Set frequency failed, redo"},
      {"scan rate", [] { return kvr_afe_force_to_scan_rate(1); }, kScanRate1,
       "callback_force_scan_rate", "Set scan rate failed, redo"},
      {"idle interval", [] { return kvr_afe_set_baseline_update_interval(50); },
       bytes{0xA8, 0x00, 0x42, 25}, "vendor_idle_update_interval", "Error reading the config data"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    TearDown();
    SetUp();
    auto times_sent = [&c] {
      int n = 0;
      for (const auto &tx : spi_sent()) {
        n += tx == c.sent ? 1 : 0;
      }
      return n;
    };
    ASSERT_EQ(c.queue(), 0u);
    sim::fail_spi_transfer(1, EIO); // the first transfer of the pass
    full_pass();
    EXPECT_EQ(times_sent(), 0);
    EXPECT_TRUE(logged_error(c.tag, c.error));
    full_pass();
    EXPECT_EQ(times_sent(), 1);
    full_pass();
    EXPECT_EQ(times_sent(), 0);
  }
}

TEST_F(CommandQueueTest, BaselineIntervalReachesTheChipInFramesOnlyWhenItChanges) {
  ASSERT_EQ(kvr_afe_set_baseline_update_interval(50), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_idle_update_interval", "expec: 50 existing: 0"));
  full_pass();
  EXPECT_EQ(sim::cfg_read(kCfgIdleInterval, 1), bytes{25}); // 50 * 10 / 20 frames
  ASSERT_EQ(kvr_afe_set_baseline_update_interval(50), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_idle_update_interval", "skip setting"));
  full_pass();
  EXPECT_TRUE(sim::spi_transfers().empty());
}

// Start and screen-on drop every pending request and forget the stored
// parameters: nothing asked before a restart reaches the restarted IC.
TEST_F(CommandQueueTest, RestartDropsRequestsAndForgetsTheirParameters) {
  for (auto restart : {kvr_afe_start, kvr_afe_screen_on}) {
    ASSERT_EQ(kvr_afe_set_idle_touch_threshold(30), 0u);
    ASSERT_EQ(kvr_afe_set_baseline_update_interval(50), 0u);
    ASSERT_EQ(kvr_afe_force_to_scan_rate(1), 0u);
    ASSERT_EQ(kvr_afe_start_autotune(), 0u);
    ASSERT_EQ(kvr_afe_clear_status(4), 0u);
    ASSERT_EQ(restart(), 0u);
    EXPECT_TRUE(full_pass().empty());
    EXPECT_EQ(count_logged_starting(3, "Clear status "), 0);

    ASSERT_EQ(kvr_afe_set_idle_touch_threshold(30), 0u);
    EXPECT_TRUE(logged_at(3, "expec: 30 existing: 0"));
    ASSERT_EQ(kvr_afe_set_baseline_update_interval(50), 0u);
    EXPECT_TRUE(logged_at(3, "expec: 50 existing: 0"));
    ASSERT_EQ(kvr_afe_start_autotune(), 0u);
    EXPECT_TRUE(logged_at(3, "Add autotune to command"));
    ASSERT_EQ(kvr_afe_clear_status(8), 0u);
    EXPECT_TRUE(full_pass().empty());
    EXPECT_TRUE(logged_at(3, "vendor_clear_status", "Clear status 00000008"));
  }
}

TEST_F(CommandQueueTest, UnsupportedCommandsAreSkippedAndNotHeld) {
  // This chip supports neither: both are skipped, and autotune is released.
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  ASSERT_EQ(kvr_afe_start_autotune(), 0u);
  ASSERT_EQ(kvr_afe_start_autotune(), 0u);
  EXPECT_EQ(count_logged(3, "Add autotune to command"), 1);
  EXPECT_TRUE(full_pass().empty());
  EXPECT_TRUE(logged_at(3, "callback_calibration", "skip setting"));
  EXPECT_TRUE(logged_at(3, "callback_autotune", "skip autotune"));
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  ASSERT_EQ(kvr_afe_start_autotune(), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_calibration", "Add calibration to command"));
  EXPECT_TRUE(logged_at(3, "cmd_add_autotune", "Add autotune to command"));
}

TEST_F(CommandQueueTest, CalibrationCancelsThePassForgetsParametersAndIsHeld) {
  hw_cap.calibration_enable = 1;
  publish_hw_cap(hw_cap);
  ASSERT_EQ(kvr_afe_set_idle_touch_threshold(30), 0u);
  ASSERT_EQ(kvr_afe_set_idle_touch_threshold(30), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_idle_threshold", "expec: 30 existing: 30"));
  EXPECT_EQ(count_logged(3, "skip setting"), 1);
  ASSERT_EQ(kvr_afe_force_to_freq_point(1), 0u);
  ASSERT_EQ(kvr_afe_enter_idle(), 0u);
  sim::error_before_echo(1);
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);

  // A failed calibration is redone; either way the others are dropped.
  EXPECT_EQ(full_pass(), commands{kCalibration});
  EXPECT_TRUE(logged_error("callback_calibration", "Calibration failed, redo"));
  EXPECT_EQ(full_pass(), commands{kCalibration});
  EXPECT_TRUE(logged_error("callback_calibration", "IC is running in normalize"));
  EXPECT_TRUE(logged_at(3, "Calibration success, set calibration_handling = true"));
  EXPECT_TRUE(full_pass().empty());

  // The stored threshold was forgotten: the same value is new again.
  clear_log();
  ASSERT_EQ(kvr_afe_set_idle_touch_threshold(30), 0u);
  EXPECT_TRUE(logged_at(3, "expec: 30 existing: 0"));
  EXPECT_FALSE(mentioned("skip setting"));

  // Now held until status 8 alone is cleared; other bits accumulate and are
  // acknowledged in one call.
  ASSERT_EQ(kvr_afe_clear_status(0x108), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_clear_status", "Clear status 264"));
  ASSERT_EQ(kvr_afe_clear_status(0x100), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_clear_status", "KVR_AFE_STATUS_IDLE_BASELINE_RESET_DONE"));
  ASSERT_EQ(kvr_afe_clear_status(4), 0u);
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  EXPECT_TRUE(full_pass().empty());
  EXPECT_TRUE(logged_at(3, "vendor_clear_status", "Clear status 0000010C"));
  EXPECT_TRUE(full_pass().empty());
  EXPECT_EQ(count_logged_starting(3, "Clear status "), 0);
  ASSERT_EQ(kvr_afe_clear_status(8), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_clear_status", "KVR_AFE_STATUS_CALIBRATION_DONE"));
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  EXPECT_EQ(full_pass(), commands{kCalibration});
  // A restart releases it as well.
  ASSERT_EQ(kvr_afe_start(), 0u);
  ASSERT_EQ(kvr_afe_start_calibration(), 0u);
  EXPECT_TRUE(logged_at(3, "cmd_add_calibration", "Add calibration to command"));
}

} // namespace
