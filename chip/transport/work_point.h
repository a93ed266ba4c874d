// What the host has asked of the IC and must forget when the IC resets: the
// working point, the frame CRC table and the calibration flags.
//
// It sits at the bottom of the chip layer because a system reset (the
// firmware commands, one layer up) clears it, and the chip operations above
// read and write it; neither of them owns it.
#pragma once

#include <atomic>
#include <cstdint>

constexpr int WORK_PARM_SIZE = 10;
constexpr uint8_t WORK_PARM_NO_REQUEST = 0xFF;
// work_parm bytes.
constexpr int WP_AUTO_SHIFT_DISABLED = 0;
constexpr int WP_FREQ_INDEX = 1;
constexpr int WP_RATE_INDEX = 2;

// Current working point: byte 0 automatic shift disabled, 1 frequency
// index, 2 rate index. Shared by the frame thread and the control thread.
extern std::atomic<uint8_t> work_parm[WORK_PARM_SIZE];
// Requested working point: bytes 1 and 2, 0xFF for no request.
extern std::atomic<uint8_t> work_parm_request[WORK_PARM_SIZE];

// Set by a successful calibration, cleared by status 8.
extern std::atomic<uint8_t> calibration_done;
extern std::atomic<uint8_t> recal_request;

// The frame checksum (frame_crc.cpp).
constexpr uint32_t CRC_START = 20;
constexpr uint32_t CRC_POLYNOMIAL = 0xE89061DB;
extern uint32_t crc_table[256];
void build_crc_table();
// Back to the load-time state: every entry zero (tests only).
void clear_crc_table();
uint32_t calculate_crc(const uint8_t *bytes, uint32_t length);

// Marks both requested indices as "no request".
void reset_work_parm_request();
// Resets the working point, the CRC table and the calibration flags.
void init_work_parm();
