// Rotary embedding, half-split pairing, four pairs at a time. Each output
// rounds its first product and fuses the second into it, as the portable set:
//   x[i + h] = fma(a, sin[i + h], b * cos[i + h])
//   x[i]     = fma(-b, sin[i], a * cos[i])      (FMLS: a * cos[i] - b * sin[i])
// Rows whose half is not a multiple of 4 go to the portable set.
#include <arm_neon.h>

#include "runtime/arm/neon_bf16.h"
#include "runtime/arm/neon_kernels.h"

namespace quorvel::kernels::arm {

namespace {

void rotate_row(bf16* x, const float* cos, const float* sin, size_t dim) {
  const size_t half = dim / 2;
  for (size_t i = 0; i < half; i += 4) {
    const float32x4_t a = load_bf16x4(x + i);
    const float32x4_t b = load_bf16x4(x + i + half);
    store_bf16x4(x + i + half, vfmaq_f32(vmulq_f32(b, vld1q_f32(cos + i + half)), a, vld1q_f32(sin + i + half)));
    store_bf16x4(x + i, vfmsq_f32(vmulq_f32(a, vld1q_f32(cos + i)), b, vld1q_f32(sin + i)));
  }
}

}  // namespace

void NEONKernels::rope_bf16(bf16* x, const float* cos, const float* sin, size_t rows, size_t x_stride,
                            size_t dim) const {
  if (dim < 2 || (dim / 2) % 4 != 0) return PortableKernels::rope_bf16(x, cos, sin, rows, x_stride, dim);
  for (size_t row = 0; row < rows; ++row) rotate_row(x + row * x_stride, cos + row * dim, sin + row * dim, dim);
}

}  // namespace quorvel::kernels::arm
