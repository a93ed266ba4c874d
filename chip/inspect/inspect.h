// Production inspection: the result buffers the inspection run fills and
// the caller fetches afterwards.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

// Capacity of the buffers: nodes of a mutual frame, channels of a line.
constexpr uint32_t INSPECT_GRID_SIZE = 3000;
constexpr uint32_t INSPECT_LINE_SIZE = 300;

// Neutral value of the offset-binary grid and line buffers (raw zero).
constexpr uint16_t INSPECT_DEFAULT_VALUE = 0x8000;

// Mutual raw frame, output orientation, offset binary.
extern std::array<uint16_t, INSPECT_GRID_SIZE> inspect_grid_data;
// Self raw values, x-line then y-line, offset binary.
extern std::array<uint16_t, INSPECT_LINE_SIZE> inspect_line_data;
// Per-node noise (max - min over the noise test's frames), plain.
extern std::array<uint16_t, INSPECT_GRID_SIZE> inspect_noise_data;
// Mutual total CX after the autotune, output orientation, plain.
extern std::array<uint16_t, INSPECT_GRID_SIZE> inspect_calib_grid_data;
// Self total IX after the autotune, x-line then y-line, plain.
extern std::array<uint16_t, INSPECT_LINE_SIZE> inspect_calib_line_data;

// Set once a run has gone through the CX test; never cleared again.
extern std::atomic<bool> inspect_done;

// Sets the grid and line buffers to 0x8000 (logged). The result carries no
// meaning.
uint32_t set_default_inspect_data();
