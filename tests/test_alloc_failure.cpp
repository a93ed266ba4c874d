// Allocation failure everywhere. A whole life of the library (open, start
// with a firmware update, the capability, 100 frames with every queued
// command, an inspection, stop, close) is run once to count the heap
// allocations of each step; then, for every step and every N, the Nth
// allocation of that step fails. Each such run must end in one of the
// step's documented results with only the step's documented error messages
// (each with its Android copy), hold no heap block once closed, and recover:
// with allocation working again the step succeeds and the rest of the life
// ends exactly like the run without failures.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "afe/afe.h"
#include "chip/transport/work_point.h"
#include "support/fixture.h"

namespace {

enum class step { open, start, capability, frames, inspect, stop, close };
constexpr step kLife[] = {step::open,    step::start, step::capability, step::frames,
                          step::inspect, step::stop,  step::close};

// The chip runs older firmware, so every start on a fresh chip updates it.
constexpr sim::chip_identity kOldChip = {.fw_ver = 0x0080, .cfg_ver = 0x0050, .cx_cfg_ver = 0x0010};

constexpr int kFrames = 100;

// Queues every command the control thread can queue; `round` varies the
// parameters so that a second round changes something.
void queue_every_command(int round) {
  const auto r = static_cast<uint8_t>(round);
  EXPECT_EQ(kvr_afe_enable_freq_shift(), 0u);
  EXPECT_EQ(kvr_afe_disable_freq_shift(), 0u);
  EXPECT_EQ(kvr_afe_start_calibration(), 0u);
  EXPECT_EQ(kvr_afe_start_autotune(), 0u);
  EXPECT_EQ(kvr_afe_clear_status(KVR_AFE_STATUS_IDLE_BASELINE_RESET_DONE), 0u);
  EXPECT_EQ(kvr_afe_set_baseline_update_interval(static_cast<uint16_t>(100 + r)), 0u);
  EXPECT_EQ(kvr_afe_set_idle_touch_threshold(static_cast<uint16_t>(20 + r)), 0u);
  EXPECT_EQ(kvr_afe_reset_idle_baseline(), 0u);
  EXPECT_EQ(kvr_afe_force_to_freq_point(static_cast<uint8_t>(1 + r % 3)), 0u);
  EXPECT_EQ(kvr_afe_force_to_scan_rate(static_cast<uint8_t>(r % 2)), 0u);
  EXPECT_EQ(kvr_afe_set_calib_data_callback_func(nullptr, nullptr), 0u);
  EXPECT_EQ(kvr_afe_enter_idle(), 0u);
  EXPECT_EQ(kvr_afe_force_exit_idle(), 0u);
  EXPECT_EQ(kvr_afe_enter_idle(), 0u);
}

// kFrames frames, commands queued before the first and the 50th; the
// number of frames that came back NULL.
uint32_t frames_with_commands() {
  uint32_t missing = 0;
  for (int i = 0; i < kFrames; ++i) {
    if (i % 50 == 0) {
      queue_every_command(i / 50);
    }
    missing += kvr_afe_get_frame() == nullptr ? 1 : 0;
  }
  return missing;
}

// One step through the public interface; its result word (the pointer
// calls give 0 for a record, 1 for NULL).
uint32_t run(step s) {
  switch (s) {
  case step::open:
    return kvr_afe_open();
  case step::start:
    return kvr_afe_start();
  case step::capability:
    return kvr_afe_get_hw_cap() == nullptr ? 1u : 0u;
  case step::frames:
    return frames_with_commands();
  case step::inspect:
    return kvr_afe_inspect();
  case step::stop:
    return kvr_afe_stop();
  case step::close:
    return kvr_afe_close();
  }
  return ~0u;
}

// What the chip and the library hold once the life is over; a failed
// allocation on the way must not change any of it.
struct outcome {
  std::vector<uint8_t> flash; // the updated firmware
  sim::ic_state ic;
  uint8_t freq_index;
  uint8_t rate_index;
};

bool same(const outcome &a, const outcome &b) {
  return a.flash == b.flash && a.ic.sensing == b.ic.sensing && a.ic.idle == b.ic.idle &&
         a.ic.forced_freq_index == b.ic.forced_freq_index &&
         a.ic.forced_rate_index == b.ic.forced_rate_index && a.freq_index == b.freq_index &&
         a.rate_index == b.rate_index;
}

// The documented outcome of one step whose allocation failed: the results
// it may return and the errors that report the failure (a '*' at the end
// or the start matches any ending or beginning, for the formatted ones). Besides these the step may
// log only what it logs without a failure: the errors of the run without
// failures, and `ordinary` (texts that depend on timing, such as the
// frequency a frame reports).
struct step_case {
  const char *name;
  step failing;
  std::set<uint32_t> results;
  std::vector<std::string> failures;
  std::vector<std::string> ordinary;
};

bool matches(const std::string &text, const std::string &pattern) {
  if (!pattern.empty() && pattern.back() == '*') {
    return text.rfind(pattern.substr(0, pattern.size() - 1), 0) == 0;
  }
  if (!pattern.empty() && pattern.front() == '*') {
    const std::string tail = pattern.substr(1);
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
  }
  return text == pattern;
}

bool documented(const std::string &text, const std::vector<std::string> &patterns) {
  return std::any_of(patterns.begin(), patterns.end(),
                     [&](const std::string &p) { return matches(text, p); });
}

void PrintTo(const step_case &c, std::ostream *os) {
  *os << c.name;
}

class AllocationFailure : public SimTest, public ::testing::WithParamInterface<step_case> {
protected:
  // A fresh chip (with old firmware when the start is swept, so that it
  // updates the flash; up to date otherwise) and the library back at
  // CLOSED.
  void fresh_chip(step failing) {
    sim::reset();
    if (failing == step::start) {
      sim::set_identity(kOldChip);
    }
    ASSERT_EQ(kvr_afe_set_log_level(1), 0u);
    clear_log();
  }

  // The life from `from` (excluded) to close with allocation working, each
  // step succeeding; what the chip and the library ended with.
  outcome finish_life(step from) {
    bool after = false;
    for (step s : kLife) {
      if (after) {
        EXPECT_EQ(run(s), 0u) << "step " << static_cast<int>(s);
      }
      after = after || s == from;
    }
    return {sim::flash(), sim::ic(), work_parm[1].load(), work_parm[2].load()};
  }

  // The life up to (not including) `to`, every step succeeding.
  void life_until(step to) {
    for (step s : kLife) {
      if (s == to) {
        return;
      }
      ASSERT_EQ(run(s), 0u) << "step " << static_cast<int>(s);
    }
  }

  // Every level-1 line has its Android copy and the other way round
  // (sink lines are cut at 119 characters).
  void expect_errors_paired() {
    std::vector<std::string> sink;
    for (const auto &line : log_lines()) {
      if (line.rfind("[1][", 0) != 0) {
        continue;
      }
      size_t pos = 0;
      for (int field = 0; field < 4 && pos != std::string::npos; ++field) {
        pos = line.find(']', pos + 1);
      }
      std::string text = pos == std::string::npos ? line : line.substr(pos + 2);
      if (!text.empty() && text.back() == '\n') {
        text.pop_back();
      }
      sink.push_back(text);
    }
    std::vector<std::string> copies;
    for (const auto &text : android_errors()) {
      copies.push_back(text.substr(0, 119));
    }
    std::sort(sink.begin(), sink.end());
    std::sort(copies.begin(), copies.end());
    EXPECT_EQ(sink, copies) << "level-1 lines and Android copies differ";
  }
};

TEST_P(AllocationFailure, EveryAllocationOfTheStepFailsInTurn) {
  const step_case &c = GetParam();
  const size_t heap_closed = sim::heap_live_blocks();

  // The life without failures: how many allocations the step makes, what
  // it logs and what the chip ends with. Only errors are logged (they are
  // what is checked); their pairing with the Android copies is checked for
  // every run of the swept step.
  check_android_pairing_ = false;
  fresh_chip(c.failing);
  life_until(c.failing);
  clear_log();
  const size_t before = sim::heap_allocations();
  ASSERT_EQ(run(c.failing), 0u);
  const int count = static_cast<int>(sim::heap_allocations() - before);
  std::vector<std::string> usual = c.ordinary;
  for (const auto &text : android_errors()) {
    usual.push_back(text);
  }
  const outcome reference = finish_life(c.failing);
  ASSERT_EQ(sim::heap_live_blocks(), heap_closed);
  if (c.failures.empty()) {
    EXPECT_EQ(count, 0) << "a step documented without allocation allocates";
  }
  std::printf("[ sweep    ] %s: %d allocations\n", c.name, count);
  std::fflush(stdout);

  std::set<uint32_t> seen;
  std::set<std::string> messages;
  // AFEHAL_SWEEP_FROM=N starts at the Nth allocation, to look at one case.
  const char *from = std::getenv("AFEHAL_SWEEP_FROM");
  for (int nth = from != nullptr ? std::max(1, std::atoi(from)) : 1; nth <= count; ++nth) {
    SCOPED_TRACE(std::string(c.name) + ", allocation " + std::to_string(nth) + " of " +
                 std::to_string(count) + " fails");
    fresh_chip(c.failing);
    life_until(c.failing);
    if (HasFatalFailure()) {
      return;
    }
    clear_log();
    sim::fail_allocation(nth);
    const uint32_t result = run(c.failing);
    sim::fail_allocation(0);
    seen.insert(result);

    std::string errors;
    for (const auto &text : android_errors()) {
      errors += "\n  " + text;
    }
    EXPECT_TRUE(c.results.count(result) != 0) << "result " << result << "; errors:" << errors;
    int reports = 0;
    for (const auto &text : android_errors()) {
      const bool reported = documented(text, c.failures);
      EXPECT_TRUE(reported || documented(text, usual)) << "undocumented error: " << text;
      reports += reported ? 1 : 0;
      if (reported) {
        messages.insert(text);
      }
    }
    EXPECT_GT(reports, 0) << "an allocation failure nobody reported";
    expect_errors_paired();

    // Recovery: the step again with allocation working, then the rest of
    // the life, which must end where the life without failures ended.
    clear_log();
    if (result != 0u && c.failing == step::stop) {
      // The IC may still be scanning: a new start and stop put it right.
      EXPECT_EQ(run(step::start), 0u) << "start after the failed stop";
      EXPECT_EQ(run(step::stop), 0u) << "stop again";
    } else if (c.failing != step::open && c.failing != step::close) {
      // Also after a 0: a start whose firmware update failed still gives 0
      // and updates on the next start.
      EXPECT_EQ(run(c.failing), 0u) << "the step again";
    }
    const outcome o = finish_life(c.failing);
    EXPECT_TRUE(same(o, reference))
        << "the life ended differently: flash " << (o.flash == reference.flash ? "same" : "differs")
        << ", sensing " << o.ic.sensing << ", idle " << o.ic.idle << ", forced frequency "
        << o.ic.forced_freq_index << ", forced rate " << o.ic.forced_rate_index << ", work point "
        << int{o.freq_index} << "/" << int{o.rate_index};
    EXPECT_EQ(sim::heap_live_blocks(), heap_closed) << "heap blocks held after close";
    EXPECT_EQ(gu32AFEStatus.load(), static_cast<uint32_t>(KVR_STATE_CLOSED));
    if (HasFailure()) {
      return;
    }
  }
  std::string results;
  for (uint32_t r : seen) {
    results += " " + std::to_string(r);
  }
  std::printf("[ sweep    ] %s: results seen:%s\n", c.name, results.c_str());
  for (const auto &m : messages) {
    std::printf("[ sweep    ]   %s\n", m.c_str());
  }
}

// A failure to move data or to send a command, as every layer reports it.
#define TRANSFER_FAILURES                                                                          \
  "Error sending dummy HW command", "Error writing the fw command",                                \
      "Polling for the event echo *", "spi communication error..", "fw write try attempt(*",       \
      "no echo from the FW...", "triggering SOS..", "Event not found timeout"

const step_case kCases[] = {
    {"open", step::open, {0}, {}, {}},
    {"start with a firmware update",
     step::start,
     {0, 3},
     {TRANSFER_FAILURES, "Error allocating memory", "Error clearing the fifo",
      "Error in flash erase..", "Error in flash pre setup*", "Error in flash unlock*",
      "Error in hold m3..", "Error in spi4 mode configuration*", "Error reading chip info",
      "Error reading host data *", "Error requesting chip info", "Error writing sense-on command!!",
      "FW update failed", "Unable to do system reset..", "Unable to flash the fw..",
      "Unable to parse the header file..", "Unable to poll controller ready event..",
      "Unable to read the sys info..", "Timeout after requesting host data type *"},
     {"FW ver: *", "Write FW command: *", "Write chunk: *"}},
    {"capability",
     step::capability,
     {0, 1},
     {"Error reading MS screen T cycle", "Error reading the available scan freq",
      "Error reading the config data"},
     {}},
    {"100 frames with every queued command",
     step::frames,
     {0},
     {TRANSFER_FAILURES, "Entering idle mode failed", "Error reading the config data",
      "Error setting force freq point *", "Error setting force scan rate",
      "Set frequency failed, redo", "Set scan rate failed, redo"},
     {"Frequency shift done: *", "Frequency and Scan rate shift are done, *",
      "Shift not all effective yet, *", "current: *", "Scan rate shift done: *",
      "Write FW command: *", "Active status: *", "Idle status: *", "skip setting force scan rate"}},
    {"inspection",
     step::inspect,
     // A failed step of a test sets that test's bit; an ITO command that
     // never reached the IC has the stale frame memory judged too (0x18).
     // 0: a failed liveness probe counts as alive, and a noise test whose
     // factory-mode command failed passes.
     {0x00, 0x01, 0x04, 0x10, 0x18, 0x40, 0x80},
     {TRANSFER_FAILURES, "Error allocating memory*", "Couldnt find the test limit*",
      "Couldnt find the label *", "SRAM Test failed *", "ITO test failed *",
      "Noise data test failed *", "CX data test failed *", "Error *", "Unable to *", "Retry *",
      "Timeout after requesting host data type *", "FW is dead - get echo event timeout",
      "SPI transmission issue", "LP Timer Calibration failed", "Mutual autotune failed",
      "Self autotune failed", "* FAIL",
      // A sync-frame header that could not be read is reported by its
      // dump, all zeros; the frame is then empty.
      "00 00 00 00 00 00 00 00"},
     // The verdict, and the stale ITO frame judged node by node.
     {"Inspect = *", " node[*", "ITO RAW MIN MAX TEST FAIL"}},
    {"stop",
     step::stop,
     {0, 3},
     {TRANSFER_FAILURES, "Error writing sense off command!!"},
     {"Write FW command: *"}},
    {"close", step::close, {0}, {}, {}},
};

INSTANTIATE_TEST_SUITE_P(Life, AllocationFailure, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<step_case> &info) {
                           std::string name;
                           for (const char *p = info.param.name; *p != '\0'; ++p) {
                             name += std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
                           }
                           return name;
                         });

} // namespace
