// Frame orientation, limit checks, adjacency maps and the memory pattern
// test of the inspection.
#include "chip/inspect/checks.h"

#include <cstdlib>
#include <cstring>

#include "chip/ops/lifecycle.h"
#include "chip/transport/reg_access.h"
#include "platform/heap.h"
#include "platform/log.h"

namespace {

// Source index of output entry (r, c).
size_t source_index(uint32_t r, uint32_t c, uint32_t rows, uint32_t cols, frame_orientation o) {
  uint32_t src_row = o.swap ? c : r;
  uint32_t src_col = o.swap ? r : c;
  if (o.force_reverse) {
    src_row = rows - 1 - src_row;
  }
  if (o.sense_reverse) {
    src_col = cols - 1 - src_col;
  }
  return size_t{src_row} * cols + src_col;
}

uint16_t abs_difference(int16_t a, int16_t b) {
  return static_cast<uint16_t>(std::abs(int32_t{a} - int32_t{b}));
}

} // namespace

frame_orientation current_frame_orientation() {
  return {is_frame_force_reverse(), is_frame_sense_reverse(), is_frame_swap()};
}

void reorient_frame(const int16_t *src, uint16_t *dest, uint8_t rows, uint8_t cols,
                    frame_orientation orientation) {
  const uint32_t out_rows = orientation.swap ? cols : rows;
  const uint32_t out_cols = orientation.swap ? rows : cols;
  size_t next = 0;
  for (uint32_t r = 0; r < out_rows; ++r) {
    for (uint32_t c = 0; c < out_cols; ++c) {
      const int16_t value = src[source_index(r, c, rows, cols, orientation)];
      dest[next++] = static_cast<uint16_t>(value);
      INFO("%d ", value);
    }
    if (out_cols > 1) {
      INFO("\n");
    }
  }
  if (out_cols == 1) {
    INFO("\n");
  }
}

void swap_orientation_output(const int16_t *src, uint16_t *dest, uint8_t rows, uint8_t cols) {
  reorient_frame(src, dest, rows, cols, current_frame_orientation());
}

uint32_t check_min_max(const int16_t *frame, int32_t rows, int32_t cols, const int32_t *minimum,
                       const int32_t *maximum) {
  uint32_t failures = 0;
  for (int32_t r = 0; r < rows; ++r) {
    for (int32_t c = 0; c < cols; ++c) {
      const size_t i = static_cast<size_t>(r) * static_cast<size_t>(cols) + static_cast<size_t>(c);
      const int32_t value = frame[i];
      if (minimum[i] > value || maximum[i] < value) {
        log_error(__func__, " node[%d,%d] = %d, Exceeding the limit [%d, %d]", r, c, value,
                  minimum[i], maximum[i]);
        ++failures;
      }
    }
  }
  return failures;
}

uint32_t check_adj_map(const int16_t *frame, int32_t rows, int32_t cols, const int32_t *limit) {
  uint32_t failures = 0;
  for (int32_t r = 0; r < rows; ++r) {
    for (int32_t c = 0; c < cols; ++c) {
      const size_t i = static_cast<size_t>(r) * static_cast<size_t>(cols) + static_cast<size_t>(c);
      const int32_t value = frame[i];
      if (limit[i] < value) {
        log_error(__func__, "Node[%d,%d] = %d exceed limit > %d", r, c, value, limit[i]);
        ++failures;
      }
    }
  }
  return failures;
}

uint32_t compute_adj_hor(const int16_t *frame, int32_t rows, int32_t cols, uint16_t *out) {
  log_error(__func__, "Computing Adjacent Horizontal frame..");
  if (rows < 1 || cols < 2) {
    return 0;
  }
  for (int32_t r = 0; r < rows; ++r) {
    const int16_t *row = frame + static_cast<ptrdiff_t>(r) * cols;
    uint16_t *out_row = out + static_cast<ptrdiff_t>(r) * (cols - 1);
    for (int32_t c = 1; c < cols; ++c) {
      out_row[c - 1] = abs_difference(row[c], row[c - 1]);
    }
  }
  return 0;
}

uint32_t compute_adj_ver(const int16_t *frame, int32_t rows, int32_t cols, uint16_t *out) {
  log_error(__func__, "Computing Adjacent Vertical frame..");
  if (rows < 2 || cols < 1) {
    return 0;
  }
  for (int32_t r = 1; r < rows; ++r) {
    const int16_t *row = frame + static_cast<ptrdiff_t>(r) * cols;
    const int16_t *above = row - cols;
    uint16_t *out_row = out + static_cast<ptrdiff_t>(r - 1) * cols;
    for (int32_t c = 0; c < cols; ++c) {
      out_row[c] = abs_difference(row[c], above[c]);
    }
  }
  return 0;
}

uint32_t check_ram(uint32_t address, uint32_t length, uint32_t pattern) {
  const auto expected = static_cast<uint8_t>(pattern);
  if (length == 0) {
    return CHECK_RAM_OK;
  }
  // The transfers take a signed length; no region comes near that size.
  if (length > static_cast<uint32_t>(INT32_MAX)) {
    log_error(__func__, "Error writing data to memory..");
    return CHECK_RAM_ERR_TRANSFER;
  }
  heap_buffer<uint8_t> written(length);
  heap_buffer<uint8_t> read_back(length);
  if (!written || !read_back) {
    log_error(__func__, "Error allocating memory for the memory check");
    return CHECK_RAM_ERR_TRANSFER;
  }
  std::memset(written.get(), expected, length);
  const auto signed_length = static_cast<int32_t>(length);
  if (quillon_write_chunk_at(address, written.get(), signed_length) != 0) {
    log_error(__func__, "Error writing data to memory..");
    return CHECK_RAM_ERR_TRANSFER;
  }
  if (quillon_read_chunk_at(address, read_back.get(), signed_length) != 0) {
    log_error(__func__, "Error reading data from memory..");
    return CHECK_RAM_ERR_TRANSFER;
  }
  for (uint32_t i = 0; i < length; ++i) {
    if (read_back[i] != expected) {
      log_error(__func__, "Data read from %08X is %02X, while expecting %02X", address + i,
                read_back[i], expected);
      return CHECK_RAM_ERR_DATA;
    }
  }
  return CHECK_RAM_OK;
}
