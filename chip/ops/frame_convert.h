// The conversion of a frame's raw values into the service's output: each raw
// value times its gain, truncated toward zero, its low 16 bits XOR 0x8000.
// The mutual grid is transposed to sense-major order with both axes
// reversed; the two self lists are each reversed.
#pragma once

#include <cstdint>

// gain x raw, truncated toward zero.
inline int32_t apply_gain(float gain, int16_t raw) {
  return static_cast<int32_t>(gain * static_cast<float>(raw));
}

// Zero signal reads 0x8000.
inline uint16_t to_output(float gain, int16_t raw) {
  return static_cast<uint16_t>(static_cast<uint16_t>(apply_gain(gain, raw)) ^ 0x8000u);
}

// out[o * force + i] = to_output(gain[e], raw[e]), e = (force-1-i) * sense +
// (sense-1-o). `raw` holds force x sense little-endian i16 values.
void convert_mutual(const uint8_t *raw, const float *gain, uint32_t force, uint32_t sense,
                    uint16_t *out);

// out[j] = to_output(gain[n-1-j], raw[n-1-j]) for j in 0..n-1.
void convert_reversed(const uint8_t *raw, const float *gain, uint32_t n, uint16_t *out);

// The scalar reference of both, which also runs where no vector unit helps.
void convert_mutual_scalar(const uint8_t *raw, const float *gain, uint32_t force, uint32_t sense,
                           uint16_t *out);
void convert_reversed_scalar(const uint8_t *raw, const float *gain, uint32_t n, uint16_t *out);
