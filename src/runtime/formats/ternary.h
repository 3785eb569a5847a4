// Ternary weights with one scale per matrix (2 bits per weight).
//
// A row of K weights (K a multiple of 128) is K / 4 bytes: groups of 128
// weights in 32 consecutive bytes. Within a group, weight j sits in byte
// j mod 32 at the two bits starting at bit 6 - 2 * (j / 32): weights 0..31 are
// bits 7-6 of bytes 0..31, weights 32..63 bits 5-4, 64..95 bits 3-2 and
// 96..127 bits 1-0. Code c means weight c - 1 (0 -> -1, 1 -> 0, 2 -> +1);
// code 3 does not occur in files and reads as +2. The per-matrix scale,
// gamma, is a double kept by the layer.
#pragma once

#include <cstddef>
#include <cmath>
#include <cstdint>

namespace quorvel::formats {

inline constexpr std::size_t kTernaryGroup = 128;
inline constexpr std::size_t kTernaryGroupBytes = 32;

// Raw 2-bit code of weight j (0 <= j < 128) in the 32-byte group at `group`.
inline unsigned ternary_code(const std::uint8_t* group, std::size_t j) {
  return (group[j % 32] >> (6 - 2 * (j / 32))) & 3u;
}

// Stores code c (0..3) for weight j of a group (the other bits are kept).
inline void set_ternary_code(std::uint8_t* group, std::size_t j, unsigned c) {
  const unsigned shift = static_cast<unsigned>(6 - 2 * (j / 32));
  group[j % 32] = static_cast<std::uint8_t>((group[j % 32] & ~(3u << shift)) | ((c & 3u) << shift));
}

// Packs the codes (0..3) of 128 weights, in weight order, into one group.
inline void pack_ternary_group(const std::uint8_t* codes, std::uint8_t* group) {
  for (std::size_t m = 0; m < kTernaryGroupBytes; ++m) {
    group[m] = static_cast<std::uint8_t>((codes[m] << 6) | (codes[32 + m] << 4) | (codes[64 + m] << 2) | codes[96 + m]);
  }
}

// The code of a weight that is `ratio` times its scale: round half to even,
// clamped to -1..+1, plus one.
inline unsigned ternary_code_for(double ratio) {
  const double rounded = std::nearbyint(ratio);
  return rounded > 0.0 ? 2u : rounded < 0.0 ? 0u : 1u;
}

// The smallest scale a ternary quantizer gives a group or a matrix of zeros.
inline constexpr float kTernaryScaleFloor = 1e-5f;

}  // namespace quorvel::formats
