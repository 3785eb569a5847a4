// Activation quantization of bf16 rows to int8 codes with one f32 scale per
// row, alone or right after the RMS norm that feeds it.
#include "runtime/formats/activation_i8.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

void PortableKernels::quantize_rows_i8(const bf16* x, std::int8_t* q, float* scales, size_t rows,
                                       size_t dim) const {
  for (size_t row = 0; row < rows; ++row) {
    scales[row] = formats::quantize_row_i8(x + row * dim, dim, q + row * dim);
  }
}

// The codes come from the narrowed bf16 row, not from the f32 values before
// narrowing: the result is identical to rms_norm_bf16 then quantize_rows_i8.
// Row by row, so that the quantizer reads the row while it is still in cache.
void PortableKernels::rms_norm_quantize_i8(bf16* x, const bf16* weight, std::int8_t* q, float* scales, size_t rows,
                                           size_t dim, float eps) const {
  for (size_t row = 0; row < rows; ++row) {
    bf16* x_row = x + row * dim;
    PortableKernels::rms_norm_bf16(x_row, weight, 1, dim, eps);
    scales[row] = formats::quantize_row_i8(x_row, dim, q + row * dim);
  }
}

}  // namespace quorvel::kernels
