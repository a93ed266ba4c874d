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
// True when some message equals text exactly.
bool logged(const std::string &text);
// True when some message under tag equals text exactly.
bool logged(const std::string &tag, const std::string &text);
// Number of messages equal to text.
int count_logged(const std::string &text);
void clear_log();

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
};

// Resets every module of the library to its load-time state.
void reset_library_state();

// The last error copied to the Android log, "" when none.
std::string last_error();
// Number of captured messages beginning with prefix.
int messages_starting(const std::string &prefix);
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
