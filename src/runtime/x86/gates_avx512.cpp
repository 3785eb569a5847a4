// The gated activations and the residual add in sixteen f32 lanes.
#include "runtime/x86/avx512_float_lanes.h"
#include "runtime/x86/avx512_kernels.h"
#include "runtime/x86/gate_lanes.h"

namespace quorvel::kernels::x86 {

void Avx512Kernels::relu2_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const {
  lanes::relu2_mul<avx512::F32x16>(gate, up, rows * dim);
}

void Avx512Kernels::silu_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const {
  lanes::silu_mul<avx512::F32x16>(gate, up, rows * dim);
}

void Avx512Kernels::add_bf16(const bf16* src, bf16* dst, size_t n) const { lanes::add<avx512::F32x16>(src, dst, n); }

}  // namespace quorvel::kernels::x86
