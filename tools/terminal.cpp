// Terminal detection, the stop signal, the simulator's clock choice and the
// parsing of the library's log lines.
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <unistd.h>

#include "tools/tool.h"

namespace tool {

namespace {

volatile std::sig_atomic_t g_stop = 0;

void on_stop_signal(int) {
  g_stop = 1;
}

} // namespace

bool stdout_is_terminal() {
  return isatty(STDOUT_FILENO) == 1;
}

bool colour_wanted() {
  const char *no_colour = std::getenv("NO_COLOR");
  return stdout_is_terminal() && (no_colour == nullptr || no_colour[0] == '\0');
}

void install_stop_handler() {
  g_stop = 0;
  struct sigaction action {};
  action.sa_handler = on_stop_signal;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a blocking frame ioctl on the real driver returns EINTR,
  // so the loop sees the flag at once instead of after the frame time-out.
  action.sa_flags = 0;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool stop_requested() {
  return g_stop != 0;
}

clock_choice parse_clock(const std::string &text) {
  if (text == "auto") {
    return clock_choice::automatic;
  }
  if (text == "real") {
    return clock_choice::real;
  }
  if (text == "virtual") {
    return clock_choice::virtual_time;
  }
  throw std::invalid_argument("clock must be auto, real or virtual");
}

sim::clock_mode resolve_clock(clock_choice choice, bool bounded) {
  switch (choice) {
  case clock_choice::real:
    return sim::clock_mode::real_clock;
  case clock_choice::virtual_time:
    return sim::clock_mode::virtual_clock;
  case clock_choice::automatic:
    break;
  }
  return bounded && !stdout_is_terminal() ? sim::clock_mode::virtual_clock
                                          : sim::clock_mode::real_clock;
}

const char *clock_name(sim::clock_mode mode) {
  return mode == sim::clock_mode::real_clock ? "real" : "virtual";
}

std::string_view log_message(std::string_view line) {
  // Four bracketed fields, a space, the message.
  size_t pos = 0;
  for (int i = 0; i < 4; ++i) {
    if (pos >= line.size() || line[pos] != '[') {
      return line;
    }
    const size_t close = line.find(']', pos);
    if (close == std::string_view::npos) {
      return line;
    }
    pos = close + 1;
  }
  if (pos < line.size() && line[pos] == ' ') {
    ++pos;
  }
  std::string_view message = line.substr(pos);
  while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) {
    message.remove_suffix(1);
  }
  return message;
}

int log_line_level(std::string_view line) {
  if (line.size() < 3 || line[0] != '[' || line[1] < '0' || line[1] > '9' || line[2] != ']') {
    return 0;
  }
  return line[1] - '0';
}

} // namespace tool
