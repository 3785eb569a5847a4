// bf16: the upper 16 bits of an IEEE-754 binary32 value.
//
// Widening is exact. Narrowing has two rules, and every kernel names the one
// it uses; they differ on purpose and both are kept:
//  - saturating: clamp into the finite bf16 range, then round half away from
//    zero on the bit pattern (elementwise kernels, norms, rotary, dequantizers);
//  - nearest-even: no clamp, NaN kept quiet, overflow becomes infinity
//    (the matrix products that write bf16).
#pragma once

#include <bit>
#include <cstdint>

namespace quorvel {

struct bf16 {
  std::uint16_t bits;
};
static_assert(sizeof(bf16) == 2);

// Largest finite bf16 magnitude, 0x7F7F0000 as a float.
inline constexpr float kBf16Max = 3.38953139e38f;

inline float widen(bf16 v) { return std::bit_cast<float>(static_cast<std::uint32_t>(v.bits) << 16); }

inline bf16 narrow_saturate(float f) {
  if (f > kBf16Max) f = kBf16Max;
  if (f < -kBf16Max) f = -kBf16Max;
  std::uint32_t bits = std::bit_cast<std::uint32_t>(f);
  return bf16{static_cast<std::uint16_t>((bits + 0x8000u) >> 16)};
}

inline bf16 narrow_nearest_even(float f) {
  std::uint32_t bits = std::bit_cast<std::uint32_t>(f);
  if ((bits & 0x7FFFFFFFu) > 0x7F800000u) return bf16{static_cast<std::uint16_t>((bits >> 16) | 0x0040u)};
  return bf16{static_cast<std::uint16_t>((bits + 0x7FFFu + ((bits >> 16) & 1u)) >> 16)};
}

}  // namespace quorvel
