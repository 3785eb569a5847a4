// The gated activations and the residual add in eight f32 lanes.
#include "runtime/x86/avx2_float_lanes.h"
#include "runtime/x86/avx2_kernels.h"
#include "runtime/x86/gate_lanes.h"

namespace quorvel::kernels::x86 {

void Avx2Kernels::relu2_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const {
  lanes::relu2_mul<avx2::F32x8>(gate, up, rows * dim);
}

void Avx2Kernels::silu_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const {
  lanes::silu_mul<avx2::F32x8>(gate, up, rows * dim);
}

void Avx2Kernels::add_bf16(const bf16* src, bf16* dst, size_t n) const { lanes::add<avx2::F32x8>(src, dst, n); }

}  // namespace quorvel::kernels::x86
