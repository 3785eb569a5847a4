// Four-lane bf16 dot products of many rows with one vector (dot_rows_bf16
// and the attention scores), on a vector of any width V (a lane vocabulary
// such as avx2::F32x8).
//
// The definition keeps four f32 lanes per row (lane j takes elements j,
// j+4, ...; products rounded, then added) merged ((l0 + l1) + l2) + l3. One
// row's four lanes fit a 128-bit quarter exactly, so a vector carries the
// lanes of V::kQuarters rows side by side and four such vectors carry
// 4 * kQuarters rows; one transpose-and-add at the end merges them all.
#pragma once

#include <cstddef>

#include "runtime/bf16.h"

namespace quorvel::kernels::x86::lanes {

// Adds the products of elements [i, i + 8) of every row of the group.
template <typename V>
void dot_eight_elements(const bf16* const* row, std::size_t i, const bf16* vec, typename V::Reg (&acc)[4]) {
  const auto q = V::broadcast_eight(vec + i);
  const auto q_first = V::first_four(q), q_second = V::second_four(q);
  for (std::size_t m = 0; m < 4; ++m) {
    const auto k = V::rows_eight(row + m, i);
    acc[m] = acc[m] + V::first_four(k) * q_first;
    acc[m] = acc[m] + V::second_four(k) * q_second;
  }
}

// Lane 4 * j + m of the result = ((l0 + l1) + l2) + l3 of quarter j of a[m].
template <typename V>
typename V::Reg merge_lanes(const typename V::Reg (&a)[4]) {
  const auto low01 = V::interleave_low(a[0], a[1]), low23 = V::interleave_low(a[2], a[3]);
  const auto high01 = V::interleave_high(a[0], a[1]), high23 = V::interleave_high(a[2], a[3]);
  const auto l0 = V::template pick<0x44>(low01, low23), l1 = V::template pick<0xEE>(low01, low23);
  const auto l2 = V::template pick<0x44>(high01, high23), l3 = V::template pick<0xEE>(high01, high23);
  return ((l0 + l1) + l2) + l3;
}

// out[r] = dot(row[r], vec) for r < n_out of a group of 4 * kQuarters rows
// (rows past n_out repeat a valid one). A short last step pads rows and vec
// with zeros: a lane never holds -0 (it starts at +0, and an exact zero sum
// is +0), so adding the +0 products leaves it unchanged.
template <typename V>
void dot_row_group(const bf16* const* row, const bf16* vec, std::size_t dim, float* out, std::size_t n_out) {
  constexpr std::size_t kRows = 4 * V::kQuarters;
  typename V::Reg acc[4] = {V::zero(), V::zero(), V::zero(), V::zero()};
  std::size_t i = 0;
  for (; i + 8 <= dim; i += 8) dot_eight_elements<V>(row, i, vec, acc);
  if (i < dim) {
    bf16 padded[kRows + 1][8] = {};
    const bf16* padded_row[kRows];
    for (std::size_t r = 0; r <= kRows; ++r) {
      __builtin_memcpy(padded[r], (r < kRows ? row[r] : vec) + i, (dim - i) * sizeof(bf16));
      if (r < kRows) padded_row[r] = padded[r];
    }
    dot_eight_elements<V>(padded_row, 0, padded[kRows], acc);
  }
  const auto dots = merge_lanes<V>(acc);
  if (n_out == kRows) {
    V::store(out, dots);
  } else {
    V::store(out, dots, n_out);
  }
}

// out[r] = dot(rows + r * row_stride, vec) for r < count.
template <typename V>
void dot_rows(const bf16* rows, std::size_t row_stride, const bf16* vec, std::size_t dim, std::size_t count,
              float* out) {
  constexpr std::size_t kRows = 4 * V::kQuarters;
  for (std::size_t first = 0; first < count; first += kRows) {
    const std::size_t n = count - first < kRows ? count - first : kRows;
    const bf16* row[kRows];
    for (std::size_t r = 0; r < kRows; ++r) row[r] = rows + (first + (r < n ? r : n - 1)) * row_stride;
    dot_row_group<V>(row, vec, dim, out + first, n);
  }
}

}  // namespace quorvel::kernels::x86::lanes
