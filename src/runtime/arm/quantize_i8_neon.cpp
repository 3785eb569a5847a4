// Activation quantization of bf16 rows, eight values at a time, with the
// scalar quantizer's rule: amax starts at the smallest normal float (a NaN
// value never raises it), has a floor of 1e-5, scale = amax / 127 and
// inv = 127 / amax (two divisions); codes round to nearest-even and clamp to
// [-127, 127], NaN giving 0. Rows whose length is not a multiple of 8 go to
// the scalar quantizer.
#include "runtime/arm/quantize_i8_neon.h"

#include <arm_neon.h>

#include <limits>

#include "runtime/arm/neon_bf16.h"
#include "runtime/arm/neon_kernels.h"
#include "runtime/formats/activation_i8.h"

namespace quorvel::kernels::arm {

namespace {

constexpr size_t kStep = 8;

// FMAXNM returns the number when the other operand is NaN, as the scalar
// "if (magnitude > amax)" skips a NaN.
float row_amax(const bf16* x, size_t n) {
  float32x4_t amax = vdupq_n_f32(std::numeric_limits<float>::min());
  for (size_t i = 0; i < n; i += 4) amax = vmaxnmq_f32(amax, vabsq_f32(load_bf16x4(x + i)));
  return vmaxnmvq_f32(amax);
}

// rint, then the clamp; the conversion saturates and gives 0 for NaN.
int16x4_t codes4(const bf16* x, float32x4_t inv) {
  int32x4_t codes = vcvtnq_s32_f32(vmulq_f32(load_bf16x4(x), inv));
  codes = vminq_s32(vmaxq_s32(codes, vdupq_n_s32(-127)), vdupq_n_s32(127));
  return vmovn_s32(codes);
}

}  // namespace

float quantize_row_i8(const bf16* x, size_t n, std::int8_t* q) {
  if (n % kStep != 0) return formats::quantize_row_i8(x, n, q);
  constexpr float kAmaxFloor = 1e-5f;
  constexpr float kMaxCode = 127.0f;
  float amax = row_amax(x, n);
  if (amax < kAmaxFloor) amax = kAmaxFloor;
  const float32x4_t inv = vdupq_n_f32(kMaxCode / amax);
  for (size_t i = 0; i < n; i += kStep)
    vst1_s8(q + i, vmovn_s16(vcombine_s16(codes4(x + i, inv), codes4(x + i + 4, inv))));
  return amax / kMaxCode;
}

void NEONKernels::quantize_rows_i8(const bf16* x, std::int8_t* q, float* scales, size_t rows, size_t dim) const {
  for (size_t row = 0; row < rows; ++row) scales[row] = quantize_row_i8(x + row * dim, dim, q + row * dim);
}

}  // namespace quorvel::kernels::arm
