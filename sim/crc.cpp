// The chip's frame CRC: CRC-32 with polynomial 0xE89061DB, MSB first, no
// reflection, initial value 0, no final XOR, over frame bytes 20 onward.
// The chip feeds each little-endian 32-bit word most significant byte
// first, which is exactly one step of a slicing-by-4 update with the word
// as it lies in memory; a short last word is zero-padded.
#include <array>

#include "sim/state.h"

namespace sim {

namespace {

using table = std::array<uint32_t, 256>;

constexpr std::array<table, 4> make_tables() {
  std::array<table, 4> t{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i << 24;
    for (int bit = 0; bit < 8; ++bit) {
      c = (c & 0x80000000u) != 0 ? (c << 1) ^ wire::kCrcPoly : c << 1;
    }
    t[0][i] = c;
  }
  // t[k][i]: byte i followed by k zero bytes.
  for (size_t k = 1; k < 4; ++k) {
    for (uint32_t i = 0; i < 256; ++i) {
      const uint32_t prev = t[k - 1][i];
      t[k][i] = (prev << 8) ^ t[0][prev >> 24];
    }
  }
  return t;
}

constexpr std::array<table, 4> kTables = make_tables();

} // namespace

uint32_t frame_crc(const uint8_t *frame, size_t length) {
  uint32_t crc = 0;
  for (size_t at = wire::kCrcStart; at < length; at += 4) {
    uint32_t word = 0;
    for (size_t k = 0; k < 4 && at + k < length; ++k) {
      word |= uint32_t{frame[at + k]} << (8 * k);
    }
    const uint32_t x = crc ^ word;
    crc = kTables[3][x >> 24] ^ kTables[2][(x >> 16) & 0xFF] ^ kTables[1][(x >> 8) & 0xFF] ^
          kTables[0][x & 0xFF];
  }
  return crc;
}

} // namespace sim
