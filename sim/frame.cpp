// One frame exactly as the chip hands it to the driver: a 64-byte header,
// the mutual values (force-major), the self values of the force and the
// sense channels, and the frame counter repeated at the end. All fields
// little-endian.
#include "sim/state.h"

namespace sim {

namespace {

void put_values(uint8_t *at, const std::vector<int16_t> &values, size_t count) {
  for (size_t i = 0; i < count && i < values.size(); ++i) {
    detail::put_le16(at + 2 * i, static_cast<uint16_t>(values[i]));
  }
}

} // namespace

std::vector<uint8_t> build_frame(const frame_fields &fields) {
  using detail::put_le16;
  const size_t f = fields.force;
  const size_t s = fields.sense;
  const size_t body = wire::kFrameHeaderSize + 2 * (f * s + f + s);
  std::vector<uint8_t> frame(body + 2, 0);
  uint8_t *p = frame.data();
  p[0] = wire::kFrameTag0;
  p[1] = wire::kFrameTag1;
  put_le16(p + 2, fields.counter);
  // Fields the host does not interpret still carry something, so that a
  // parser which skips them does not get away with assuming zeros.
  for (size_t i = 8; i < 23; ++i) {
    p[i] = static_cast<uint8_t>(0x11 * (i - 7));
  }
  p[23] = fields.noise_level;
  p[24] = fields.scan_mode;
  p[25] = fields.rate_code;
  put_le16(p + 26, fields.freq_khz);
  put_le16(p + 28, fields.index);
  put_le16(p + 30, fields.fw_counter);
  for (size_t i = 0; i < 4; ++i) {
    put_le16(p + 32 + 2 * i, fields.stddev[i]);
  }
  for (size_t i = 40; i < 48; ++i) {
    p[i] = static_cast<uint8_t>(0xC0 + i);
  }
  p[48] = fields.sense;
  p[49] = fields.force;
  for (size_t i = 50; i < 64; ++i) {
    p[i] = static_cast<uint8_t>(0x80 + i);
  }
  uint8_t *data = p + wire::kFrameHeaderSize;
  put_values(data, fields.mutual, f * s);
  put_values(data + 2 * f * s, fields.self_force, f);
  put_values(data + 2 * (f * s + f), fields.self_sense, s);
  put_le16(p + body, fields.counter);
  detail::put_le32(p + 4, frame_crc(p, body));
  return frame;
}

} // namespace sim
