#include "support/fixture.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>

#include "afe/afe.h"
#include "chip/chip.h"
#include "platform/ioctrl.h"
#include "platform/log.h"
#include "platform/os.h"

namespace {

std::mutex g_log_mutex;
std::vector<std::string> g_lines;

// What the library sent to the Android log, captured here rather than read
// back from the simulator so that clear_log() forgets both sides at once.
std::vector<sim::android_line> g_android;
afehal_os_ops g_wrapped_os{};
int (*g_sim_android_log)(int, const char *, const char *) = nullptr;

void capture_line(const char *line) {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_lines.emplace_back(line);
}

int capture_android(int prio, const char *tag, const char *text) {
  {
    std::lock_guard<std::mutex> lock(g_log_mutex);
    g_android.push_back({prio, tag != nullptr ? tag : "", text != nullptr ? text : ""});
  }
  return g_sim_android_log(prio, tag, text);
}

// Puts capture_android in front of the simulator's Android log.
void wrap_android_log() {
  g_wrapped_os = os();
  g_sim_android_log = g_wrapped_os.android_log;
  g_wrapped_os.android_log = capture_android;
  os_install(&g_wrapped_os);
}

// A parsed sink line: "[level][frame][T:now][tag] message\n". Raw INFO
// output has no such prefix and gives level -1.
struct parsed_line {
  int level = -1;
  std::string tag;
  std::string message;
};

parsed_line parse(const std::string &line) {
  parsed_line out;
  size_t pos = 0;
  std::vector<std::string> fields;
  for (int i = 0; i < 4; ++i) {
    if (pos >= line.size() || line[pos] != '[') {
      out.message = line;
      return out;
    }
    const size_t close = line.find(']', pos);
    if (close == std::string::npos) {
      out.message = line;
      return out;
    }
    fields.push_back(line.substr(pos + 1, close - pos - 1));
    pos = close + 1;
  }
  out.level = std::atoi(fields[0].c_str());
  out.tag = fields[3];
  out.message = line.substr(pos < line.size() ? pos + 1 : pos);
  if (!out.message.empty() && out.message.back() == '\n') {
    out.message.pop_back();
  }
  return out;
}

std::vector<parsed_line> parsed_lines() {
  std::vector<parsed_line> out;
  for (const auto &line : log_lines()) {
    out.push_back(parse(line));
  }
  return out;
}

int android_copies(const std::string &text) {
  int n = 0;
  for (const auto &copy : android_errors()) {
    n += copy == text ? 1 : 0;
  }
  return n;
}

// Every sink line with this text, as "level:tag" for the failure message.
std::string where_logged(const std::string &text) {
  std::string out;
  for (const auto &line : parsed_lines()) {
    if (line.message == text) {
      out += " [" + std::to_string(line.level) + ":" + line.tag + "]";
    }
  }
  return out.empty() ? " nowhere in the sink" : out;
}

::testing::AssertionResult check_logged(int level, const std::string *tag,
                                        const std::string &text) {
  bool found = false;
  for (const auto &line : parsed_lines()) {
    found = found ||
            (line.level == level && line.message == text && (tag == nullptr || line.tag == *tag));
  }
  const int copies = android_copies(text);
  const bool copy_ok = level == static_cast<int>(LOG_LEVEL_ERROR) ? copies > 0 : copies == 0;
  if (found && copy_ok) {
    return ::testing::AssertionSuccess();
  }
  auto failure = ::testing::AssertionFailure();
  failure << "\"" << text << "\"";
  if (tag != nullptr) {
    failure << " under [" << *tag << "]";
  }
  failure << " expected at level " << level;
  if (!found) {
    failure << "; logged at" << where_logged(text);
  }
  if (!copy_ok) {
    failure << "; " << copies << " Android copies (expected "
            << (level == static_cast<int>(LOG_LEVEL_ERROR) ? "at least 1" : "none") << ")";
  }
  return failure;
}

} // namespace

std::vector<std::string> log_lines() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  return g_lines;
}

std::vector<std::string> log_messages() {
  std::vector<std::string> out;
  for (const auto &line : parsed_lines()) {
    out.push_back(line.message);
  }
  return out;
}

::testing::AssertionResult logged_error(const std::string &text) {
  return check_logged(LOG_LEVEL_ERROR, nullptr, text);
}

::testing::AssertionResult logged_error(const std::string &tag, const std::string &text) {
  return check_logged(LOG_LEVEL_ERROR, &tag, text);
}

::testing::AssertionResult logged_at(int level, const std::string &text) {
  return check_logged(level, nullptr, text);
}

::testing::AssertionResult logged_at(int level, const std::string &tag, const std::string &text) {
  return check_logged(level, &tag, text);
}

int count_logged(int level, const std::string &text) {
  int n = 0;
  for (const auto &line : parsed_lines()) {
    n += line.level == level && line.message == text ? 1 : 0;
  }
  return n;
}

int count_logged_starting(int level, const std::string &prefix) {
  int n = 0;
  for (const auto &line : parsed_lines()) {
    n += line.level == level && line.message.rfind(prefix, 0) == 0 ? 1 : 0;
  }
  return n;
}

bool mentioned(const std::string &text) {
  for (const auto &line : parsed_lines()) {
    if (line.message == text) {
      return true;
    }
  }
  return android_copies(text) > 0;
}

void clear_log() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_lines.clear();
  g_android.clear();
}

std::vector<std::string> android_errors() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  std::vector<std::string> out;
  for (const auto &line : g_android) {
    if (line.prio == 6 && line.tag == "afehal") {
      out.push_back(line.text);
    }
  }
  return out;
}

// Every level-1 sink line has its Android copy and every Android copy its
// level-1 line: no error goes out without its copy, and nothing below error
// level reaches the Android log. Only meaningful while the sink takes every
// level, as the fixture sets it up. Android copies may be cut at 1023
// characters and sink lines at 119, so texts are compared on their common
// prefix.
void expect_errors_paired_with_android_copies() {
  std::vector<std::string> sink_errors;
  for (const auto &line : parsed_lines()) {
    if (line.level == static_cast<int>(LOG_LEVEL_ERROR)) {
      sink_errors.push_back(line.message);
    }
  }
  std::vector<std::string> copies;
  {
    std::lock_guard<std::mutex> lock(g_log_mutex);
    for (const auto &line : g_android) {
      // Anything else than priority 6 under "afehal" is out of place.
      copies.push_back(line.prio == 6 && line.tag == "afehal"
                           ? line.text.substr(0, 119)
                           : "prio " + std::to_string(line.prio) + " tag " + line.tag);
    }
  }
  std::sort(sink_errors.begin(), sink_errors.end());
  std::sort(copies.begin(), copies.end());
  EXPECT_EQ(sink_errors, copies) << "level-1 lines and Android copies differ";
}

void reset_library_state() {
  afe_reset_state();
  ioctrl_reset_state();
  vendor_reset_state();
  log_set_level(1);
  log_callback.store(nullptr);
  log_frame_timestamp_ms.store(0);
}

void SimTest::SetUp() {
  sim::install(sim::clock_mode::virtual_clock);
  wrap_android_log();
  reset_library_state();
  clear_log();
  log_callback.store(capture_line);
  log_level.store(5);
  sim::clear_recording();
  heap_at_start_ = sim::heap_live_blocks();
}

void SimTest::TearDown() {
  // Nothing the library allocated during the test may still be held.
  EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_) << "heap blocks leaked";
  if (check_android_pairing_) {
    expect_errors_paired_with_android_copies();
  }
  log_callback.store(nullptr);
  sim::uninstall();
}

void SimTest::open_and_start() {
  ASSERT_EQ(kvr_afe_open(), 0u);
  ASSERT_EQ(kvr_afe_start(), 0u);
  ASSERT_EQ(gu32AFEStatus.load(), static_cast<uint32_t>(KVR_STATE_WORKING));
}

std::string last_error() {
  const auto errors = android_errors();
  return errors.empty() ? std::string() : errors.back();
}

std::vector<std::vector<uint8_t>> spi_sent(int skip) {
  std::vector<std::vector<uint8_t>> out;
  for (const auto &x : sim::spi_transfers()) {
    if (x.tx.empty() || x.tx[0] != skip) {
      out.push_back(x.tx);
    }
  }
  return out;
}

std::vector<uint8_t> fifo_event(std::initializer_list<uint8_t> head) {
  std::vector<uint8_t> e(head);
  e.resize(8, 0);
  return e;
}

void IoSimTest::SetUp() {
  SimTest::SetUp();
  ASSERT_EQ(ioctrl_open(), 0u);
  sim::clear_recording();
}

void IoSimTest::TearDown() {
  sim::fail_allocation(0);
  ioctrl_close();
  SimTest::TearDown();
}
