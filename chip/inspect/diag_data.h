// Diagnostic data the inspection reads from the IC's host-data area beyond
// the normal frames: the mutual raw frame, the sync frame (mutual and self
// data together) and the compensation values (mutual CX, self IX and CX,
// and their totals).
//
// Readers return 0 on success, 1 when the request or a read failed, and 128
// for an allocation failure, an unsupported type, a zero size or a header
// claiming more channels than the inspection buffers hold. They allocate
// fresh arrays into the record they are given and never free what it
// already holds: start from new_* and clean_* between reads.
#pragma once

#include <cstdint>

constexpr uint32_t DIAG_OK = 0;
constexpr uint32_t DIAG_ERR_READ = 1;
constexpr uint32_t DIAG_ERR_DATA = 0x80;

// Host-data types of the compensation data.
constexpr uint8_t HOST_DATA_MS_CX = 0x10;
constexpr uint8_t HOST_DATA_MS_LP_CX = 0x11;
constexpr uint8_t HOST_DATA_SS_CX = 0x12;
constexpr uint8_t HOST_DATA_SS_DETECT_CX = 0x13;
constexpr uint8_t HOST_DATA_MS_TOTAL_CX = 0x50;
constexpr uint8_t HOST_DATA_MS_LP_TOTAL_CX = 0x51;
constexpr uint8_t HOST_DATA_SS_TOTAL_CX = 0x52;
constexpr uint8_t HOST_DATA_SS_DETECT_TOTAL_CX = 0x53;

// The largest frame the inspection buffers take: nodes, and channels of a
// self line.
constexpr uint32_t DIAG_MAX_NODES = 3000;
constexpr uint32_t DIAG_MAX_CHANNELS = 300;

struct mutual_frame {
  uint16_t nodes;    // force_len x sense_len (raw and sync readers only)
  uint8_t force_len; // rows
  uint8_t sense_len; // columns
  int16_t *data;     // force-major
};

struct self_frame {
  uint8_t force_len;
  uint8_t sense_len;
  int16_t *force_data;
  int16_t *sense_data;
};

// One half of the self compensation data: IX (force_1/sense_1 = IX1) or CX
// (CX1), per-channel values in force_data and sense_data.
struct ss_cx_data {
  uint8_t force_len;
  uint8_t sense_len;
  int16_t *force_data;
  int16_t *sense_data;
  uint8_t force_1;
  uint8_t sense_1;
};

mutual_frame new_mutual_frame();
self_frame new_self_frame();
ss_cx_data new_ss_cx_data();
void clean_mutual_frame(mutual_frame *frame);
void clean_self_frame(self_frame *frame);
void clean_ss_cx_data(ss_cx_data *data);

// The mutual raw frame at the chip's MS raw address (sizes from sys_info).
uint32_t read_ms_frame(mutual_frame *frame);
// The sync frame; bit 0 of each flag chooses whether that record is filled.
uint32_t read_sync_frame(mutual_frame *ms, self_frame *ss, uint32_t want_mutual,
                         uint32_t want_self);
// Mutual compensation data of type 0x10, 0x11, 0x50 or 0x51.
uint32_t read_ms_cx_data(uint8_t type, mutual_frame *frame);
// Self compensation data of type 0x12, 0x13, 0x52 or 0x53.
uint32_t read_ss_cx_data(uint8_t type, ss_cx_data *ix, ss_cx_data *cx);
