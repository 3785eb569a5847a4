// IEEE half precision (binary16), as checkpoints store scales and weights.
// Every half value is exactly a float, so widening is exact.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace quorvel::convert {

inline float half_to_float(std::uint16_t h) {
  const std::uint32_t sign = static_cast<std::uint32_t>(h & 0x8000u) << 16;
  const std::uint32_t exponent = (h >> 10) & 0x1Fu;
  const std::uint32_t mantissa = h & 0x3FFu;
  if (exponent == 0x1F) return std::bit_cast<float>(sign | 0x7F800000u | (mantissa << 13));  // inf, NaN
  if (exponent != 0) return std::bit_cast<float>(sign | ((exponent + 112) << 23) | (mantissa << 13));
  // Zero and subnormals: mantissa * 2^-24, exact in float.
  const float magnitude = static_cast<float>(mantissa) * 0x1p-24f;
  return sign ? -magnitude : magnitude;
}

// Little-endian loads from unaligned checkpoint bytes.
template <typename T>
T load_le(const std::uint8_t* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof(T));
  return value;
}

}  // namespace quorvel::convert
