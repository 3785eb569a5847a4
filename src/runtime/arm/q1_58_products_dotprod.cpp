// q1.58 products, dot-product set: one SDOT per 16 raw codes straight into
// 32-bit lanes; S_b = sum of c * x - X, X the block's activation sum.
#include <arm_neon.h>

#include "runtime/arm/micro_kernel_table.h"
#include "runtime/arm/neon_block_rows.h"
#include "runtime/formats/q1_58.h"

namespace quorvel::kernels::arm::dotprod {

namespace {

struct Q1_58CodesDot : ActivationColumns128 {
  using Block = formats::BlockQ1_58;

  static int32x4_t row_lanes(const Block& b, const Column& c) {
    const TernaryCodes codes = load_ternary_codes(b.codes);
    int32x4_t raw = vdupq_n_s32(0);
#pragma GCC unroll 8
    for (std::size_t m = 0; m < 8; ++m) raw = vdotq_s32(raw, codes.v[m], c.x.v[m]);
    return raw;
  }

  static int32x4_t finish(int32x4_t raw, const Column& c) { return vsubq_s32(raw, vdupq_n_s32(c.sum)); }
};

}  // namespace

void gemm_q1_58(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                size_t n_tokens, size_t rows, size_t k) {
  gemm_block_rows<Q1_58CodesDot>(w, x, x_scales, out, out_stride, n_tokens, rows, k);
}

void gemv_q1_58(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows, size_t k) {
  gemv_block_rows<Q1_58CodesDot, portable::kQ1RowsPerGroup>(w, x, x_scale, out, rows, k);
}

void gemv_q1_58_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows, size_t k) {
  gemv_block_rows<Q1_58CodesDot, portable::kQ1RowsPerGroup>(w, x, x_scale, out, rows, k);
}

}  // namespace quorvel::kernels::arm::dotprod
