// q1_0_128 products, baseline set: sign selection and pairwise widening adds.
//
// For a block, P = the sum of the activations whose sign bit is set, picked
// by AND with the bit's mask and added pairwise into 16-bit, then 32-bit
// lanes; with X the block's activation sum, S_b = P - (X - P) = 2P - X,
// exact for every int8 activation (no negation that could wrap at -128).
#include <arm_neon.h>

#include "runtime/arm/micro_kernel_table.h"
#include "runtime/arm/neon_block_rows.h"
#include "runtime/formats/q1_0.h"

namespace quorvel::kernels::arm::neon {

namespace {

struct Q1_0Signs : ActivationColumns128 {
  using Block = formats::BlockQ1_0;

  // Lanes whose total is P. A 16-bit lane adds 8 pairs: at most 16 * 128.
  static int32x4_t row_lanes(const Block& b, const Column& c) {
    const Q1_0SignMasks masks = load_q1_0_positive_masks(b.signs);
    int16x8_t picked = vdupq_n_s16(0);
#pragma GCC unroll 8
    for (std::size_t m = 0; m < 8; ++m)
      picked = vpadalq_s8(picked, vandq_s8(c.x.v[m], vreinterpretq_s8_u8(masks.v[m])));
    return vpaddlq_s16(picked);
  }

  static int32x4_t finish(int32x4_t positive, const Column& c) {
    return vsubq_s32(vshlq_n_s32(positive, 1), vdupq_n_s32(c.sum));
  }
};

}  // namespace

void gemm_q1_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
               size_t n_tokens, size_t rows, size_t k) {
  gemm_block_rows<Q1_0Signs>(w, x, x_scales, out, out_stride, n_tokens, rows, k);
}

void gemv_q1_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows, size_t k) {
  gemv_block_rows<Q1_0Signs, portable::kQ1RowsPerGroup>(w, x, x_scale, out, rows, k);
}

void gemv_q1_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows, size_t k) {
  gemv_block_rows<Q1_0Signs, portable::kQ1RowsPerGroup>(w, x, x_scale, out, rows, k);
}

}  // namespace quorvel::kernels::arm::neon
