// The building blocks the inspection tests share: printing a frame in the
// panel's output orientation, the node-by-node limit checks, the adjacency
// maps and the pattern test of a region of the IC's memory.
//
// Frames are row-major arrays of signed 16-bit values, R rows of C columns
// (rows are the force channels of a mutual frame). Limits arrays are
// row-major signed 32-bit values indexed with the frame's own R and C; the
// caller makes sure they hold at least R x C values (test_limit_covers).
#pragma once

#include <cstdint>

#include "platform/export.h"

// Which way the panel's output differs from the order the IC scans in.
struct frame_orientation {
  bool force_reverse; // rows in reverse order
  bool sense_reverse; // columns in reverse order
  bool swap;          // transposed: C rows of R entries
};

// The chip's orientation switches, read afresh.
frame_orientation current_frame_orientation();

// Writes the R x C source into dest in the given orientation and prints each
// value through INFO ("%d "). A row longer than one entry ends with a
// newline; a vector (rows of one entry) is printed on one line with a
// newline after it. Exactly R x C entries of dest are written.
void reorient_frame(const int16_t *src, uint16_t *dest, uint8_t rows, uint8_t cols,
                    frame_orientation orientation);
// reorient_frame with the chip's current orientation.
AFEHAL_EXPORT void swap_orientation_output(const int16_t *src, uint16_t *dest, uint8_t rows,
                                           uint8_t cols);

// Nodes outside [minimum, maximum] (both bounds pass), each logged as an
// error; R or C below 1 gives 0.
AFEHAL_EXPORT uint32_t check_min_max(const int16_t *frame, int32_t rows, int32_t cols,
                                     const int32_t *minimum, const int32_t *maximum);
// Nodes strictly above their limit, each logged as an error (signed
// comparison).
AFEHAL_EXPORT uint32_t check_adj_map(const int16_t *frame, int32_t rows, int32_t cols,
                                     const int32_t *limit);

// |difference| of each node and its left neighbour: R rows of C - 1 entries.
// Always 0.
AFEHAL_EXPORT uint32_t compute_adj_hor(const int16_t *frame, int32_t rows, int32_t cols,
                                       uint16_t *out);
// |difference| of each node and the one above it: R - 1 rows of C entries.
// Always 0.
AFEHAL_EXPORT uint32_t compute_adj_ver(const int16_t *frame, int32_t rows, int32_t cols,
                                       uint16_t *out);

// Results of check_ram.
constexpr uint32_t CHECK_RAM_OK = 0;
constexpr uint32_t CHECK_RAM_ERR_TRANSFER = 1; // also: no scratch memory for the region
constexpr uint32_t CHECK_RAM_ERR_DATA = 0x40;

// Fills length bytes of the IC's memory at address with the low byte of
// pattern, reads them back and reports the first byte that differs.
AFEHAL_EXPORT uint32_t check_ram(uint32_t address, uint32_t length, uint32_t pattern);
