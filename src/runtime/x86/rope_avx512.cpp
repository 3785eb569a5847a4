// Rotary embedding in sixteen f32 lanes.
#include "runtime/x86/avx512_float_lanes.h"
#include "runtime/x86/avx512_kernels.h"
#include "runtime/x86/rope_lanes.h"

namespace quorvel::kernels::x86 {

void Avx512Kernels::rope_bf16(bf16* x, const float* cos, const float* sin, size_t rows, size_t x_stride,
                              size_t dim) const {
  lanes::rope<avx512::F32x16>(x, cos, sin, rows, x_stride, dim);
}

}  // namespace quorvel::kernels::x86
