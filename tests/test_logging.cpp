// Logging: line format, truncation, levels, the sink, the Android copy of
// errors, clocks and the SPI busy wait.
#include <string>

#include "afe/afe.h"
#include "platform/ioctrl.h"
#include "platform/log.h"
#include "platform/os.h"
#include "support/fixture.h"

using Logging = SimTest;

TEST_F(Logging, LineCarriesLevelFrameStampClockAndTag) {
  sim::advance_us(1'234'567'000);
  NLOG(3, "some_function", "value %d", 42);
  log_update_timestamp({5, 123'999});
  NLOG(2, "other", "after frame");

  auto lines = log_lines();
  ASSERT_EQ(lines.size(), 2u);
  // The simulator's wall clock is its own; read it the way the library does.
  const std::string t = std::to_string(sys_get_cur_systime());
  EXPECT_EQ(lines[0].substr(0, 7), "[3][0][");
  EXPECT_NE(lines[0].find("][some_function] value 42\n"), std::string::npos);
  EXPECT_EQ(lines[1], "[2][5123][T:" + t + "][other] after frame\n");
}

TEST_F(Logging, MessageCutAt119AndLineAt159) {
  const std::string long_msg(200, 'x');
  NLOG(1, "t", "%s", long_msg.c_str());
  EXPECT_EQ(log_messages(), std::vector<std::string>{std::string(119, 'x')});

  // A long tag pushes the whole line past 159 characters: cut, newline lost.
  clear_log();
  const std::string long_tag(100, 't');
  NLOG(1, long_tag.c_str(), "%s", long_msg.c_str());
  auto lines = log_lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].size(), 159u);
  EXPECT_NE(lines[0].back(), '\n');
}

TEST_F(Logging, LevelsGateTheSinkButNotTheAndroidCopy) {
  log_error("tag", "boom %s", "now");
  auto copies = sim::android_log();
  ASSERT_EQ(copies.size(), 1u);
  EXPECT_EQ(copies[0].prio, 6);
  EXPECT_EQ(copies[0].tag, "afehal");
  EXPECT_EQ(copies[0].text, "boom now");
  EXPECT_TRUE(logged("tag", "boom now"));

  clear_log();
  sim::clear_recording();
  INFO("%02X ", 0xAB); // raw, no line format
  EXPECT_EQ(log_lines(), std::vector<std::string>{"AB "});
  clear_log();
  log_level.store(2);
  INFO("hidden");
  EXPECT_TRUE(log_lines().empty());
  log_level.store(1);
  NLOG(2, "t", "warning");
  NLOG(1, "t", "error");
  EXPECT_EQ(log_messages(), std::vector<std::string>{"error"});

  clear_log();
  log_level.store(0);
  log_error("t", "silenced %d", 7);
  NLOG(1, "t", "also silenced");
  EXPECT_TRUE(log_lines().empty());
  EXPECT_EQ(android_errors(), std::vector<std::string>{"silenced 7"});

  // No sink: nothing is formatted, the Android copy still appears.
  log_level.store(5);
  log_callback.store(nullptr);
  log_error("t", "no sink");
  EXPECT_EQ(android_errors().back(), "no sink");
}

TEST_F(Logging, SetLevelNamesTheLevelAndTheApiRejectsLevel6AndNullSink) {
  const char *expected[] = {"DEBUG", "ERROR", "WARNING", "INFO", "DEBUG", "DEBUG"};
  for (uint8_t level = 0; level <= 5; ++level) {
    log_level.store(5);
    clear_log();
    log_set_level(level);
    EXPECT_EQ(log_level.load(), level);
    EXPECT_EQ(logged("log_set_level", std::string("log level change to <") + expected[level] + ">"),
              level >= 3)
        << int(level);
  }
  EXPECT_EQ(kvr_afe_set_log_level(6), 7u);
  EXPECT_EQ(kvr_afe_set_log_level(255), 7u);
  EXPECT_TRUE(logged("kvr_afe_set_log_level", "log level <6> is out of range."));
  EXPECT_EQ(log_level.load(), 5); // unchanged
  for (uint8_t level = 0; level <= 5; ++level) {
    EXPECT_EQ(kvr_afe_set_log_level(level), 0u);
  }
  EXPECT_EQ(kvr_afe_set_log_callback_func(nullptr), 7u);
  EXPECT_EQ(android_errors().back(), "callback log func is null.");
  EXPECT_NE(log_callback.load(), nullptr); // the old sink stays
}

TEST_F(Logging, ClocksReportFailures) {
  EXPECT_GE(sys_get_cur_systime(), 0);
  log_monotonic_time mono = sys_get_monotonic_timespec();
  EXPECT_TRUE(mono.sec > 0 || mono.nsec > 0);

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
  EXPECT_TRUE(logged("wait_for_mutex", "Timeout. x"));
  EXPECT_EQ(android_errors().back(), "Timeout. x");
  EXPECT_EQ(wait_for_mutex(1, "y"), 0);
  EXPECT_EQ(sim::slept_us(), 0);

  // Budget 1 with the flag set always times out.
  spi_mutex.store(1);
  EXPECT_EQ(wait_for_mutex(1, "z"), -1);
  EXPECT_EQ(sim::slept_us(), 100);
}
