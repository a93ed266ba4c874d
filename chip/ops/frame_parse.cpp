// One raw frame from the driver: its checks (tag, counter echo, CRC), the
// bookkeeping of lost frames and working-point shifts, and its conversion
// into the service's frame record.
#include "chip/ops/frame_parse.h"

#include <algorithm>
#include <cstring>

#include "chip/chip.h"
#include "chip/ops/frame_convert.h"
#include "chip/ops/lifecycle.h"
#include "chip/transport/fw_cmd.h"
#include "platform/ioctrl.h"
#include "platform/log.h"

std::atomic<uint32_t> crc_error_count{0};

namespace {

// Wire layout of a frame (little-endian fields).
constexpr uint32_t OFF_TAG0 = 0;
constexpr uint32_t OFF_TAG1 = 1;
constexpr uint32_t OFF_COUNTER = 2;
constexpr uint32_t OFF_CRC = 4;
constexpr uint32_t OFF_NOISE_LEVEL = 23;
constexpr uint32_t OFF_SCAN_MODE = 24;
constexpr uint32_t OFF_RATE_CODE = 25;
constexpr uint32_t OFF_FREQ = 26;
constexpr uint32_t OFF_INDEX = 28;
constexpr uint32_t OFF_FW_COUNTER = 30;
constexpr uint32_t OFF_STDDEV = 32; // four u16: r0..r3
constexpr uint32_t OFF_SENSE = 48;
constexpr uint32_t OFF_FORCE = 49;
constexpr uint32_t TRAILER_SIZE = 2;

constexpr uint8_t TAG0 = 0xA5;
constexpr uint8_t TAG1 = 0x3A;
constexpr uint8_t SCAN_MODE_ACTIVE = 4;
constexpr uint8_t SCAN_MODE_IDLE = 2;
// Rate codes below this are the fast rate.
constexpr uint8_t RATE_CODE_SLOW = 0x40;
constexpr uint16_t RATE_FAST_HZ = 180;
constexpr uint16_t RATE_SLOW_HZ = 120;

// The receive area lent to the driver and the converted output.
uint8_t frame_buffer[FRAME_BUFFER_SIZE];
int64_t frame_timestamp[2];
ioctrl_framedata frame_request{frame_buffer, frame_timestamp, FRAME_BUFFER_SIZE, 0};
uint16_t mutual_out[FRAME_MUTUAL_CAPACITY];
uint16_t self_out[FRAME_SELF_CAPACITY];

// Frame thread only.
uint32_t prev_frame_index = 0;
uint32_t prev_fw_counter = 0;

uint16_t read_u16(const uint8_t *p) {
  return static_cast<uint16_t>(p[0] | (static_cast<uint16_t>(p[1]) << 8));
}

int16_t read_i16(const uint8_t *p) {
  return static_cast<int16_t>(read_u16(p));
}

uint32_t read_u32(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// Bytes covered by the CRC: header and data, without the trailing counter.
uint32_t frame_body_size(uint32_t force, uint32_t sense) {
  return FRAME_HEADER_SIZE + 2 * (force * sense + force + sense);
}

// Compares the frame's frequency and rate with the current and requested
// working point; returns the shift-done bit when a change has taken effect.
uint32_t track_shift(uint16_t freq, uint16_t rate) {
  constexpr const char *tag = "vendor_parse_ioctrl_frame";
  const uint8_t cur_f = work_parm[WP_FREQ_INDEX].load(std::memory_order_relaxed);
  const uint8_t cur_r = work_parm[WP_RATE_INDEX].load(std::memory_order_relaxed);
  const uint8_t req_f = work_parm_request[WP_FREQ_INDEX].load(std::memory_order_relaxed);
  const uint8_t req_r = work_parm_request[WP_RATE_INDEX].load(std::memory_order_relaxed);
  const uint8_t nf = cap_freq_count();
  const uint8_t nr = cap_rate_count();
  const int32_t cur_freq = cap_freq(cur_f);
  const int32_t cur_rate = cap_rate(cur_r);
  const int32_t req_freq = cap_freq(req_f);
  const int32_t req_rate = cap_rate(req_r);
  uint32_t status = 0;

  if (req_f < nf && req_r < nr) {
    // Both axes were requested: done only when both have arrived.
    if (req_freq == freq && req_rate == rate) {
      log_error(tag, "Frequency and Scan rate shift are done, freq: %d -> %dKHz, rate: %d -> %d",
                cur_freq, freq, cur_rate, rate);
      status |= KVR_AFE_STATUS_SHIFT_DONE;
      work_parm[WP_FREQ_INDEX].store(req_f, std::memory_order_relaxed);
      work_parm[WP_RATE_INDEX].store(req_r, std::memory_order_relaxed);
    } else {
      log_error(tag,
                "Shift not all effective yet, print prev/cur/target, freq: %d/%d/%d, "
                "rate: %d/%d/%d",
                cur_freq, freq, req_freq, cur_rate, rate, req_rate);
    }
    return status;
  }

  // Each axis on its own: a frame that differs from the current point, or a
  // request for another point that the frame already shows as current,
  // counts as a completed shift.
  if (!(cur_freq == freq && (req_f >= nf || req_freq != cur_freq))) {
    status |= KVR_AFE_STATUS_SHIFT_DONE;
    log_error(tag, "Frequency shift done: %d -> %dKHz", cur_freq, freq);
    work_parm[WP_FREQ_INDEX].store(get_scan_freq_index(freq), std::memory_order_relaxed);
  }
  if (!(cur_rate == rate && (req_r >= nr || req_rate != cur_rate))) {
    status |= KVR_AFE_STATUS_SHIFT_DONE;
    log_error(tag, "Scan rate shift done: %d -> %dHz", cur_rate, rate);
    work_parm[WP_RATE_INDEX].store(get_scan_rate_index(static_cast<uint8_t>(rate)),
                                   std::memory_order_relaxed);
  }
  return status;
}

void count_lost_frames(uint32_t index, uint32_t fw_counter) {
  const auto gap = static_cast<int32_t>(index - prev_frame_index - 1);
  if (gap >= 1) {
    log_error("vendor_parse_ioctrl_frame", "Frame missing: drop %d frames, FW drops %d frames", gap,
              static_cast<int32_t>(fw_counter - prev_fw_counter));
  }
  prev_frame_index = index;
  prev_fw_counter = fw_counter;
}

} // namespace

bool vendor_parse_ioctrl_frame(ioctrl_framedata *req, kvr_frame_data *frame) {
  constexpr const char *tag = "vendor_parse_ioctrl_frame";
  if (req == nullptr || req->buf == nullptr || frame == nullptr) {
    log_error(tag, "No frame to parse");
    return false;
  }
  const uint8_t *buf = req->buf;
  const uint32_t capacity = std::min(req->size, FRAME_BUFFER_SIZE);
  if (capacity < FRAME_HEADER_SIZE + TRAILER_SIZE) {
    log_error(tag, "Frame area of %u bytes is too small", capacity);
    return false;
  }

  if (buf[OFF_TAG0] != TAG0 || buf[OFF_TAG1] != TAG1) {
    log_error(tag, "Invalid header information found %02X %02X", buf[OFF_TAG0], buf[OFF_TAG1]);
    return false;
  }

  const uint16_t index = read_u16(buf + OFF_INDEX);
  frame->frame_index = index;
  const uint8_t sense = buf[OFF_SENSE];
  const uint8_t force = buf[OFF_FORCE];

  // The channel counts come from the IC: they must fit the gain tables and
  // the receive area before anything behind the header is read.
  const uint32_t body = frame_body_size(force, sense);
  if (force > PANEL_FORCE || sense > PANEL_SENSE || body + TRAILER_SIZE > capacity) {
    log_error(tag, "Impossible channel count: force %d, sense %d (panel %d X %d, area %u bytes)",
              force, sense, PANEL_FORCE, PANEL_SENSE, capacity);
    return false;
  }

  // The firmware computes the trailer position in 16 bits.
  const auto trailer_offset = static_cast<uint16_t>(body);
  const uint16_t counter = read_u16(buf + OFF_COUNTER);
  const uint16_t trailer = read_u16(buf + trailer_offset);
  if (counter != trailer) {
    log_error(tag, "Counter not matched: %d/%d", counter, trailer);
    return false;
  }

  const uint32_t header_crc = read_u32(buf + OFF_CRC);
  const uint32_t crc = calculate_crc(buf, body);
  if (crc != header_crc) {
    const uint32_t errors = crc_error_count.fetch_add(1, std::memory_order_relaxed) + 1;
    log_error(tag,
              "Error frame %d checksum, error count %d, header CRC = %08X, calculated CRC = %08X",
              index, static_cast<int>(errors), header_crc, crc);
    return false;
  }
  NLOG(LOG_LEVEL_TRACE, tag, "Frame %d checksum OK", index);

  const uint8_t mode = buf[OFF_SCAN_MODE];
  const uint16_t freq = read_u16(buf + OFF_FREQ);
  const uint16_t rate = buf[OFF_RATE_CODE] < RATE_CODE_SLOW ? RATE_FAST_HZ : RATE_SLOW_HZ;
  frame->freq_khz = freq;
  frame->rate_hz = rate;
  NLOG(LOG_LEVEL_INFO, tag,
       "Frame index: %d, size: %d X %d, scan mode: %02X, freq: %dKHz, rate: %dHz", index, force,
       sense, mode, freq, rate);
  NLOG(LOG_LEVEL_INFO, tag, "Noise level: %d, stddev r0: %d, r1: %d, r2: %d, r3: %d",
       buf[OFF_NOISE_LEVEL], read_u16(buf + OFF_STDDEV), read_u16(buf + OFF_STDDEV + 2),
       read_u16(buf + OFF_STDDEV + 4), read_u16(buf + OFF_STDDEV + 6));

  uint32_t status = 0;
  if (mode == SCAN_MODE_ACTIVE) {
    status = KVR_AFE_STATUS_ACTIVE;
    log_error(tag, "Active status: %08X", status);
  } else if (mode == SCAN_MODE_IDLE) {
    status = KVR_AFE_STATUS_IDLE;
    log_error(tag, "Idle status: %08X", status);
  } else {
    log_error(tag, "None status: %08X", status);
  }
  if (calibration_done.load(std::memory_order_relaxed) != 0) {
    status |= KVR_AFE_STATUS_CALIBRATION_DONE;
    log_error(tag, "Calibration done status: %08X", status);
  }
  if (recal_request.load(std::memory_order_relaxed) != 0) {
    status |= KVR_AFE_STATUS_RECAL_REQUEST;
    log_error(tag, "Recal request status: %08X", status);
  }
  status |= track_shift(freq, rate);
  frame->status = status;

  count_lost_frames(index, read_u16(buf + OFF_FW_COUNTER));

  const uint8_t *mutual_raw = buf + FRAME_HEADER_SIZE;
  const uint8_t *force_raw = mutual_raw + 2u * force * sense;
  const uint8_t *sense_raw = force_raw + 2u * force;
  convert_mutual(mutual_raw, gain_ms, force, sense, mutual_out);
  // Self data: the force values, then the sense values, each list reversed.
  convert_reversed(force_raw, gain_ss_force, force, self_out);
  convert_reversed(sense_raw, gain_ss_sense, sense, self_out + force);
  frame->mutual = mutual_out;
  frame->self = self_out;
  return true;
}

ioctrl_framedata *vendor_get_ioctrl_framedata() {
  // The driver may have written into the record; the capacity is restored
  // for every request.
  frame_request.buf = frame_buffer;
  frame_request.timestamp = frame_timestamp;
  frame_request.size = FRAME_BUFFER_SIZE;
  return &frame_request;
}

bool vendor_need_sos() {
  if (sos_flag.load(std::memory_order_acquire) == 0) {
    return false;
  }
  if (system_reset(RESET_WAIT_READY) != FW_OK) {
    log_error("vendor_need_sos", "System rest in SOS failed");
  }
  return true;
}

bool vendor_loop_get_frame() {
  return false;
}

void frame_process(const uint8_t *src, uint16_t *dest, uint8_t force, uint8_t sense,
                   uint32_t offset, int32_t gain_index) {
  constexpr const char *tag = "frame_process";
  const float *gain = nullptr;
  uint32_t gain_size = 0;
  switch (gain_index) {
  case GAIN_MS:
    gain = gain_ms;
    gain_size = PANEL_FORCE * PANEL_SENSE;
    break;
  case GAIN_SS_FORCE:
    gain = gain_ss_force;
    gain_size = PANEL_FORCE;
    break;
  case GAIN_SS_SENSE:
    gain = gain_ss_sense;
    gain_size = PANEL_SENSE;
    break;
  default:
    log_error(tag, "Cannot find gain index %d", gain_index);
    return;
  }
  if (sense == 0 || force == 0) {
    return;
  }
  if (src == nullptr || dest == nullptr) {
    log_error(tag, "No data to convert");
    return;
  }
  if (static_cast<uint32_t>(force) * sense > gain_size) {
    log_error(tag, "Gain table %d has %u factors, %d X %d requested", gain_index, gain_size, force,
              sense);
    return;
  }
  for (uint32_t o = 0; o < sense; ++o) {
    for (uint32_t i = 0; i < force; ++i) {
      const uint32_t e = (force - 1u - i) * sense + (sense - 1u - o);
      const auto value = static_cast<uint32_t>(apply_gain(gain[e], read_i16(src + 2 * e)));
      dest[o * force + i] = static_cast<uint16_t>(value + offset);
    }
  }
}

void frame_parse_reset_state() {
  prev_frame_index = 0;
  prev_fw_counter = 0;
  crc_error_count.store(0);
  calibration_done.store(0);
  recal_request.store(0);
  // At load the table is empty; the start sequence or a reset builds it.
  clear_crc_table();
  std::memset(mutual_out, 0, sizeof mutual_out);
  std::memset(self_out, 0, sizeof self_out);
  std::memset(frame_buffer, 0, sizeof frame_buffer);
  frame_timestamp[0] = 0;
  frame_timestamp[1] = 0;
  vendor_get_ioctrl_framedata();
}
