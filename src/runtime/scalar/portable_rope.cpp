// Rotary embedding, half-split pairing: element i turns with element i + dim/2.

#include "runtime/fused_multiply_add.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

namespace {

// Rotates one row. Each output rounds its first product and fuses the second
// into it, so that every kernel set gets the same bits:
//   x[i + h] = fma(a, sin[i + h], b * cos[i + h])
//   x[i]     = fma(-b, sin[i], a * cos[i])
// Both read the values from before either store.
void rotate_row(bf16* x, const float* cos, const float* sin, size_t dim) {
  const size_t half = dim / 2;
  for (size_t i = 0; i < half; ++i) {
    const float a = widen(x[i]);
    const float b = widen(x[i + half]);
    x[i + half] = narrow_saturate(fused_multiply_add(a, sin[i + half], b * cos[i + half]));
    x[i] = narrow_saturate(fused_multiply_add(-b, sin[i], a * cos[i]));
  }
}

}  // namespace

void PortableKernels::rope_bf16(bf16* x, const float* cos, const float* sin, size_t rows, size_t x_stride,
                                size_t dim) const {
  if (dim < 2) return;
  for (size_t row = 0; row < rows; ++row) {
    rotate_row(x + row * x_stride, cos + row * dim, sin + row * dim, dim);
  }
}

}  // namespace quorvel::kernels
