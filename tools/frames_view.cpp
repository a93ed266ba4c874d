// `afehal-tool frames`: opens and starts the library, streams the mutual
// data of every frame as a heatmap with a status line, and stops and closes
// the library again on Ctrl-C or after --count frames.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "afehal/afehal.h"
#include "chip/ops/frame_parse.h"
#include "tools/tool.h"

namespace tool {

namespace {

constexpr const char *kShowCursor = "\x1b[?25h";
constexpr const char *kHideCursor = "\x1b[?25l";
constexpr const char *kClearScreen = "\x1b[2J";
constexpr const char *kCursorHome = "\x1b[H";
constexpr const char *kClearToEnd = "\x1b[J";
// Redraws on a terminal at most this often; frames in between are counted.
constexpr auto kRedrawInterval = std::chrono::milliseconds(33);
// Heatmaps printed into a pipe or file, when --every is not given.
constexpr int64_t kDefaultEvery = 60;
// Frame capture times kept for the rate.
constexpr size_t kRateWindow = 120;

// Lines from the library's log sink. The sink may be called from any thread
// the library runs on.
std::mutex g_log_mutex;
std::string g_last_log_line;
uint64_t g_log_lines = 0;
bool g_log_to_stderr = true;

void frames_log_sink(const char *line) {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  ++g_log_lines;
  g_last_log_line.assign(log_message(line));
  if (g_log_to_stderr) {
    std::fputs(line, stderr);
  }
}

std::string last_log_line() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  return g_last_log_line;
}

struct frame_stats {
  uint64_t frames = 0;      // valid frames received
  uint64_t null_frames = 0; // calls that returned no frame
  uint64_t sos_frames = 0;
  uint64_t lost = 0; // frames missing from the index sequence
  std::optional<uint32_t> last_index;
  std::deque<int64_t> capture_us; // capture times of the latest frames
  int64_t first_capture_us = 0;
  int64_t last_capture_us = 0;
  uint32_t crc_errors_at_start = 0;
};

int64_t capture_time_us(const kvr_frame_data &frame) {
  return frame.timestamp_sec * 1'000'000 + frame.timestamp_usec;
}

void account(frame_stats &stats, const kvr_frame_data &frame) {
  // The IC's frame index is 16 bits wide on the wire.
  const uint32_t index = frame.frame_index & 0xFFFF;
  if (stats.last_index) {
    const uint32_t gap = (index - *stats.last_index - 1) & 0xFFFF;
    // A jump backwards (a restarted IC) is not a loss.
    if (gap < 0x8000) {
      stats.lost += gap;
    }
  }
  stats.last_index = index;
  const int64_t t = capture_time_us(frame);
  if (stats.frames == 0) {
    stats.first_capture_us = t;
  }
  stats.last_capture_us = t;
  stats.capture_us.push_back(t);
  if (stats.capture_us.size() > kRateWindow) {
    stats.capture_us.pop_front();
  }
  ++stats.frames;
}

// Frames per second over the latest capture times; 0 until two frames.
double recent_rate(const frame_stats &stats) {
  if (stats.capture_us.size() < 2) {
    return 0.0;
  }
  const int64_t span = stats.capture_us.back() - stats.capture_us.front();
  return span > 0 ? static_cast<double>(stats.capture_us.size() - 1) * 1e6 / span : 0.0;
}

std::string status_line(const frame_stats &stats, const kvr_frame_data &frame) {
  char line[256];
  std::snprintf(line, sizeof line,
                "frame %5u  %4u kHz  %3u Hz  rate %6.1f fps  status %-14s  lost %llu  "
                "crc errors %u  no frame %llu  sos %llu",
                frame.frame_index, frame.freq_khz, frame.rate_hz, recent_rate(stats),
                status_names(frame.status).c_str(), static_cast<unsigned long long>(stats.lost),
                crc_error_count.load() - stats.crc_errors_at_start,
                static_cast<unsigned long long>(stats.null_frames),
                static_cast<unsigned long long>(stats.sos_frames));
  return line;
}

// A moving touch and a second one crossing it, over a little noise.
void animate_simulated_panel() {
  sim::set_noise(12);
  sim::set_touches({{8.0f, 4.0f, 0.21f, 0.13f, 900.0f}, {25.0f, 11.0f, -0.17f, 0.09f, 700.0f}});
}

struct panel_size {
  uint32_t force;
  uint32_t sense;
};

// The channel counts from the capability record, checked against the
// record's room for mutual data.
std::optional<panel_size> read_panel_size() {
  const kvr_hw_cap *cap = kvr_afe_get_hw_cap();
  if (cap == nullptr) {
    std::fprintf(stderr, "afehal-tool: the capability record could not be read\n");
    return std::nullopt;
  }
  const uint32_t force = cap->force_len;
  const uint32_t sense = cap->sense_len;
  if (force == 0 || sense == 0 || force * sense > FRAME_MUTUAL_CAPACITY) {
    std::fprintf(stderr, "afehal-tool: impossible panel of %u force x %u sense channels\n", force,
                 sense);
    return std::nullopt;
  }
  return panel_size{force, sense};
}

void print_summary(const frame_stats &stats, bool fps, double wall_seconds) {
  std::printf("frames %llu, lost %llu, crc errors %u, no frame %llu, sos %llu\n",
              static_cast<unsigned long long>(stats.frames),
              static_cast<unsigned long long>(stats.lost),
              crc_error_count.load() - stats.crc_errors_at_start,
              static_cast<unsigned long long>(stats.null_frames),
              static_cast<unsigned long long>(stats.sos_frames));
  if (!fps) {
    return;
  }
  const int64_t span = stats.last_capture_us - stats.first_capture_us;
  const double scan_rate =
      stats.frames >= 2 && span > 0 ? static_cast<double>(stats.frames - 1) * 1e6 / span : 0.0;
  const double delivered = wall_seconds > 0 ? static_cast<double>(stats.frames) / wall_seconds : 0;
  std::printf("frame rate %.1f fps by capture time, %.1f frames/s delivered in %.2f s\n", scan_rate,
              delivered, wall_seconds);
}

// Stops and closes whatever the run opened; the library ends CLOSED.
void shut_down() {
  if (gu32AFEStatus == KVR_STATE_STANDBY) {
    kvr_afe_screen_on();
  }
  if (gu32AFEStatus == KVR_STATE_WORKING) {
    kvr_afe_stop();
  }
  if (gu32AFEStatus == KVR_STATE_PREWORKING) {
    kvr_afe_close();
  }
}

} // namespace

int run_frames(const frames_options &options) {
  install_stop_handler();
  const bool terminal = stdout_is_terminal();
  const bool bounded = options.count > 0;

  std::optional<sim_session> session;
  if (options.use_sim) {
    const sim::clock_mode mode = resolve_clock(options.clock, bounded);
    session.emplace(mode);
    animate_simulated_panel();
    if (!terminal) {
      std::printf("simulated panel, %s clock\n", clock_name(mode));
    }
  }

  g_log_to_stderr = !terminal;
  kvr_afe_set_log_callback_func(frames_log_sink);
  kvr_afe_set_log_level(static_cast<uint8_t>(options.log_level));

  const uint32_t opened = kvr_afe_open();
  if (opened != KVR_AFE_OK) {
    std::fprintf(stderr, "afehal-tool: kvr_afe_open failed with %u%s\n", opened,
                 opened == KVR_AFE_ERR_OPEN ? " (the device node could not be opened)" : "");
    return 1;
  }
  const uint32_t started = kvr_afe_start();
  if (started != KVR_AFE_OK) {
    std::fprintf(stderr, "afehal-tool: kvr_afe_start failed with %u\n", started);
    shut_down();
    return 1;
  }
  const std::optional<panel_size> panel = read_panel_size();
  if (!panel) {
    shut_down();
    return 1;
  }

  frame_stats stats;
  stats.crc_errors_at_start = crc_error_count.load();
  const heatmap_style style{colour_wanted(), 256};
  const int64_t every = options.every > 0 ? options.every : kDefaultEvery;
  const auto wall_start = std::chrono::steady_clock::now();
  auto last_draw = wall_start - kRedrawInterval;
  if (terminal) {
    std::fputs(kClearScreen, stdout);
    std::fputs(kHideCursor, stdout);
  }

  const size_t cells = static_cast<size_t>(panel->force) * panel->sense;
  std::vector<uint16_t> last_mutual;
  std::string last_status;
  bool last_printed = true;
  while (!stop_requested() && (!bounded || static_cast<int64_t>(stats.frames) < options.count)) {
    const kvr_frame_data *frame = kvr_afe_get_frame();
    if (frame == nullptr) {
      ++stats.null_frames;
      if (gu32AFEStatus != KVR_STATE_WORKING && gu32AFEStatus != KVR_STATE_STANDBY) {
        break; // refused: nothing more will come
      }
      continue;
    }
    if ((frame->status & KVR_AFE_STATUS_SOS) != 0) {
      ++stats.sos_frames;
      continue;
    }
    if (frame->mutual == nullptr) {
      ++stats.null_frames;
      continue;
    }
    account(stats, *frame);
    if (session && stats.frames == 1) {
      // Faults hit the frames right after the first one, so that they show
      // as gaps in the index sequence.
      sim::drop_frames(options.sim_drop);
      sim::corrupt_crc(options.sim_bad_crc);
    }

    const auto now = std::chrono::steady_clock::now();
    const bool print_now = terminal ? now - last_draw >= kRedrawInterval
                                    : static_cast<int64_t>(stats.frames) % every == 0;
    last_printed = print_now;
    if (!print_now) {
      if (!terminal) {
        // Kept for the final picture when the run ends between two prints.
        last_mutual.assign(frame->mutual, frame->mutual + cells);
        last_status = status_line(stats, *frame);
      }
      continue;
    }
    const std::string map =
        render_heatmap({frame->mutual, cells}, panel->force, panel->sense, style);
    if (terminal) {
      last_draw = now;
      std::printf("%s%s%s\n%.*s\n%s", kCursorHome, map.c_str(), status_line(stats, *frame).c_str(),
                  120, last_log_line().c_str(), kClearToEnd);
    } else {
      std::printf("%s%s\n\n", map.c_str(), status_line(stats, *frame).c_str());
    }
    std::fflush(stdout);
  }
  if (!terminal && !last_printed && !last_mutual.empty()) {
    const std::string map = render_heatmap(last_mutual, panel->force, panel->sense, style);
    std::printf("%s%s\n\n", map.c_str(), last_status.c_str());
  }

  const double wall_seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_start).count();
  if (terminal) {
    std::fputs(kShowCursor, stdout);
  }
  shut_down();
  print_summary(stats, options.fps, wall_seconds);
  const bool closed = gu32AFEStatus == KVR_STATE_CLOSED;
  if (!closed) {
    std::fprintf(stderr, "afehal-tool: the library did not close (state %u)\n",
                 static_cast<uint32_t>(gu32AFEStatus));
  }
  kvr_afe_set_log_level(0);
  return closed ? 0 : 1;
}

} // namespace tool
