// `afehal-tool fw-info --sim-update`: the library's firmware update on a
// simulated chip that holds older firmware, with a progress bar fed from the
// library's own log lines ("Flash erase done in ..." per erased page, "Flash
// dma done in ..." per programmed chunk) and the versions before and after.
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "afehal/afehal.h"
#include "chip/firmware/fw_image.h"
#include "chip/firmware/fw_update.h"
#include "tools/tool.h"

namespace tool {

namespace {

constexpr int kBarWidth = 40;

// Progress of one update, filled by the log sink on the thread that runs
// kvr_afe_start (the update is synchronous inside it).
struct update_progress {
  fw_flash_map map{};
  uint32_t code_chunks = 0; // DMA transfers of the code section
  uint32_t total_steps = 0; // pages to erase + chunks to program; 0 until known
  uint32_t done_steps = 0;
  bool decided = false;
  bool no_update = false;
  uint16_t chip[3] = {0, 0, 0}; // fw, config, cx as the chip reported them
  uint16_t file[3] = {0, 0, 0};
  std::string outcome;
  std::string phase;
  int last_percent = -1;
  bool terminal = false;
  bool verbose = false;
};

update_progress g_progress;

bool starts_with(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// The section is rewritten when the chip reports 0 or another version.
bool differs(uint16_t chip, uint16_t file) {
  return chip == 0 || chip != file;
}

void plan_steps(update_progress &p) {
  const bool code = differs(p.chip[0], p.file[0]);
  const bool cfg = differs(p.chip[1], p.file[1]);
  const bool cx = differs(p.chip[2], p.file[2]);
  p.total_steps = 0;
  if (code) {
    p.total_steps += p.map[0].pages + p.code_chunks;
  }
  if (cx) {
    p.total_steps += p.map[2].pages + 1;
  }
  if (cfg) {
    p.total_steps += p.map[3].pages + 1;
  }
}

void draw_bar(update_progress &p) {
  if (p.total_steps == 0) {
    return;
  }
  const uint32_t done = p.done_steps < p.total_steps ? p.done_steps : p.total_steps;
  const int percent = static_cast<int>(done * 100 / p.total_steps);
  if (!p.terminal && p.last_percent >= 0 && percent / 10 == p.last_percent / 10) {
    return; // into a pipe: one line per tenth
  }
  p.last_percent = percent;
  const int filled = static_cast<int>(done * kBarWidth / p.total_steps);
  std::string bar(static_cast<size_t>(filled), '#');
  bar.append(static_cast<size_t>(kBarWidth - filled), '.');
  std::printf("%s[%s] %3d%%  %-28.28s%s", p.terminal ? "\r" : "", bar.c_str(), percent,
              p.phase.c_str(), p.terminal ? "" : "\n");
  std::fflush(stdout);
}

void update_log_sink(const char *line) {
  update_progress &p = g_progress;
  const std::string_view message = log_message(line);
  if (p.verbose) {
    std::fputs(line, stderr);
  }
  unsigned chip_fw = 0, file_fw = 0, chip_cfg = 0, file_cfg = 0, chip_cx = 0, file_cx = 0;
  if (!p.decided &&
      std::sscanf(std::string(message).c_str(),
                  "FW ver: %x -> %x, config ver: %x -> %x, CX ver: %x -> %x", &chip_fw, &file_fw,
                  &chip_cfg, &file_cfg, &chip_cx, &file_cx) == 6) {
    p.decided = true;
    p.chip[0] = static_cast<uint16_t>(chip_fw);
    p.chip[1] = static_cast<uint16_t>(chip_cfg);
    p.chip[2] = static_cast<uint16_t>(chip_cx);
    p.file[0] = static_cast<uint16_t>(file_fw);
    p.file[1] = static_cast<uint16_t>(file_cfg);
    p.file[2] = static_cast<uint16_t>(file_cx);
    plan_steps(p);
    return;
  }
  if (message == "FW in the chip matches with the file.. No need to update the firmware") {
    p.no_update = true;
    p.outcome = std::string(message);
    return;
  }
  if (message == "Erasing code.." || message == "Erasing cx.." || message == "Erasing config.." ||
      message == "flashing code.." || message == "flashing cx.." ||
      message == "flashing config..") {
    p.phase = std::string(message);
    draw_bar(p);
    return;
  }
  // A page counts when its erase has finished, a chunk when its DMA has.
  if (starts_with(message, "Erasing page: ")) {
    p.phase = std::string(message);
    draw_bar(p);
    return;
  }
  if (starts_with(message, "Flash erase done in ") || starts_with(message, "Flash dma done in ")) {
    ++p.done_steps;
    draw_bar(p);
    return;
  }
  if (message == "Flash completed successfully" ||
      message == "FW not updated correctly after flashing" || message == "FW update failed" ||
      message == "Unable to flash the fw..") {
    if (p.outcome.empty() || message == "FW update failed") {
      p.outcome = std::string(message);
    }
  }
}

void print_identity(const char *when, const sim::chip_identity &id) {
  std::printf("%-7s fw 0x%04X  config 0x%04X  cx 0x%04X\n", when, id.fw_ver, id.cfg_ver,
              id.cx_cfg_ver);
}

} // namespace

int run_sim_update(const fw_info_options &options) {
  const sim::clock_mode mode = resolve_clock(options.clock, true);
  sim_session session(mode);

  g_progress = update_progress{};
  g_progress.terminal = stdout_is_terminal();
  g_progress.verbose = options.verbose;

  // The flash layout of the embedded image tells how many pages and chunks
  // each section takes.
  fw_file_info image{};
  if (parse_fw_header_file(&image, myArray) != FW_PARSE_OK) {
    clean_fw_file_info(&image);
    std::fprintf(stderr, "afehal-tool: the embedded image does not parse\n");
    return 1;
  }
  g_progress.map = fw_describe_flash_map(image);
  g_progress.code_chunks = (image.fw_size + FLASH_DMA_CHUNK - 1) / FLASH_DMA_CHUNK;
  clean_fw_file_info(&image);

  sim::chip_identity before = sim::identity();
  before.fw_ver = options.chip_fw;
  sim::set_identity(before);
  std::printf("simulated chip, %s clock\n", clock_name(mode));
  print_identity("before", before);

  // The progress lines are logged at level 3.
  kvr_afe_set_log_callback_func(update_log_sink);
  kvr_afe_set_log_level(3);
  if (kvr_afe_open() != KVR_AFE_OK) {
    std::fprintf(stderr, "afehal-tool: kvr_afe_open failed on the simulator\n");
    return 1;
  }
  const uint32_t started = kvr_afe_start();
  if (g_progress.terminal && g_progress.total_steps != 0 && !g_progress.no_update) {
    std::printf("\n");
  }
  kvr_afe_set_log_level(0);

  std::printf("update  %s\n",
              g_progress.outcome.empty() ? "(no outcome logged)" : g_progress.outcome.c_str());
  const std::vector<int> pages = sim::erased_pages();
  const std::vector<sim::dma_record> dmas = sim::dma_transfers();
  std::printf("flash   %zu pages erased, %zu DMA transfers", pages.size(), dmas.size());
  for (const sim::dma_record &d : dmas) {
    std::printf(" [0x%05X +%u]", d.flash_offset, d.length);
  }
  std::printf("\n");
  print_identity("after", sim::identity());
  char version[sizeof(kvr_afe_info::version) + 1] = "";
  if (const kvr_afe_info *info = kvr_afe_get_info()) {
    std::memcpy(version, info->version, sizeof info->version);
  }
  std::printf("library version string \"%s\"\n", version);
  std::printf("start   -> %u\n", started);

  kvr_afe_stop();
  kvr_afe_close();
  const bool ok = started == KVR_AFE_OK && gu32AFEStatus == KVR_STATE_CLOSED &&
                  g_progress.outcome != "FW update failed";
  return ok ? 0 : 1;
}

} // namespace tool
