// The two implementations behind calculate_crc (frame_crc.cpp).
#pragma once

#include <cstdint>

constexpr uint32_t CRC_BLOCK_BYTES = 16;

// Continues the frame CRC from state `crc` over `length` bytes (whole words,
// then a zero-padded last word) with the byte tables.
uint32_t crc_by_table(uint32_t crc, const uint8_t *p, uint32_t length);

// The CRC state after `blocks` (at least 1) whole 16-byte blocks from state
// 0, by carry-less multiplication on the chosen target; targets without one
// use the tables.
uint32_t crc_fold_blocks(const uint8_t *p, uint32_t blocks);
