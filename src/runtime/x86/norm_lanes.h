// RMS normalization of bf16 rows on a vector of any width V (a lane
// vocabulary such as avx2::F32x8).
//
// The sum of squares keeps the portable order exactly: element i goes to
// lane i mod 4 with a fused multiply-add, so each row's four lanes are one
// 128-bit accumulator, and the lanes merge as (l0 + l1) + (l2 + l3). That
// chain cannot be split further without changing the result; what can be
// gained is running the chains of several rows side by side. The scaling
// step y = (x * inv) * w is elementwise and takes the full width. The kernel
// set's members, alone and followed by the activation quantizer, are at the
// end.
#pragma once

#include <cstddef>

#include "runtime/bf16.h"
#include "runtime/x86/intrinsics.h"
#include "runtime/x86/lane_loops.h"
#include "runtime/x86/quantize_lanes.h"
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86::lanes {

// Rows whose sums of squares run side by side.
inline constexpr std::size_t kNormRowsTogether = 4;

// Adds the squares of eight elements to a row's four lanes: elements 0-3,
// then 4-7, so element i meets lane i mod 4 in order.
template <typename V>
__m128 add_eight_squares(__m128 acc, __m128i eight) {
  const __m128 first = _mm_castsi128_ps(_mm_unpacklo_epi16(_mm_setzero_si128(), eight));
  const __m128 second = _mm_castsi128_ps(_mm_unpackhi_epi16(_mm_setzero_si128(), eight));
  return _mm_fmadd_ps(second, second, _mm_fmadd_ps(first, first, acc));
}

// inv[r] = 1 / sqrt(eps + sum_sq / dim) of kRows consecutive rows of dim
// values. V only keeps each instruction set's copy apart. A last step of
// fewer than eight elements is padded with zeros: fma(0, 0, lane) leaves a
// lane unchanged, since a sum of squares from +0 is never -0.
template <typename V, std::size_t kRows>
void inverse_rms(const bf16* x, std::size_t dim, float eps, float (&inv)[kRows]) {
  __m128 acc[kRows];
  for (std::size_t r = 0; r < kRows; ++r) acc[r] = _mm_setzero_ps();
  std::size_t i = 0;
  for (; i + 8 <= dim; i += 8) {
    for (std::size_t r = 0; r < kRows; ++r) {
      acc[r] = add_eight_squares<V>(acc[r], _mm_loadu_si128(reinterpret_cast<const __m128i*>(x + r * dim + i)));
    }
  }
  if (i < dim) {
    for (std::size_t r = 0; r < kRows; ++r) {
      alignas(16) bf16 part[8] = {};
      __builtin_memcpy(part, x + r * dim + i, (dim - i) * sizeof(bf16));
      acc[r] = add_eight_squares<V>(acc[r], _mm_load_si128(reinterpret_cast<const __m128i*>(part)));
    }
  }
  for (std::size_t r = 0; r < kRows; ++r) {
    alignas(16) float lane[4];
    _mm_store_ps(lane, acc[r]);
    const float sum = (lane[0] + lane[1]) + (lane[2] + lane[3]);
    const float mean = sum / static_cast<float>(dim);
    inv[r] = 1.0f / __builtin_sqrtf(eps + mean);
  }
}

// x = narrow((x * inv) * weight) over one row.
template <typename V>
void scale_row(bf16* x, const bf16* weight, std::size_t dim, float inv) {
  const auto factor = V::set1(inv);
  for_each_vector<V>(dim, [&](std::size_t i, std::size_t count) {
    store_bf16<V>(x + i, (load_bf16<V>(x + i, count) * factor) * load_bf16<V>(weight + i, count), count);
  });
}

// Normalizes kRows consecutive rows in place, then hands each row to
// row_done(row index within the group).
template <typename V, std::size_t kRows, typename RowDone>
void rms_norm_group(bf16* x, const bf16* weight, std::size_t dim, float eps, RowDone row_done) {
  float inv[kRows];
  inverse_rms<V, kRows>(x, dim, eps, inv);
  for (std::size_t r = 0; r < kRows; ++r) {
    scale_row<V>(x + r * dim, weight, dim, inv[r]);
    row_done(r);
  }
}

// rows rows of dim values, in groups of kNormRowsTogether and then one by one.
template <typename V, typename RowDone>
void rms_norm_rows(bf16* x, const bf16* weight, std::size_t rows, std::size_t dim, float eps, RowDone row_done) {
  std::size_t row = 0;
  for (; row + kNormRowsTogether <= rows; row += kNormRowsTogether) {
    rms_norm_group<V, kNormRowsTogether>(x + row * dim, weight, dim, eps, [&](std::size_t r) { row_done(row + r); });
  }
  for (; row < rows; ++row) {
    rms_norm_group<V, 1>(x + row * dim, weight, dim, eps, [&](std::size_t) { row_done(row); });
  }
}

}  // namespace quorvel::kernels::x86::lanes

namespace quorvel::kernels::x86 {

template <typename Isa>
void X86Kernels<Isa>::rms_norm_bf16(bf16* x, const bf16* weight, size_t rows, size_t dim, float eps) const {
  lanes::rms_norm_rows<typename Isa::F32>(x, weight, rows, dim, eps, [](size_t) {});
}

// Each row is quantized from its narrowed bf16 values as soon as it is
// normalized, while it is still in cache: the same result as rms_norm_bf16
// followed by quantize_rows_i8.
template <typename Isa>
void X86Kernels<Isa>::rms_norm_quantize_i8(bf16* x, const bf16* weight, std::int8_t* q, float* scales, size_t rows,
                                           size_t dim, float eps) const {
  lanes::rms_norm_rows<typename Isa::F32>(x, weight, rows, dim, eps, [&](size_t row) {
    scales[row] = lanes::quantize_row_i8<typename Isa::F32>(x + row * dim, dim, q + row * dim);
  });
}

}  // namespace quorvel::kernels::x86
