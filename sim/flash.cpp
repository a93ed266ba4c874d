// The flash controller: page erase, and DMA from the RAM staging buffer
// into a 128 KiB flash. Both need the core held and the flash unlocked;
// both report busy in bit 7 of their status byte for a while on the sim
// clock. Programming can only clear bits, as real flash does, so a page
// written without being erased reads back wrong. After a reset that
// follows programming the chip takes its versions from the section
// headers in flash.
#include <algorithm>
#include <cstring>
#include <limits>

#include "sim/state.h"

namespace sim::detail {

namespace {

constexpr int64_t kForever = std::numeric_limits<int64_t>::max();

uint8_t mem_byte(uint32_t address) {
  uint8_t b = 0;
  mem_load(address, &b, 1);
  return b;
}

bool flash_open() {
  return !g_ic.running && mem_byte(wire::kFlashUnlock1) == wire::kUnlock1Value &&
         mem_byte(wire::kFlashUnlock2) == wire::kUnlock2Value;
}

bool has_tag(uint32_t at, const char (&tag)[5]) {
  return std::memcmp(&g_flash.contents[at], tag, 4) == 0;
}

uint16_t flash_le16(uint32_t at) {
  return le16(&g_flash.contents[at]);
}

} // namespace

// The contents buffer is kept and erased in place: fuzzers reset the
// simulator for every input.
void flash_reset_state() {
  std::vector<uint8_t> contents = std::move(g_flash.contents);
  contents.assign(kFlashSize, 0xFF);
  g_flash = flash_data{};
  g_flash.contents = std::move(contents);
}

void flash_erase_start(uint8_t value) {
  if (!flash_open()) {
    return;
  }
  const uint8_t page = value & 0x7F;
  g_flash.erased.push_back(page);
  g_flash.programmed = true;
  if (page < kFlashSize / kFlashPage) {
    std::fill_n(g_flash.contents.begin() + page * kFlashPage, kFlashPage, 0xFF);
  }
  g_flash.erase_busy_until = g_flash.erase_stuck ? kForever : clock_now() + g_flash.erase_busy_us;
}

void flash_dma_start() {
  uint8_t block[6];
  mem_load(wire::kFlashControl, block, sizeof block);
  if (!flash_open() || std::memcmp(block, wire::kDmaStartBlock, sizeof block) != 0) {
    return;
  }
  uint8_t d[7];
  mem_load(wire::kDmaDescriptor, d, sizeof d);
  const uint32_t offset = uint32_t{le16(&d[2])} * 4;
  const uint32_t length = (uint32_t{le16(&d[4])} + 1) * 4;
  g_flash.dmas.push_back({offset, length});
  g_flash.programmed = true;
  if (g_flash.dma_stuck) {
    g_flash.dma_busy_until = kForever;
    return;
  }
  const uint32_t n = offset < kFlashSize ? std::min(length, kFlashSize - offset) : 0;
  std::vector<uint8_t> ram(n);
  mem_load(wire::kStagingRam, ram.data(), n);
  for (uint32_t i = 0; i < n; ++i) {
    g_flash.contents[offset + i] &= ram[i];
  }
  g_flash.dma_busy_until = clock_now() + g_flash.dma_busy_us;
}

uint8_t flash_erase_status(uint8_t stored) {
  const bool busy = clock_now() < g_flash.erase_busy_until;
  return static_cast<uint8_t>((stored & 0x7F) | (busy ? 0x80 : 0));
}

uint8_t flash_dma_status(uint8_t stored) {
  const bool busy = clock_now() < g_flash.dma_busy_until;
  return static_cast<uint8_t>((stored & 0x7F) | (busy ? 0x80 : 0));
}

void flash_on_system_reset() {
  g_flash.erase_busy_until = 0;
  g_flash.dma_busy_until = 0;
  if (!g_flash.programmed) {
    return;
  }
  g_flash.programmed = false;
  if (g_flash.versions_stick) {
    return;
  }
  chip_identity &id = g_ic.id;
  if (has_tag(wire::kCodeHeaderAt, "CODE")) {
    id.fw_ver = flash_le16(wire::kCodeHeaderAt + 4);
    id.svn_rev = flash_le16(wire::kCodeHeaderAt + 6);
  }
  if (has_tag(wire::kCxHeaderAt, "CXDT")) {
    id.cx_cfg_ver = flash_le16(wire::kCxHeaderAt + 20);
  }
  if (has_tag(wire::kConfigHeaderAt, "CNFG")) {
    id.cfg_ver = flash_le16(wire::kConfigHeaderAt + 4);
    id.cfg_id = flash_le16(wire::kConfigHeaderAt + 6);
    id.afe_ver_cfg = g_flash.contents[wire::kConfigHeaderAt + 8];
  }
}

} // namespace sim::detail

namespace sim {

using namespace detail;

std::vector<uint8_t> flash() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_flash.contents;
}

void set_flash(const std::vector<uint8_t> &contents) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_flash.contents.assign(kFlashSize, 0xFF);
  std::copy_n(contents.begin(), std::min<size_t>(contents.size(), kFlashSize),
              g_flash.contents.begin());
}

std::vector<int> erased_pages() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_flash.erased;
}

std::vector<dma_record> dma_transfers() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_flash.dmas;
}

void set_erase_busy_ms(uint32_t ms) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_flash.erase_busy_us = int64_t{ms} * 1000;
}

void erase_stuck(bool on) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_flash.erase_stuck = on;
  if (!on) {
    g_flash.erase_busy_until = std::min(g_flash.erase_busy_until, clock_now());
  }
}

void dma_stuck(bool on) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_flash.dma_stuck = on;
  if (!on) {
    g_flash.dma_busy_until = std::min(g_flash.dma_busy_until, clock_now());
  }
}

void versions_stick(bool on) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_flash.versions_stick = on;
}

} // namespace sim
