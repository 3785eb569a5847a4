// RMS normalization, alone and followed by the activation quantizer, with
// the scaling in eight f32 lanes.
#include "runtime/x86/avx2_float_lanes.h"
#include "runtime/x86/avx2_kernels.h"
#include "runtime/x86/norm_lanes.h"
#include "runtime/x86/quantize_lanes.h"

namespace quorvel::kernels::x86 {

void Avx2Kernels::rms_norm_bf16(bf16* x, const bf16* weight, size_t rows, size_t dim, float eps) const {
  lanes::rms_norm_rows<avx2::F32x8>(x, weight, rows, dim, eps, [](size_t) {});
}

// Each row is quantized from its narrowed bf16 values as soon as it is
// normalized, while it is still in cache: the same result as rms_norm_bf16
// followed by quantize_rows_i8.
void Avx2Kernels::rms_norm_quantize_i8(bf16* x, const bf16* weight, std::int8_t* q, float* scales, size_t rows,
                                       size_t dim, float eps) const {
  lanes::rms_norm_rows<avx2::F32x8>(x, weight, rows, dim, eps, [&](size_t row) {
    scales[row] = lanes::quantize_row_i8<avx2::F32x8>(x + row * dim, dim, q + row * dim);
  });
}

}  // namespace quorvel::kernels::x86
