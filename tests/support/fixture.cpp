#include "support/fixture.h"

#include <mutex>

#include "afe/afe.h"
#include "chip/chip.h"
#include "platform/ioctrl.h"
#include "platform/log.h"

namespace {

std::mutex g_log_mutex;
std::vector<std::string> g_lines;

void capture_line(const char *line) {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_lines.emplace_back(line);
}

std::string message_of(const std::string &line) {
  // "[level][frame][T:now][tag] message\n"
  size_t pos = 0;
  for (int i = 0; i < 4; ++i) {
    pos = line.find(']', pos);
    if (pos == std::string::npos) {
      return line;
    }
    ++pos;
  }
  std::string msg = line.substr(pos < line.size() ? pos + 1 : pos);
  if (!msg.empty() && msg.back() == '\n') {
    msg.pop_back();
  }
  return msg;
}

std::string tag_of(const std::string &line) {
  size_t end = 0;
  for (int i = 0; i < 4; ++i) {
    end = line.find(']', end);
    if (end == std::string::npos) {
      return "";
    }
    ++end;
  }
  size_t start = line.rfind('[', end - 1);
  return line.substr(start + 1, end - start - 2);
}

} // namespace

std::vector<std::string> log_lines() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  return g_lines;
}

std::vector<std::string> log_messages() {
  std::vector<std::string> out;
  for (const auto &line : log_lines()) {
    out.push_back(message_of(line));
  }
  return out;
}

bool logged(const std::string &text) {
  return count_logged(text) > 0;
}

bool logged(const std::string &tag, const std::string &text) {
  for (const auto &line : log_lines()) {
    if (tag_of(line) == tag && message_of(line) == text) {
      return true;
    }
  }
  return false;
}

int count_logged(const std::string &text) {
  int n = 0;
  for (const auto &msg : log_messages()) {
    n += msg == text ? 1 : 0;
  }
  return n;
}

void clear_log() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_lines.clear();
}

std::vector<std::string> android_errors() {
  std::vector<std::string> out;
  for (const auto &line : sim::android_log()) {
    if (line.prio == 6 && line.tag == "afehal") {
      out.push_back(line.text);
    }
  }
  return out;
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

int messages_starting(const std::string &prefix) {
  int n = 0;
  for (const auto &msg : log_messages()) {
    n += msg.rfind(prefix, 0) == 0 ? 1 : 0;
  }
  return n;
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
