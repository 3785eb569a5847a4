// q1.58 products, baseline set: the codes split by the shifts 6, 4, 2, 0,
// multiplied by the activations with widening 8-bit multiply-accumulate into
// 16-bit lanes (8 products of at most 3 * 128 per lane and block), widened to
// 32 bits once per block. S_b = sum of c * x - X, X the block's activation
// sum, equal to the sum of (c - 1) * x.
#include <arm_neon.h>

#include "runtime/arm/micro_kernel_table.h"
#include "runtime/arm/neon_block_rows.h"
#include "runtime/formats/q1_58.h"

namespace quorvel::kernels::arm::neon {

namespace {

struct Q1_58Codes : ActivationColumns128 {
  using Block = formats::BlockQ1_58;

  static int32x4_t row_lanes(const Block& b, const Column& c) {
    const TernaryCodes codes = load_ternary_codes(b.codes);
    int16x8_t low = vdupq_n_s16(0);
    int16x8_t high = vdupq_n_s16(0);
#pragma GCC unroll 8
    for (std::size_t m = 0; m < 8; ++m) {
      low = vmlal_s8(low, vget_low_s8(codes.v[m]), vget_low_s8(c.x.v[m]));
      high = vmlal_high_s8(high, codes.v[m], c.x.v[m]);
    }
    return vpadalq_s16(vpaddlq_s16(low), high);
  }

  static int32x4_t finish(int32x4_t raw, const Column& c) { return vsubq_s32(raw, vdupq_n_s32(c.sum)); }
};

}  // namespace

void gemm_q1_58(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                size_t n_tokens, size_t rows, size_t k) {
  gemm_block_rows<Q1_58Codes>(w, x, x_scales, out, out_stride, n_tokens, rows, k);
}

void gemv_q1_58(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows, size_t k) {
  gemv_block_rows<Q1_58Codes, portable::kQ1RowsPerGroup>(w, x, x_scale, out, rows, k);
}

void gemv_q1_58_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows, size_t k) {
  gemv_block_rows<Q1_58Codes, portable::kQ1RowsPerGroup>(w, x, x_scale, out, rows, k);
}

}  // namespace quorvel::kernels::arm::neon
