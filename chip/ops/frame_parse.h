// The frame wire format, its checks and its conversion into frame_data.
#pragma once

#include <atomic>
#include <cstdint>

#include "afehal/afehal.h"
#include "chip/transport/work_point.h"
#include "platform/export.h"

constexpr uint32_t FRAME_BUFFER_SIZE = 3000;
constexpr uint32_t FRAME_MUTUAL_CAPACITY = 3000;
constexpr uint32_t FRAME_SELF_CAPACITY = 1000;
constexpr uint32_t FRAME_HEADER_SIZE = 64;

// This panel.
constexpr uint8_t PANEL_FORCE = 16;
constexpr uint8_t PANEL_SENSE = 34;

// Gain-table selectors of frame_process.
constexpr int32_t GAIN_MS = 1;
constexpr int32_t GAIN_SS_FORCE = 2;
constexpr int32_t GAIN_SS_SENSE = 3;

extern const float gain_ms[PANEL_FORCE * PANEL_SENSE];
extern const float gain_ss_force[PANEL_FORCE];
extern const float gain_ss_sense[PANEL_SENSE];

// Frames rejected for their CRC since load.
extern std::atomic<uint32_t> crc_error_count;

// Mutual-style conversion with a chosen gain table and an added offset.
void frame_process(const uint8_t *src, uint16_t *dest, uint8_t force, uint8_t sense,
                   uint32_t offset, int32_t gain_index);
