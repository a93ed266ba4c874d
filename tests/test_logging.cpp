// Logging: line format, truncation, levels, the sink, the Android copy of
// errors, clocks and the SPI busy wait.
#include <string>

#include "afe/afe.h"
#include "platform/ioctrl.h"
#include "platform/log.h"
#include "platform/os.h"
#include "support/fixture.h"

namespace {

// Read during static initialisation, before any test touches them: what the
// library comes up with at load.
const uint8_t kLevelAtLoad = log_level.load();
const bool kSinkAtLoad = log_callback.load() != nullptr;

using Logging = SimTest;

std::vector<std::string> g_other_sink;
void other_sink(const char *line) {
  g_other_sink.emplace_back(line);
}

int64_t wall_ms_from_seam() {
  struct timeval tv {};
  os().gettimeofday(&tv);
  return int64_t{tv.tv_sec} * 1000 + tv.tv_usec / 1000;
}

TEST_F(Logging, AtLoadOnlyErrorsWouldPassAndNoSinkIsSet) {
  EXPECT_EQ(kLevelAtLoad, 1);
  EXPECT_FALSE(kSinkAtLoad);
}

TEST_F(Logging, LineCarriesLevelFrameStampClockAndTag) {
  sim::advance_us(1'234'567'891);
  const std::string t = std::to_string(wall_ms_from_seam());
  NLOG(3, "some_function", "value %d", 42);
  log_timestamp stamp = log_update_timestamp({5, 123'999});
  EXPECT_EQ(stamp.sec, 5);
  EXPECT_EQ(stamp.usec, 123'999);
  NLOG(2, "other", "after frame");
  EXPECT_EQ(log_lines(), (std::vector<std::string>{"[3][0][T:" + t + "][some_function] value 42\n",
                                                   "[2][5123][T:" + t + "][other] after frame\n"}));
  EXPECT_EQ(sys_get_cur_systime(), wall_ms_from_seam());
}

TEST_F(Logging, MessageCutAt119AndLineAt159) {
  const std::string long_msg(200, 'x');
  NLOG(2, "t", "%s", long_msg.c_str());
  EXPECT_EQ(count_logged(2, std::string(119, 'x')), 1);

  // A long tag pushes the whole line past 159 characters: cut, newline lost.
  clear_log();
  const std::string long_tag(100, 't');
  NLOG(2, long_tag.c_str(), "%s", long_msg.c_str());
  auto lines = log_lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].size(), 159u);
  EXPECT_NE(lines[0].back(), '\n');
}

TEST_F(Logging, EachLevelPassesItsOwnAndLowerLevelsWhileErrorsAlwaysReachAndroid) {
  const char *names[] = {"DEBUG", "ERROR", "WARNING", "INFO", "DEBUG", "DEBUG"};
  for (int level = 0; level <= 5; ++level) {
    SCOPED_TRACE("level " + std::to_string(level));
    clear_log();
    ASSERT_EQ(kvr_afe_set_log_level(static_cast<uint8_t>(level)), 0u);
    log_error("t", "error %d", level);
    for (int at = 2; at <= 5; ++at) {
      NLOG(at, "t", "at %d", at);
    }
    INFO("raw %02X", 0xAB);
    EXPECT_EQ(android_errors(), std::vector<std::string>{"error " + std::to_string(level)});
    EXPECT_EQ(count_logged(1, "error " + std::to_string(level)), level >= 1 ? 1 : 0);
    for (int at = 2; at <= 5; ++at) {
      EXPECT_EQ(count_logged(at, "at " + std::to_string(at)), at <= level ? 1 : 0) << at;
    }
    // The raw line has no prefix and no newline.
    EXPECT_EQ(count_logged(-1, "raw AB"), level >= 3 ? 1 : 0);
    const std::string change = std::string("log level change to <") + names[level] + ">";
    EXPECT_EQ(count_logged(3, change), level >= 3 ? 1 : 0);
  }
  EXPECT_TRUE(logged_at(3, "log_set_level", "log level change to <DEBUG>"));

  // Without a sink nothing is formatted, but the Android copy is still made.
  check_android_pairing_ = false;
  log_callback.store(nullptr);
  log_error("t", "no sink");
  EXPECT_EQ(android_errors().back(), "no sink");
}

TEST_F(Logging, TheApiRefusesLevel6AndANullSink) {
  EXPECT_EQ(kvr_afe_set_log_level(6), 7u);
  EXPECT_TRUE(logged_error("kvr_afe_set_log_level", "log level <6> is out of range."));
  EXPECT_EQ(kvr_afe_set_log_level(255), 7u);
  EXPECT_EQ(log_level.load(), 5); // unchanged

  EXPECT_EQ(kvr_afe_set_log_callback_func(nullptr), 7u);
  EXPECT_TRUE(logged_error("kvr_afe_set_log_callback_func", "callback log func is null."));
  clear_log();
  NLOG(2, "t", "old sink still there");
  EXPECT_TRUE(logged_at(2, "old sink still there"));

  // A new sink takes over at once and hears about itself first.
  clear_log();
  ASSERT_EQ(kvr_afe_set_log_callback_func(other_sink), 0u);
  ASSERT_FALSE(g_other_sink.empty());
  const std::string low32 =
      std::to_string(static_cast<unsigned>(reinterpret_cast<uintptr_t>(&other_sink) & 0xFFFFFFFFu));
  EXPECT_NE(g_other_sink[0].find("[3]"), std::string::npos);
  EXPECT_NE(g_other_sink[0].find("[log_set_callback] Set log callback function. " + low32 + "\n"),
            std::string::npos);
  EXPECT_EQ(count_logged_starting(3, "Set log callback function."), 0);
}

TEST_F(Logging, ClocksReportFailures) {
  struct timespec ts {};
  os().clock_gettime(CLOCK_MONOTONIC, &ts);
  log_monotonic_time mono = sys_get_monotonic_timespec();
  EXPECT_EQ(mono.sec, ts.tv_sec);
  EXPECT_EQ(mono.nsec, ts.tv_nsec);

  static afehal_os_ops failing;
  failing = os();
  failing.gettimeofday = [](struct timeval *) { return -1; };
  failing.clock_gettime = [](clockid_t, struct timespec *) { return -1; };
  os_install(&failing);
  EXPECT_EQ(sys_get_cur_systime(), -1);
  mono = sys_get_monotonic_timespec();
  EXPECT_EQ(mono.sec, 0);
  EXPECT_EQ(mono.nsec, 0);
}

TEST_F(Logging, WaitForMutexBudget) {
  // Zero budget fails even with the link free.
  EXPECT_EQ(wait_for_mutex(0, "x"), -1);
  EXPECT_TRUE(logged_error("wait_for_mutex", "Timeout. x"));
  EXPECT_EQ(wait_for_mutex(1, "y"), 0);
  EXPECT_EQ(sim::slept_us(), 0);
  EXPECT_FALSE(mentioned("Timeout. y"));

  // Budget 1 with the flag set always times out.
  spi_mutex.store(1);
  EXPECT_EQ(wait_for_mutex(1, "z"), -1);
  EXPECT_EQ(sim::slept_us(), 100);
  EXPECT_TRUE(logged_error("wait_for_mutex", "Timeout. z"));
}

} // namespace
