// The frame checksum: a CRC-32 with polynomial 0xE89061DB, initial value 0,
// no reflection and no final XOR, over the frame from byte 20 on. The IC
// feeds each little-endian 32-bit word most significant byte first, so the
// byte order inside a word is +3, +2, +1, +0 and a short last word is
// zero-padded at its missing positions.
//
// crc_table is the classic one-byte table. Feeding one word MSB first is the
// same as XORing the word into the register and then clocking four zero
// bytes through it, so the computation runs four words per step with the
// sliced tables derived from crc_table: slice k maps a byte to its
// contribution after k further zero bytes.
//
// This table code is the reference and the portable path. Where the CPU has a
// carry-less multiply, the whole 16-byte blocks are folded with it instead
// (frame_crc_clmul.cpp) and the last few words still go through the tables.
#include <atomic>
#include <bit>
#include <cstring>

#include "chip/transport/frame_crc_paths.h"
#include "chip/transport/simd_target.h"
#include "chip/transport/work_point.h"
#include "platform/log.h"

uint32_t crc_table[256];

namespace {

constexpr int kSlices = 16;
// crc_slice[0] mirrors crc_table; crc_slice[k] is crc_table advanced by k
// zero bytes.
uint32_t crc_slice[kSlices][256];

// Set once the tables are built. Until then the tables are zero and every
// CRC comes out as 0; the folding path, which needs no table, waits for the
// tables so that it gives the same results.
std::atomic<bool> crc_tables_built{false};

uint32_t table_entry(uint32_t index) {
  uint32_t crc = index << 24;
  for (int bit = 0; bit < 8; ++bit) {
    crc = (crc & 0x80000000u) != 0 ? (crc << 1) ^ CRC_POLYNOMIAL : crc << 1;
  }
  return crc;
}

// The table is rebuilt from several places (start, reset) while the frame
// thread may be reading it; an entry is written only when it differs, so a
// rebuild of an intact table writes nothing.
void store_if_changed(uint32_t &slot, uint32_t value) {
  if (slot != value) {
    slot = value;
  }
}

uint32_t load_le32(const uint8_t *p) {
  uint32_t word;
  std::memcpy(&word, p, sizeof word);
  if constexpr (std::endian::native == std::endian::big) {
    word = __builtin_bswap32(word);
  }
  return word;
}

// The contribution of one word that still has `later` words to pass.
uint32_t slice_word(uint32_t word, int later) {
  const int k = 4 * later;
  return crc_slice[k + 3][word >> 24] ^ crc_slice[k + 2][(word >> 16) & 0xFF] ^
         crc_slice[k + 1][(word >> 8) & 0xFF] ^ crc_slice[k][word & 0xFF];
}

uint32_t word_step(uint32_t crc, uint32_t word) {
  return slice_word(crc ^ word, 0);
}

// Four words at once: only the first meets the register.
uint32_t quad_word_step(uint32_t crc, const uint8_t *p) {
  return slice_word(crc ^ load_le32(p), 3) ^ slice_word(load_le32(p + 4), 2) ^
         slice_word(load_le32(p + 8), 1) ^ slice_word(load_le32(p + 12), 0);
}

} // namespace

void build_crc_table() {
  for (uint32_t i = 0; i < 256; ++i) {
    store_if_changed(crc_table[i], table_entry(i));
  }
  for (uint32_t i = 0; i < 256; ++i) {
    store_if_changed(crc_slice[0][i], crc_table[i]);
  }
  for (int k = 1; k < kSlices; ++k) {
    for (uint32_t i = 0; i < 256; ++i) {
      const uint32_t prev = crc_slice[k - 1][i];
      store_if_changed(crc_slice[k][i], (prev << 8) ^ crc_table[prev >> 24]);
    }
  }
  crc_tables_built.store(true, std::memory_order_release);
}

void clear_crc_table() {
  crc_tables_built.store(false, std::memory_order_release);
  std::memset(crc_table, 0, sizeof crc_table);
  std::memset(crc_slice, 0, sizeof crc_slice);
}

uint32_t crc_by_table(uint32_t crc, const uint8_t *p, uint32_t remaining) {
  while (remaining >= 16) {
    crc = quad_word_step(crc, p);
    p += 16;
    remaining -= 16;
  }
  while (remaining >= 4) {
    crc = word_step(crc, load_le32(p));
    p += 4;
    remaining -= 4;
  }
  if (remaining > 0) {
    // The missing high bytes of the last word are fed as zeros.
    uint32_t word = 0;
    for (uint32_t i = 0; i < remaining; ++i) {
      word |= static_cast<uint32_t>(p[i]) << (8 * i);
    }
    crc = word_step(crc, word);
  }
  return crc;
}

uint32_t calculate_crc(const uint8_t *bytes, uint32_t length) {
  NLOG(LOG_LEVEL_TRACE, "calculate_crc", "Buffer total length = %d", static_cast<int>(length));
  if (bytes == nullptr || length <= CRC_START) {
    return 0;
  }
  const uint8_t *p = bytes + CRC_START;
  uint32_t remaining = length - CRC_START;
  uint32_t crc = 0;
  const uint32_t blocks = remaining / CRC_BLOCK_BYTES;
  if (blocks > 0 && !simd::portable_forced() && crc_tables_built.load(std::memory_order_acquire)) {
    crc = crc_fold_blocks(p, blocks);
    p += blocks * CRC_BLOCK_BYTES;
    remaining -= blocks * CRC_BLOCK_BYTES;
  }
  return crc_by_table(crc, p, remaining);
}
