// Element-by-element kernels of the feed-forward block and the residual
// stream: the two gated activations and the bf16 add four values at a time,
// the int8 expansion eight at a time. Each computes in f32 and narrows with
// the saturating rule; the values after the last whole step go to the
// portable set.
//
// silu differs from the portable set on purpose: 1 / (1 + e^-g) is the
// processor's reciprocal estimate (FRECPE, about 8 bits) refined by one
// Newton step (FRECPS: r = r0 * (2 - d * r0)), which leaves a relative error
// of about 2^-16 before the final products and the narrowing to bf16.
#include <arm_neon.h>

#include "runtime/arm/neon_bf16.h"
#include "runtime/arm/neon_kernels.h"
#include "runtime/arm/neon_poly_exp.h"

namespace quorvel::kernels::arm {

namespace {

constexpr size_t kLanes = 4;

size_t whole_vectors(size_t n) { return n - n % kLanes; }

}  // namespace

// r = gate > 0 ? gate : 0 (a NaN or -0 gate gives +0); up = (r * r) * up.
void NEONKernels::relu2_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const {
  const size_t n = rows * dim;
  const size_t whole = whole_vectors(n);
  for (size_t i = 0; i < whole; i += kLanes) {
    const float32x4_t g = load_bf16x4(gate + i);
    const float32x4_t r = vreinterpretq_f32_u32(vandq_u32(vreinterpretq_u32_f32(g), vcgtzq_f32(g)));
    store_bf16x4(up + i, vmulq_f32(vmulq_f32(r, r), load_bf16x4(up + i)));
  }
  PortableKernels::relu2_mul_bf16(gate + whole, up + whole, 1, n - whole);
}

// up = (r * g) * up with r ~ 1 / (poly_exp(-g) + 1).
void NEONKernels::silu_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const {
  const size_t n = rows * dim;
  const size_t whole = whole_vectors(n);
  for (size_t i = 0; i < whole; i += kLanes) {
    const float32x4_t g = load_bf16x4(gate + i);
    const float32x4_t d = vaddq_f32(poly_exp4(vnegq_f32(g)), vdupq_n_f32(1.0f));
    const float32x4_t estimate = vrecpeq_f32(d);
    const float32x4_t r = vmulq_f32(estimate, vrecpsq_f32(d, estimate));
    store_bf16x4(up + i, vmulq_f32(vmulq_f32(r, g), load_bf16x4(up + i)));
  }
  PortableKernels::silu_mul_bf16(gate + whole, up + whole, 1, n - whole);
}

void NEONKernels::add_bf16(const bf16* src, bf16* dst, size_t n) const {
  const size_t whole = whole_vectors(n);
  for (size_t i = 0; i < whole; i += kLanes)
    store_bf16x4(dst + i, vaddq_f32(load_bf16x4(dst + i), load_bf16x4(src + i)));
  PortableKernels::add_bf16(src + whole, dst + whole, n - whole);
}

void NEONKernels::dequantize_i8_bf16(const std::int8_t* q, bf16* out, size_t n, float scale) const {
  const size_t whole = n - n % 8;
  const float32x4_t s = vdupq_n_f32(scale);
  for (size_t i = 0; i < whole; i += 8) {
    const int16x8_t codes = vmovl_s8(vld1_s8(q + i));
    store_bf16x4(out + i, vmulq_f32(vcvtq_f32_s32(vmovl_s16(vget_low_s16(codes))), s));
    store_bf16x4(out + i + 4, vmulq_f32(vcvtq_f32_s32(vmovl_high_s16(codes)), s));
  }
  PortableKernels::dequantize_i8_bf16(q + whole, out + whole, n - whole, scale);
}

}  // namespace quorvel::kernels::arm
