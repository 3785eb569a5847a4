// Element-by-element kernels of the feed-forward block and the residual
// stream: the two gated activations, the bf16 add and the int8 expansion.
// Each computes in f32 and narrows with the saturating rule, so an overflow
// stores the largest finite bf16 instead of infinity.
#include "runtime/poly_exp.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

// r = gate > 0 ? gate : 0 (a NaN or -0 gate gives +0); up = (r * r) * up.
void PortableKernels::relu2_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const {
  const size_t n = rows * dim;
  for (size_t i = 0; i < n; ++i) {
    const float g = widen(gate[i]);
    const float r = g > 0.0f ? g : 0.0f;
    up[i] = narrow_saturate((r * r) * widen(up[i]));
  }
}

// silu(g) = g / (1 + e^-g), as (r * g) * up with r = 1 / (1 + poly_exp(-g)).
// This set divides; a set with only a reciprocal estimate may refine it by
// one Newton step instead, which moves results in the last f32 bits.
void PortableKernels::silu_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const {
  const size_t n = rows * dim;
  for (size_t i = 0; i < n; ++i) {
    const float g = widen(gate[i]);
    const float r = 1.0f / (poly_exp(-g) + 1.0f);
    up[i] = narrow_saturate((r * g) * widen(up[i]));
  }
}

void PortableKernels::add_bf16(const bf16* src, bf16* dst, size_t n) const {
  for (size_t i = 0; i < n; ++i) dst[i] = narrow_saturate(widen(dst[i]) + widen(src[i]));
}

void PortableKernels::dequantize_i8_bf16(const std::int8_t* q, bf16* out, size_t n, float scale) const {
  for (size_t i = 0; i < n; ++i) out[i] = narrow_saturate(static_cast<float>(q[i]) * scale);
}

}  // namespace quorvel::kernels
