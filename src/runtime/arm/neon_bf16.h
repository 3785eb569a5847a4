// bf16 rows in NEON registers: four values widened to f32 lanes, and four f32
// lanes narrowed back with the saturating rule of the elementwise kernels.
//
// This header is also compiled into the dot-product files (ARMv8.2-A). Its
// functions are forced inline so that no out-of-line copy exists that the
// linker could pick from there for a processor without those instructions.
#pragma once

#include <arm_neon.h>

#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::kernels::arm {

[[gnu::always_inline]] inline float32x4_t load_bf16x4(const bf16* p) {
  return vreinterpretq_f32_u32(vshll_n_u16(vld1_u16(&p->bits), 16));
}

// Clamp into the finite bf16 range, then (bits + 0x8000) >> 16: round half
// away from zero, as narrow_saturate. A NaN passes both clamps unchanged, as
// in the scalar rule (FMIN/FMAX return a quiet NaN operand as it is).
[[gnu::always_inline]] inline void store_bf16x4(bf16* p, float32x4_t v) {
  v = vminq_f32(v, vdupq_n_f32(kBf16Max));
  v = vmaxq_f32(v, vdupq_n_f32(-kBf16Max));
  vst1_u16(&p->bits, vaddhn_u32(vreinterpretq_u32_f32(v), vdupq_n_u32(0x8000u)));
}

}  // namespace quorvel::kernels::arm
