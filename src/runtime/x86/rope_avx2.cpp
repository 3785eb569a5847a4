// Rotary embedding in eight f32 lanes.
#include "runtime/x86/avx2_float_lanes.h"
#include "runtime/x86/avx2_kernels.h"
#include "runtime/x86/rope_lanes.h"

namespace quorvel::kernels::x86 {

void Avx2Kernels::rope_bf16(bf16* x, const float* cos, const float* sin, size_t rows, size_t x_stride,
                            size_t dim) const {
  lanes::rope<avx2::F32x8>(x, cos, sin, rows, x_stride, dim);
}

}  // namespace quorvel::kernels::x86
