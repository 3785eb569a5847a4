// q1_0_128 products, dot-product set.
//
// The sign mask of a set bit is all ones, that is -1 as a signed byte, so
// one SDOT of the mask with the activations gives A = -P, minus the sum of
// the activations whose sign bit is set; with X the block's activation sum,
// S_b = P - (X - P) = -(2A + X). Three instructions per 16 weights.
#include <arm_neon.h>

#include "runtime/arm/micro_kernel_table.h"
#include "runtime/arm/neon_block_rows.h"
#include "runtime/formats/q1_0.h"

namespace quorvel::kernels::arm::dotprod {

namespace {

struct Q1_0SignsDot : ActivationColumns128 {
  using Block = formats::BlockQ1_0;

  static int32x4_t row_lanes(const Block& b, const Column& c) {
    const Q1_0SignMasks masks = load_q1_0_positive_masks(b.signs);
    int32x4_t negated = vdupq_n_s32(0);
#pragma GCC unroll 8
    for (std::size_t m = 0; m < 8; ++m) negated = vdotq_s32(negated, vreinterpretq_s8_u8(masks.v[m]), c.x.v[m]);
    return negated;
  }

  static int32x4_t finish(int32x4_t negated, const Column& c) {
    return vnegq_s32(vaddq_s32(vshlq_n_s32(negated, 1), vdupq_n_s32(c.sum)));
  }
};

}  // namespace

void gemm_q1_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
               size_t n_tokens, size_t rows, size_t k) {
  gemm_block_rows<Q1_0SignsDot>(w, x, x_scales, out, out_stride, n_tokens, rows, k);
}

void gemv_q1_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows, size_t k) {
  gemv_block_rows<Q1_0SignsDot, portable::kQ1RowsPerGroup>(w, x, x_scale, out, rows, k);
}

void gemv_q1_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows, size_t k) {
  gemv_block_rows<Q1_0SignsDot, portable::kQ1RowsPerGroup>(w, x, x_scale, out, rows, k);
}

}  // namespace quorvel::kernels::arm::dotprod
