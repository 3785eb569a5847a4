// The polynomial exponential of the silu gate and of the four-wide attention
// path. Every kernel set evaluates it in exactly these steps, so that a SIMD
// lane produces the same bits as this scalar function:
//   t = x clamped to at most 88, then to at least -87;
//   t = t * log2(e);  n = floor(t + 0.5);  f = t - n  (f in [-0.5, 0.5]);
//   p = cubic in f (fused multiply-adds from the innermost term out);
//   e^x ~ p * 2^n, with 2^n made by adding n << 23 to the bits of 1.0f.
// The clamp keeps 2^n a normal float (n in [-125, 127]), so a very negative
// argument gives about exp(-87), never zero, and a large one stays finite.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>

#include "runtime/fused_multiply_add.h"

namespace quorvel::kernels {

inline constexpr float kPolyExpMinArg = -87.0f;
inline constexpr float kPolyExpMaxArg = 88.0f;

inline float poly_exp(float x) {
  const float log2e = std::bit_cast<float>(0x3FB8AA3Bu);  // 1.442695
  const float c3 = std::bit_cast<float>(0x3D64AD4Cu);     // 0.05582933
  const float c2 = std::bit_cast<float>(0x3E75EAD4u);     // 0.2401536
  const float c1 = std::bit_cast<float>(0x3F318008u);     // 0.6933599
  const float c0 = std::bit_cast<float>(0x3F7FFB19u);     // 0.9999252

  float t = x;
  if (t > kPolyExpMaxArg) t = kPolyExpMaxArg;
  if (t < kPolyExpMinArg) t = kPolyExpMinArg;
  t = t * log2e;
  const float n = std::floor(t + 0.5f);
  const float f = t - n;
  float p = fused_multiply_add(f, c3, c2);
  p = fused_multiply_add(f, p, c1);
  p = fused_multiply_add(f, p, c0);
  // A NaN argument makes p NaN, so any exponent gives the same NaN result;
  // 0 keeps the float-to-int conversion defined.
  const std::int32_t exponent = std::isnan(n) ? 0 : static_cast<std::int32_t>(n);
  const std::uint32_t scale_bits = std::bit_cast<std::uint32_t>(1.0f) + (static_cast<std::uint32_t>(exponent) << 23);
  return p * std::bit_cast<float>(scale_bits);
}

}  // namespace quorvel::kernels
