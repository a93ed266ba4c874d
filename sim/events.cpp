// The chip's 8-byte event FIFO. Events the firmware raises later (echoes
// after their delay, the ready event after a reset) wait in a pending list
// and enter the FIFO, in order, when their time comes.
#include <iterator>

#include "sim/state.h"

namespace sim::detail {

void events_push(const event_bytes &event) {
  if (g_ic.events.size() < wire::kEventFifoDepth) {
    g_ic.events.push_back(event);
  }
}

void events_schedule(int64_t due_us, const event_bytes &event) {
  // Keep the list ordered by time and, for equal times, by arrival.
  auto it = g_ic.pending.end();
  while (it != g_ic.pending.begin() && std::prev(it)->due_us > due_us) {
    --it;
  }
  g_ic.pending.insert(it, pending_event{due_us, event});
}

void events_catch_up(int64_t now) {
  size_t n = 0;
  while (n < g_ic.pending.size() && g_ic.pending[n].due_us <= now) {
    events_push(g_ic.pending[n].bytes);
    ++n;
  }
  g_ic.pending.erase(g_ic.pending.begin(), g_ic.pending.begin() + static_cast<long>(n));
}

event_bytes events_pop() {
  event_bytes e{};
  if (!g_ic.events.empty()) {
    e = g_ic.events.front();
    g_ic.events.pop_front();
  }
  return e;
}

event_bytes events_peek() {
  return g_ic.events.empty() ? event_bytes{} : g_ic.events.front();
}

void events_flush() {
  g_ic.events.clear();
  g_ic.pending.clear();
}

} // namespace sim::detail

namespace sim {

using namespace detail;

void push_event(const std::vector<uint8_t> &event) {
  std::lock_guard<std::mutex> lock(g_mutex);
  catch_up();
  event_bytes e{};
  for (size_t i = 0; i < e.size() && i < event.size(); ++i) {
    e[i] = event[i];
  }
  events_push(e);
}

void set_echo_delay_ms(uint32_t ms) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_ic.echo_delay_us = int64_t{ms} * 1000;
}

void set_ready_delay_ms(uint32_t ms) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_ic.ready_delay_us = int64_t{ms} * 1000;
}

void drop_echoes(int times) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_ic.drop_echoes = times;
}

void drop_echoes_of(const std::vector<uint8_t> &command, int times) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_ic.drop_echo_of = command;
  g_ic.drop_echo_of_times = times;
}

void error_before_echo(int times) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_ic.error_before_echo = times;
}

void fatal_on_next_command(bool with_dump) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_ic.fatal_next = true;
  g_ic.fatal_with_dump = with_dump;
}

} // namespace sim
