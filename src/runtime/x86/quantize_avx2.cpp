// The activation quantizer (run on every projection input) and the q8_0
// quantizer (run at load over whole weight tables) in eight f32 lanes.
#include "runtime/x86/avx2_float_lanes.h"
#include "runtime/x86/avx2_kernels.h"
#include "runtime/x86/quantize_lanes.h"

namespace quorvel::kernels::x86 {

void Avx2Kernels::quantize_rows_i8(const bf16* x, std::int8_t* q, float* scales, size_t rows, size_t dim) const {
  lanes::quantize_rows_i8<avx2::F32x8>(x, q, scales, rows, dim);
}

void Avx2Kernels::quantize_rows_q8_0(const bf16* x, size_t rows, size_t cols, void* out) const {
  lanes::quantize_rows_q8_0<avx2::F32x8>(x, rows, cols, out);
}

}  // namespace quorvel::kernels::x86
