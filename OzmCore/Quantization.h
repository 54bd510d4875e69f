// The quantisation convention shared by every vertex codec: 16-bit values span a box (positions) or
// the unit square (texture coordinates).
#pragma once

#include <cmath>
#include <cstdint>

namespace Ozm {

// q in [-32768, 32767] -> min .. max, evaluated in float32.
inline float DequantizePosition(int32_t q, float min, float max) {
  return min + (max - min) * ((static_cast<float>(q) + 32768.0f) / 65535.0f);
}

// s in [-32768, 32767] -> 0 .. 1, evaluated in float32 in this order.
inline float DequantizeTexCoord(int32_t s) {
  return ((2.0f * (static_cast<float>(s) + 32768.0f)) / 65535.0f - 1.0f + 1.0f) * 0.5f;
}

// Truncation toward zero into int32 without undefined behaviour: non-numbers become 0 and values
// beyond the range saturate. Callers store the low 16 bits.
inline int32_t TruncToInt32(double v) {
  if (!(v == v)) return 0;
  if (v >= 2147483647.0) return 2147483647;
  if (v <= -2147483648.0) return -2147483647 - 1;
  return static_cast<int32_t>(v);
}

// Position -> 16-bit, by truncation, as the decoders requantise.
inline int16_t RequantizePosition(double p, double min, double max) {
  return static_cast<int16_t>(TruncToInt32((p - min) / (max - min) * 65535.0 + (-32768.0)));
}

// Texture coordinate -> 16-bit, by truncation, as the decoders requantise.
inline int16_t RequantizeTexCoord(double s) {
  return static_cast<int16_t>(TruncToInt32((2.0 * s - 1.0 + 1.0) * 65535.0 * 0.5 + (-32768.0)));
}

}  // namespace Ozm
