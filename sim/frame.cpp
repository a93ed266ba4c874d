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

std::vector<uint8_t> build_frame(const frame_spec &spec) {
  using detail::put_le16;
  const size_t f = spec.force;
  const size_t s = spec.sense;
  const size_t body = wire::kFrameHeaderSize + 2 * (f * s + f + s);
  std::vector<uint8_t> frame(body + 2, 0);
  uint8_t *p = frame.data();
  p[0] = wire::kFrameTag0;
  p[1] = wire::kFrameTag1;
  put_le16(p + 2, spec.counter);
  // Fields the host does not interpret still carry something, so that a
  // parser which skips them does not get away with assuming zeros.
  for (size_t i = 8; i < 23; ++i) {
    p[i] = static_cast<uint8_t>(0x11 * (i - 7));
  }
  p[23] = spec.noise_level;
  p[24] = spec.scan_mode;
  p[25] = spec.rate_code;
  put_le16(p + 26, spec.freq_khz);
  put_le16(p + 28, spec.index);
  put_le16(p + 30, spec.fw_counter);
  for (size_t i = 0; i < 4; ++i) {
    put_le16(p + 32 + 2 * i, spec.stddev[i]);
  }
  for (size_t i = 40; i < 48; ++i) {
    p[i] = static_cast<uint8_t>(0xC0 + i);
  }
  p[48] = spec.sense;
  p[49] = spec.force;
  for (size_t i = 50; i < 64; ++i) {
    p[i] = static_cast<uint8_t>(0x80 + i);
  }
  uint8_t *data = p + wire::kFrameHeaderSize;
  put_values(data, spec.mutual, f * s);
  put_values(data + 2 * f * s, spec.self_force, f);
  put_values(data + 2 * (f * s + f), spec.self_sense, s);
  put_le16(p + body, spec.counter);
  detail::put_le32(p + 4, frame_crc(p, body));
  return frame;
}

} // namespace sim
