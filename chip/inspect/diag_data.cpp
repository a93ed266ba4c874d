#include "chip/inspect/diag_data.h"

#include <array>

#include "chip/transport/host_data.h"
#include "chip/transport/le_bytes.h"
#include "chip/transport/reg_access.h"
#include "platform/heap.h"
#include "platform/log.h"

namespace {

constexpr uint32_t kHeaderSize = 16;
// The data behind the 16-byte header.
constexpr uint32_t kDataAddress = HOST_DATA_ADDRESS + kHeaderSize;
constexpr int64_t kCxRequestTimeoutMs = 1000;
// Header bytes.
constexpr int kHdrSyncOffset = 4;
constexpr int kHdrSyncForce = 5;
constexpr int kHdrSyncSense = 6;
constexpr int kHdrSyncSelfForce = 7;
constexpr int kHdrSyncSelfSense = 8;
constexpr int kHdrForce = 4;
constexpr int kHdrSense = 5;
constexpr int kHdrIx1Force = 6;
constexpr int kHdrIx1Sense = 7;
constexpr int kHdrCx1Force = 8;
constexpr int kHdrCx1Sense = 9;

using header_bytes = std::array<uint8_t, kHeaderSize>;

// The 16-byte header with the three-byte host-data read A7 00 00.
uint32_t read_header(header_bytes &header) {
  static constexpr uint8_t kCmd[] = {0xA7, 0x00, 0x00};
  return quillon_read(kCmd, sizeof kCmd, header.data(), kHeaderSize);
}

// A 16-bit value from the IC, read as signed.
int16_t le16s(const uint8_t *p) {
  return static_cast<int16_t>(le16(p));
}

// count little-endian 16-bit values from src.
void copy_le16(int16_t *dest, const uint8_t *src, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    dest[i] = le16s(src + 2 * i);
  }
}

int16_t *alloc_values(uint32_t count) {
  return static_cast<int16_t *>(heap_alloc(count * sizeof(int16_t)));
}

void free_values(int16_t **values) {
  heap_free(*values);
  *values = nullptr;
}

// A frame larger than the inspection buffers cannot come from this panel:
// refuse it before anything is sized from it.
bool fits_buffers(const char *tag, uint32_t force, uint32_t sense) {
  if (force * sense <= DIAG_MAX_NODES && force + sense <= DIAG_MAX_CHANNELS) {
    return true;
  }
  log_error(tag, "Impossible force/sense length %u/%u", force, sense);
  return false;
}

// A self line holds force + sense channels.
bool fits_line(const char *tag, uint32_t force, uint32_t sense) {
  if (force + sense <= DIAG_MAX_CHANNELS) {
    return true;
  }
  log_error(tag, "Impossible self force/sense count %u/%u", force, sense);
  return false;
}

uint32_t alloc_failed(const char *tag) {
  log_error(tag, "Error allocating memory");
  return DIAG_ERR_DATA;
}

// Request the data set and read its header; both failures give 1.
uint32_t request_with_header(const char *tag, uint8_t type, header_bytes &header) {
  if (request_host_data(type, kCxRequestTimeoutMs) != 0) {
    log_error(tag, "Error requesting CX data %02X", type);
    return DIAG_ERR_READ;
  }
  if (read_header(header) != 0) {
    log_error(tag, "Error reading CX header");
    return DIAG_ERR_READ;
  }
  return DIAG_OK;
}

// The compensation block behind the header: refused when empty or larger
// than the buffers, else read whole into raw. 0, 1 or 128.
uint32_t read_cx_block(const char *tag, uint32_t force, uint32_t sense, uint32_t size,
                       bool (*fits)(const char *, uint32_t, uint32_t), heap_buffer<uint8_t> &raw) {
  if (size == 0) {
    log_error(tag, "Wrong force/sense length %d/%d", static_cast<int>(force),
              static_cast<int>(sense));
    return DIAG_ERR_DATA;
  }
  if (!fits(tag, force, sense)) {
    return DIAG_ERR_DATA;
  }
  raw = heap_buffer<uint8_t>(size);
  if (!raw) {
    return alloc_failed(tag);
  }
  if (quillon_read_chunk_at(kDataAddress, raw.get(), static_cast<int32_t>(size)) != 0) {
    log_error(tag, "Error reading CX data");
    return DIAG_ERR_READ;
  }
  return DIAG_OK;
}

} // namespace

mutual_frame new_mutual_frame() {
  return mutual_frame{0, 0, 0, nullptr};
}

self_frame new_self_frame() {
  return self_frame{0, 0, nullptr, nullptr};
}

ss_cx_data new_ss_cx_data() {
  return ss_cx_data{0, 0, nullptr, nullptr, 0, 0};
}

void clean_mutual_frame(mutual_frame *frame) {
  if (frame != nullptr) {
    free_values(&frame->data);
  }
}

void clean_self_frame(self_frame *frame) {
  if (frame != nullptr) {
    free_values(&frame->force_data);
    free_values(&frame->sense_data);
  }
}

void clean_ss_cx_data(ss_cx_data *data) {
  if (data != nullptr) {
    free_values(&data->force_data);
    free_values(&data->sense_data);
  }
}

uint32_t read_ms_frame(mutual_frame *frame) {
  constexpr const char *tag = "read_ms_frame";
  const uint32_t force = sys_info.force_len;
  const uint32_t sense = sys_info.sense_len;
  if (!fits_buffers(tag, force, sense)) {
    return DIAG_ERR_DATA;
  }
  const uint32_t size = force * sense * 2;
  heap_buffer<uint8_t> raw(size);
  if (!raw) {
    return alloc_failed(tag);
  }
  if (quillon_read_chunk_at(HOST_DATA_ADDRESS | sys_info.ms_raw_addr, raw.get(),
                            static_cast<int32_t>(size)) != 0) {
    log_error(tag, "Error reading the frame");
    return DIAG_ERR_READ;
  }
  frame->force_len = static_cast<uint8_t>(force);
  frame->sense_len = static_cast<uint8_t>(sense);
  frame->nodes = static_cast<uint16_t>(force * sense);
  // Room for twice the nodes, as the array has always been sized.
  frame->data = alloc_values(2u * frame->nodes);
  if (frame->data == nullptr) {
    return alloc_failed(tag);
  }
  copy_le16(frame->data, raw.get(), frame->nodes);
  return DIAG_OK;
}

uint32_t read_sync_frame(mutual_frame *ms, self_frame *ss, uint32_t want_mutual,
                         uint32_t want_self) {
  constexpr const char *tag = "read_sync_frame";
  const bool mutual_wanted = (want_mutual & 1u) != 0;
  const bool self_wanted = (want_self & 1u) != 0;
  header_bytes header{};
  // A failed read shows in the header bytes, so its result is not checked.
  read_header(header);
  log_error(tag, "Sync Frame Header Data:");
  for (int line = 0; line < 2; ++line) {
    const uint8_t *h = header.data() + 8 * line;
    log_error(tag, "%02X %02X %02X %02X %02X %02X %02X %02X", h[0], h[1], h[2], h[3], h[4], h[5],
              h[6], h[7]);
  }
  const uint32_t offset = header[kHdrSyncOffset];
  const uint32_t force = header[kHdrSyncForce];
  const uint32_t sense = header[kHdrSyncSense];
  const uint32_t self_force = header[kHdrSyncSelfForce];
  const uint32_t self_sense = header[kHdrSyncSelfSense];
  if (!fits_buffers(tag, force, sense) || !fits_line(tag, self_force, self_sense)) {
    return DIAG_ERR_DATA;
  }
  const uint16_t count = static_cast<uint16_t>(force * sense);
  if (mutual_wanted) {
    ms->force_len = static_cast<uint8_t>(force);
    ms->sense_len = static_cast<uint8_t>(sense);
    ms->nodes = count;
  }
  if (self_wanted) {
    ss->force_len = static_cast<uint8_t>(self_force);
    ss->sense_len = static_cast<uint8_t>(self_sense);
  }
  const uint32_t total = offset + (count + self_force + self_sense) * 2;
  heap_buffer<uint8_t> raw(total);
  if (!raw) {
    return alloc_failed(tag);
  }
  if (mutual_wanted && (ms->data = alloc_values(count)) == nullptr) {
    return alloc_failed(tag);
  }
  if (self_wanted && (ss->force_data = alloc_values(self_force)) == nullptr) {
    return alloc_failed(tag);
  }
  if (self_wanted && (ss->sense_data = alloc_values(self_sense)) == nullptr) {
    return alloc_failed(tag);
  }
  if (quillon_read_chunk_at(kDataAddress, raw.get(), static_cast<int32_t>(total)) != 0) {
    log_error(tag, "Error reading the sync frame");
    return DIAG_ERR_READ;
  }
  // Positions are 16-bit on the chip's side.
  const uint16_t force_at = static_cast<uint16_t>(offset + count * 2u);
  const uint16_t sense_at = static_cast<uint16_t>(force_at + self_force * 2u);
  if (mutual_wanted) {
    copy_le16(ms->data, raw.get() + offset, count);
  }
  if (self_wanted) {
    copy_le16(ss->force_data, raw.get() + force_at, self_force);
    copy_le16(ss->sense_data, raw.get() + sense_at, self_sense);
  }
  return DIAG_OK;
}

uint32_t read_ms_cx_data(uint8_t type, mutual_frame *frame) {
  constexpr const char *tag = "read_ms_cx_data";
  header_bytes header{};
  uint32_t result = request_with_header(tag, type, header);
  if (result != DIAG_OK) {
    return result;
  }
  const uint32_t force = header[kHdrForce];
  const uint32_t sense = header[kHdrSense];
  frame->force_len = static_cast<uint8_t>(force);
  frame->sense_len = static_cast<uint8_t>(sense);
  uint32_t width = 0;
  if (type == HOST_DATA_MS_CX || type == HOST_DATA_MS_LP_CX) {
    width = 1;
  } else if (type == HOST_DATA_MS_TOTAL_CX || type == HOST_DATA_MS_LP_TOTAL_CX) {
    width = 2;
  } else {
    log_error(tag, "Unsupported CX type %02X", type);
    return DIAG_ERR_DATA;
  }
  const uint32_t size = force * sense * width;
  heap_buffer<uint8_t> raw;
  result = read_cx_block(tag, force, sense, size, &fits_buffers, raw);
  if (result != DIAG_OK) {
    return result;
  }
  log_error(tag, "Read MS CX %dX%d in %d bytes", static_cast<int>(force), static_cast<int>(sense),
            static_cast<int>(size));
  const uint32_t count = force * sense;
  frame->data = alloc_values(count);
  if (frame->data == nullptr) {
    return alloc_failed(tag);
  }
  for (uint32_t i = 0; i < count; ++i) {
    frame->data[i] = width == 2 ? le16s(raw.get() + 2 * i) : static_cast<int16_t>(raw[i]);
  }
  return DIAG_OK;
}

namespace {

// width 1: IX bytes are unsigned, CX bytes signed; width 2: LE pairs.
void split_ss_values(int16_t *dest, const uint8_t *src, uint32_t count, uint32_t width,
                     bool is_cx) {
  for (uint32_t i = 0; i < count; ++i) {
    if (width == 2) {
      dest[i] = le16s(src + 2 * i);
    } else if (is_cx) {
      dest[i] = static_cast<int8_t>(src[i]);
    } else {
      dest[i] = static_cast<int16_t>(src[i]);
    }
  }
}

bool alloc_ss_arrays(ss_cx_data *d) {
  d->force_data = alloc_values(d->force_len);
  if (d->force_data == nullptr) {
    return false;
  }
  d->sense_data = alloc_values(d->sense_len);
  return d->sense_data != nullptr;
}

} // namespace

uint32_t read_ss_cx_data(uint8_t type, ss_cx_data *ix, ss_cx_data *cx) {
  constexpr const char *tag = "read_ss_cx_data";
  header_bytes header{};
  uint32_t result = request_with_header(tag, type, header);
  if (result != DIAG_OK) {
    return result;
  }
  const uint32_t force = header[kHdrForce];
  const uint32_t sense = header[kHdrSense];
  ix->force_len = cx->force_len = static_cast<uint8_t>(force);
  ix->sense_len = cx->sense_len = static_cast<uint8_t>(sense);
  ix->force_1 = header[kHdrIx1Force];
  ix->sense_1 = header[kHdrIx1Sense];
  cx->force_1 = header[kHdrCx1Force];
  cx->sense_1 = header[kHdrCx1Sense];
  uint32_t width = 0;
  if (type == HOST_DATA_SS_TOTAL_CX || type == HOST_DATA_SS_DETECT_TOTAL_CX) {
    width = 2;
  } else if (type == HOST_DATA_SS_CX || type == HOST_DATA_SS_DETECT_CX) {
    width = 1;
  } else {
    log_error(tag, "Unsupported CX type %02X", type);
    return DIAG_ERR_DATA;
  }
  const uint32_t size = (force + sense) * 2 * width;
  heap_buffer<uint8_t> raw;
  result = read_cx_block(tag, force, sense, size, &fits_line, raw);
  if (result != DIAG_OK) {
    return result;
  }
  log_error(tag, "Read SS IX force %d, IX sense %d, CX force %d, CX sense %d",
            static_cast<int>(ix->force_len), static_cast<int>(ix->sense_len),
            static_cast<int>(cx->force_len), static_cast<int>(cx->sense_len));
  if (!alloc_ss_arrays(ix) || !alloc_ss_arrays(cx)) {
    return alloc_failed(tag);
  }
  const uint8_t *p = raw.get();
  split_ss_values(ix->force_data, p, force, width, false);
  p += force * width;
  split_ss_values(ix->sense_data, p, sense, width, false);
  p += sense * width;
  split_ss_values(cx->force_data, p, force, width, true);
  p += force * width;
  split_ss_values(cx->sense_data, p, sense, width, true);
  return DIAG_OK;
}
