// poly_exp (runtime/poly_exp.h) on four lanes, step for step, so that every
// lane gives the scalar function's bits: clamp to [-87, 88], t = x * log2(e),
// n = floor(t + 0.5), f = t - n, the cubic by fused multiply-adds from the
// innermost term out, and 2^n made by adding n << 23 to the bits of 1.0f.
// Forced inline for the reason given in neon_bf16.h.
#pragma once

#include <arm_neon.h>

#include <bit>
#include <cstdint>

#include "runtime/poly_exp.h"

namespace quorvel::kernels::arm {

[[gnu::always_inline]] inline float32x4_t poly_exp4(float32x4_t x) {
  const float32x4_t log2e = vreinterpretq_f32_u32(vdupq_n_u32(0x3FB8AA3Bu));
  const float32x4_t c3 = vreinterpretq_f32_u32(vdupq_n_u32(0x3D64AD4Cu));
  const float32x4_t c2 = vreinterpretq_f32_u32(vdupq_n_u32(0x3E75EAD4u));
  const float32x4_t c1 = vreinterpretq_f32_u32(vdupq_n_u32(0x3F318008u));
  const float32x4_t c0 = vreinterpretq_f32_u32(vdupq_n_u32(0x3F7FFB19u));

  // FMIN/FMAX keep a NaN argument NaN, as the scalar comparisons do.
  float32x4_t t = vminq_f32(x, vdupq_n_f32(kPolyExpMaxArg));
  t = vmaxq_f32(t, vdupq_n_f32(kPolyExpMinArg));
  t = vmulq_f32(t, log2e);
  const float32x4_t n = vrndmq_f32(vaddq_f32(t, vdupq_n_f32(0.5f)));
  const float32x4_t f = vsubq_f32(t, n);
  float32x4_t p = vfmaq_f32(c2, f, c3);
  p = vfmaq_f32(c1, f, p);
  p = vfmaq_f32(c0, f, p);
  // The conversion gives 0 for NaN, the exponent the scalar form uses then.
  const int32x4_t exponent = vshlq_n_s32(vcvtq_s32_f32(n), 23);
  const uint32x4_t scale = vaddq_u32(vreinterpretq_u32_s32(exponent), vdupq_n_u32(std::bit_cast<std::uint32_t>(1.0f)));
  return vmulq_f32(p, vreinterpretq_f32_u32(scale));
}

}  // namespace quorvel::kernels::arm
