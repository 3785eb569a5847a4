// RMS norm of bf16 rows in place, alone or followed by the activation
// quantizer. The sum of squares keeps the portable set's four lanes exactly:
// one vector accumulator whose lane j takes elements j, j+4, ... by fused
// multiply-add, merged as (l0 + l1) + (l2 + l3). A dim that is not a multiple
// of 4 goes to the portable set.
#include <arm_neon.h>

#include <cmath>

#include "runtime/arm/neon_bf16.h"
#include "runtime/arm/neon_kernels.h"
#include "runtime/arm/quantize_i8_neon.h"

namespace quorvel::kernels::arm {

namespace {

constexpr size_t kLanes = 4;

float inverse_rms(const bf16* x, size_t dim, float eps) {
  float32x4_t lanes = vdupq_n_f32(0.0f);
  for (size_t i = 0; i < dim; i += kLanes) {
    const float32x4_t v = load_bf16x4(x + i);
    lanes = vfmaq_f32(lanes, v, v);
  }
  const float32x2_t halves = vpadd_f32(vget_low_f32(lanes), vget_high_f32(lanes));
  const float sum = vget_lane_f32(halves, 0) + vget_lane_f32(halves, 1);
  const float mean = sum / static_cast<float>(dim);
  return 1.0f / std::sqrt(eps + mean);
}

void rms_norm_row(bf16* x, const bf16* weight, size_t dim, float eps) {
  const float32x4_t inv = vdupq_n_f32(inverse_rms(x, dim, eps));
  for (size_t i = 0; i < dim; i += kLanes) {
    store_bf16x4(x + i, vmulq_f32(vmulq_f32(load_bf16x4(x + i), inv), load_bf16x4(weight + i)));
  }
}

}  // namespace

void NEONKernels::rms_norm_bf16(bf16* x, const bf16* weight, size_t rows, size_t dim, float eps) const {
  if (dim % kLanes != 0) return PortableKernels::rms_norm_bf16(x, weight, rows, dim, eps);
  for (size_t row = 0; row < rows; ++row) rms_norm_row(x + row * dim, weight, dim, eps);
}

// The codes come from the narrowed bf16 row, as rms_norm_bf16 followed by
// quantize_rows_i8; row by row, so that the quantizer reads a row still in cache.
void NEONKernels::rms_norm_quantize_i8(bf16* x, const bf16* weight, std::int8_t* q, float* scales, size_t rows,
                                       size_t dim, float eps) const {
  if (dim % kLanes != 0) return PortableKernels::rms_norm_quantize_i8(x, weight, q, scales, rows, dim, eps);
  for (size_t row = 0; row < rows; ++row) {
    rms_norm_row(x + row * dim, weight, dim, eps);
    scales[row] = quantize_row_i8(x + row * dim, dim, q + row * dim);
  }
}

}  // namespace quorvel::kernels::arm
