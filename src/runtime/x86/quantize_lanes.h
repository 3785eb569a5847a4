// The two quantizers of bf16 rows on a vector of any width V (a lane
// vocabulary such as avx2::F32x8): the activation quantizer (int8 codes and
// one scale per row) and the q8_0 block quantizer. Each code is one lane's
// own float steps, so only the largest magnitude is gathered across lanes,
// and a maximum does not depend on the order it is taken in. The kernel set's
// members are at the end.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"
#include "runtime/formats/q8_0.h"
#include "runtime/x86/lane_loops.h"
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86::lanes {

template <typename V>
void store_codes(std::int8_t* q, typename V::Reg codes, std::size_t count) {
  if (count == V::kWidth) {
    V::store_codes(q, codes);
  } else {
    V::store_codes(q, codes, count);
  }
}

// The largest |x| over n values, starting from `floor`; a NaN never wins
// (max(|x|, m) returns m for it, as the portable comparisons do).
template <typename V>
float largest_magnitude(const bf16* x, std::size_t n, float floor) {
  auto lanes = V::set1(floor);
  for_each_vector<V>(
      n, [&](std::size_t i, std::size_t count) { lanes = V::max(V::abs(load_bf16<V>(x + i, count)), lanes); });
  return V::max_lane(lanes);
}

// Activation quantization of one row (formats/activation_i8.h): amax from the
// smallest normal float with a 1e-5 floor, scale amax / 127, codes
// rint(x * (127 / amax)) clamped to [-127, 127], a NaN product giving 0.
// Returns the scale.
template <typename V>
float quantize_row_i8(const bf16* x, std::size_t n, std::int8_t* q) {
  float amax = largest_magnitude<V>(x, n, __FLT_MIN__);
  if (amax < 1e-5f) amax = 1e-5f;
  const auto inv = V::set1(127.0f / amax);
  for_each_vector<V>(n, [&](std::size_t i, std::size_t count) {
    auto code = V::round_even(load_bf16<V>(x + i, count) * inv);
    code = V::max(V::set1(-127.0f), V::min(V::set1(127.0f), code));  // NaN passes both
    store_codes<V>(q + i, V::zero_nan(code), count);
  });
  return amax / 127.0f;
}

template <typename V>
void quantize_rows_i8(const bf16* x, std::int8_t* q, float* scales, std::size_t rows, std::size_t dim) {
  for (std::size_t row = 0; row < rows; ++row) scales[row] = quantize_row_i8<V>(x + row * dim, dim, q + row * dim);
}

// One q8_0 block of n <= 32 values (formats/q8_0.h): d = amax / 127, codes
// rint(x * (1 / d)) clamped to [-127, 127], a NaN product giving 127 as
// fmin/fmax do; an all-zero block stores d = 0 and keeps its code bytes, and
// a short block writes only its n codes.
template <typename V>
void quantize_block_q8_0(const bf16* x, std::size_t n, formats::BlockQ8_0& out) {
  const float amax = largest_magnitude<V>(x, n, 0.0f);
  out.d = amax > 0.0f ? amax / 127.0f : 0.0f;
  if (out.d == 0.0f) return;
  const auto inv = V::set1(1.0f / out.d);
  for_each_vector<V>(n, [&](std::size_t i, std::size_t count) {
    auto code = V::round_even(load_bf16<V>(x + i, count) * inv);
    code = V::max(V::min(code, V::set1(127.0f)), V::set1(-127.0f));  // NaN becomes 127
    store_codes<V>(out.q + i, code, count);
  });
}

template <typename V>
void quantize_rows_q8_0(const bf16* x, std::size_t rows, std::size_t cols, void* out) {
  constexpr std::size_t kValues = formats::BlockQ8_0::kValues;
  auto* block = static_cast<formats::BlockQ8_0*>(out);
  for (std::size_t row = 0; row < rows; ++row) {
    const bf16* values = x + row * cols;
    for (std::size_t col = 0; col < cols; col += kValues) {
      quantize_block_q8_0<V>(values + col, cols - col < kValues ? cols - col : kValues, *block++);
    }
  }
}

}  // namespace quorvel::kernels::x86::lanes

namespace quorvel::kernels::x86 {

template <typename Isa>
void X86Kernels<Isa>::quantize_rows_i8(const bf16* x, std::int8_t* q, float* scales, size_t rows, size_t dim) const {
  lanes::quantize_rows_i8<typename Isa::F32>(x, q, scales, rows, dim);
}

template <typename Isa>
void X86Kernels<Isa>::quantize_rows_q8_0(const bf16* x, size_t rows, size_t cols, void* out) const {
  lanes::quantize_rows_q8_0<typename Isa::F32>(x, rows, cols, out);
}

}  // namespace quorvel::kernels::x86
