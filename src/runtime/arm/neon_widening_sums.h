// The int8 sums of the baseline NEON set (ARMv8-A), as the sum trait of
// neon_block_policies.h and neon_ternary_rows.h: widening 8-bit multiplies
// and multiply-accumulates into 16-bit lanes, sign selection by AND, and
// pairwise widening adds into 32-bit lanes. The dot-product set's trait, the
// same members with SDOT, lives in micro_kernels_dotprod.cpp.
//
// Trait members (all sums exact; vector groups are passed by value, so that
// once inlined they stay in registers):
//   CodeLanes                            code product accumulators; CodeLanes{} is zero
//   kCodeGroupsPerWidening               how many 128-value groups CodeLanes takes before widened
//   add_code_products(lanes, codes, x)   lanes plus the products code * x of one group (codes 0..3)
//   widened(lanes)                       32-bit lanes with the same total
//   byte_products32(w_low, w_high, x)    lanes whose total is 32 products of int8 weights and activations
//   sign_lanes(masks, x)                 lanes from which signed_sums derives a q1_0_128 block sum
//   signed_sums(raw, x_sum)              row totals of sign_lanes (lane = row) to S_b
//
// In an unnamed namespace, as the dot-product trait: every template
// instantiated over it belongs to the file that includes it, so the compiler
// specializes it for that file's calls and the linker shares no copy.
#pragma once

#include <arm_neon.h>

#include <cstddef>
#include <cstdint>

#include "runtime/arm/neon_int8_lanes.h"

namespace quorvel::kernels::arm {
namespace {

struct WideningSums {
  // Two 16-bit accumulators of eight lanes: a lane takes eight products per
  // 128-value group, so 16 groups x 8 products x 2 x 127 = 32512 cannot
  // overflow. (Code 3 does not occur in ternary rows, whose chunks reach 16
  // groups; a q1.58 block is one group, at most 8 x 3 x 128 per lane.)
  struct CodeLanes {
    int16x8_t low;
    int16x8_t high;
  };
  static constexpr std::size_t kCodeGroupsPerWidening = 16;

  [[gnu::always_inline]] static CodeLanes add_code_products(CodeLanes lanes, TernaryCodes codes, Activations128 x) {
#pragma GCC unroll 8
    for (std::size_t m = 0; m < 8; ++m) {
      lanes.low = vmlal_s8(lanes.low, vget_low_s8(codes.v[m]), vget_low_s8(x.v[m]));
      lanes.high = vmlal_high_s8(lanes.high, codes.v[m], x.v[m]);
    }
    return lanes;
  }

  [[gnu::always_inline]] static int32x4_t widened(CodeLanes lanes) {
    return vpadalq_s16(vpaddlq_s16(lanes.low), lanes.high);
  }

  // One product per 16-bit lane (so even -128 * -128 fits), each added
  // pairwise into 32-bit lanes.
  [[gnu::always_inline]] static int32x4_t byte_products32(int8x16_t w_low, int8x16_t w_high,
                                                          const ActivationColumns32::Column& x) {
    int32x4_t sum = vpaddlq_s16(vmull_s8(vget_low_s8(w_low), vget_low_s8(x.low)));
    sum = vpadalq_s16(sum, vmull_high_s8(w_low, x.low));
    sum = vpadalq_s16(sum, vmull_s8(vget_low_s8(w_high), vget_low_s8(x.high)));
    return vpadalq_s16(sum, vmull_high_s8(w_high, x.high));
  }

  // Lanes whose total is P, the sum of the activations whose sign bit is
  // set, picked by AND with the bit's mask. A 16-bit lane adds 8 pairs: at
  // most 16 * 128.
  [[gnu::always_inline]] static int32x4_t sign_lanes(Q1_0SignMasks masks, Activations128 x) {
    int16x8_t picked = vdupq_n_s16(0);
#pragma GCC unroll 8
    for (std::size_t m = 0; m < 8; ++m) picked = vpadalq_s8(picked, vandq_s8(x.v[m], vreinterpretq_s8_u8(masks.v[m])));
    return vpaddlq_s16(picked);
  }

  // S_b = P - (X - P) = 2P - X, exact for every int8 activation (no
  // negation that could wrap at -128).
  [[gnu::always_inline]] static int32x4_t signed_sums(int32x4_t positive, std::int32_t x_sum) {
    return vsubq_s32(vshlq_n_s32(positive, 1), vdupq_n_s32(x_sum));
  }
};

}  // namespace
}  // namespace quorvel::kernels::arm
