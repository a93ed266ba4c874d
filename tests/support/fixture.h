// Common test fixture: the library runs on the simulator with a fresh state
// for every test, and every line the library logs is captured.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "sim/sim.h"

// Lines the log sink received, in order (whole formatted lines).
std::vector<std::string> log_lines();
// Only the message part of each line (what follows "[tag] ", no newline).
std::vector<std::string> log_messages();
void clear_log();

// Log assertions. Every line the library writes has a level; an error
// (level 1) is also copied to the Android log with priority 6 and tag
// "afehal", and nothing below error level ever is. The assertions check both
// sides, so a line moved to another level, or an error written without its
// Android copy, fails the test.
//
// An error: a level-1 sink line with this text (under tag, when given) and
// an Android copy with the same text.
::testing::AssertionResult logged_error(const std::string &text);
::testing::AssertionResult logged_error(const std::string &tag, const std::string &text);
// A line at this level (2..5) with this text, and no Android copy of it.
::testing::AssertionResult logged_at(int level, const std::string &text);
::testing::AssertionResult logged_at(int level, const std::string &tag, const std::string &text);
// Number of sink lines at this level with exactly this text.
int count_logged(int level, const std::string &text);
// Number of sink lines at this level whose text begins with prefix.
int count_logged_starting(int level, const std::string &prefix);
// True when text was written at any level or to the Android log: for
// asserting that something was *not* said.
bool mentioned(const std::string &text);

// Android log copies with priority 6 and tag "afehal" (their texts).
std::vector<std::string> android_errors();

// Fresh library and simulator; sink installed, level 5 (everything).
class SimTest : public ::testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;
  // Opens and starts the library on the simulated chip (firmware already up
  // to date); asserts on the way.
  void open_and_start();
  // Heap blocks held by the library when the test began.
  size_t heap_at_start_ = 0;
  // TearDown checks that the sink's level-1 lines and the Android copies
  // pair up one to one. Tests that change the log level or remove the sink
  // turn this off.
  bool check_android_pairing_ = true;
};

// Resets every module of the library to its load-time state.
void reset_library_state();

// The last error copied to the Android log, "" when none.
std::string last_error();
// The bytes sent by each recorded SPI transfer, less those whose first byte
// is skip (0..255; -1 keeps them all).
std::vector<std::vector<uint8_t>> spi_sent(int skip = -1);
// An 8-byte FIFO event beginning with head, zero-filled.
std::vector<uint8_t> fifo_event(std::initializer_list<uint8_t> head);

// SimTest with the device node open and the recording cleared.
class IoSimTest : public SimTest {
protected:
  void SetUp() override;
  void TearDown() override;
  // Fails each of the first n allocations of call in turn: each must give 2
  // and leave no heap block behind.
  template <typename Call> void expect_allocation_failures(int n, Call call) {
    for (int nth = 1; nth <= n; ++nth) {
      SCOPED_TRACE("allocation " + std::to_string(nth));
      sim::fail_allocation(nth);
      EXPECT_EQ(call(), 2u);
      sim::fail_allocation(0);
      EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
    }
  }
};
