// q8_0 products, dot-product set: two SDOTs per block and row. The
// single-token product keeps the baseline set's row grouping table.
#include <arm_neon.h>

#include "runtime/arm/micro_kernel_table.h"
#include "runtime/arm/neon_block_rows.h"
#include "runtime/formats/q8_0.h"

namespace quorvel::kernels::arm::dotprod {

namespace {

struct Q8_0CodesDot : ActivationColumns32 {
  using Block = formats::BlockQ8_0;

  static int32x4_t row_lanes(const Block& b, const Column& c) {
    const int32x4_t sum = vdotq_s32(vdupq_n_s32(0), vld1q_s8(b.q), c.low);
    return vdotq_s32(sum, vld1q_s8(b.q + 16), c.high);
  }

  static int32x4_t finish(int32x4_t raw, const Column&) { return raw; }
};

}  // namespace

void gemm_q8_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
               size_t n_tokens, size_t rows, size_t k) {
  gemm_block_rows<Q8_0CodesDot>(w, x, x_scales, out, out_stride, n_tokens, rows, k);
}

void gemv_q8_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows, size_t k) {
  gemv_q8_0_table_rows<Q8_0CodesDot>(w, x, x_scale, out, rows, k);
}

void gemv_q8_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows, size_t k) {
  gemv_grouped_rows_f32<Q8_0CodesDot, 8>(w, x, x_scale, out, rows, k);
}

}  // namespace quorvel::kernels::arm::dotprod
