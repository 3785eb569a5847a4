// q8_0 products, baseline set: widening 8-bit multiplies into 16-bit lanes
// (one product per lane, so even -128 * -128 fits), each added pairwise into
// 32-bit lanes.
#include <arm_neon.h>

#include "runtime/arm/micro_kernel_table.h"
#include "runtime/arm/neon_block_rows.h"
#include "runtime/formats/q8_0.h"

namespace quorvel::kernels::arm::neon {

namespace {

struct Q8_0Codes : ActivationColumns32 {
  using Block = formats::BlockQ8_0;

  static int32x4_t row_lanes(const Block& b, const Column& c) {
    const int8x16_t low = vld1q_s8(b.q);
    const int8x16_t high = vld1q_s8(b.q + 16);
    int32x4_t sum = vpaddlq_s16(vmull_s8(vget_low_s8(low), vget_low_s8(c.low)));
    sum = vpadalq_s16(sum, vmull_high_s8(low, c.low));
    sum = vpadalq_s16(sum, vmull_s8(vget_low_s8(high), vget_low_s8(c.high)));
    return vpadalq_s16(sum, vmull_high_s8(high, c.high));
  }

  static int32x4_t finish(int32x4_t raw, const Column&) { return raw; }
};

}  // namespace

void gemm_q8_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
               size_t n_tokens, size_t rows, size_t k) {
  gemm_block_rows<Q8_0Codes>(w, x, x_scales, out, out_stride, n_tokens, rows, k);
}

void gemv_q8_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows, size_t k) {
  gemv_q8_0_table_rows<Q8_0Codes>(w, x, x_scale, out, rows, k);
}

void gemv_q8_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows, size_t k) {
  gemv_grouped_rows_f32<Q8_0Codes, 8>(w, x, x_scale, out, rows, k);
}

}  // namespace quorvel::kernels::arm::neon
