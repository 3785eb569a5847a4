// The row walk of every block-format product of the NEON sets (q1_0_128,
// q1.58, q8_0), written once; a Policy (neon_block_policies.h) supplies the
// integer block sums of its format with its instruction set.
//
// Per output row, as the portable set: acc = 0; for each block in block
// order, acc = acc + d_b * (float)S_b (product rounded), then acc * x_scale.
// Here the rows of a group share each block column of activations: their
// S_b land in the lanes of one vector (lane i = row i), so the float steps
// run four rows at a time and each lane keeps its own row's order.
//
// Policy:
//   using Block;                                        the format's block struct
//   struct Column;                                      one column of activations, loaded once for all rows
//   static Column load_column(const std::int8_t* x);    x at the column's first value
//   static int32x4_t row_lanes(const Block&, const Column&);  lanes whose total is the row's raw sum
//   static int32x4_t finish(int32x4_t raw, const Column&);    raw totals (lane = row) to S_b
//
// A last block that holds fewer values than a whole block (k not a multiple
// of the block length) is summed by the format's scalar block_sum, so that
// no activation beyond k is read.
#pragma once

#include <arm_neon.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "runtime/arm/neon_int8_lanes.h"
#include "runtime/bf16.h"
#include "runtime/formats/q8_0.h"
#include "runtime/formats/unembed_layout.h"
#include "runtime/scalar/portable_block_products.h"

namespace quorvel::kernels::arm {

using std::size_t;

// S_b of rows r0..r3 of one block column (lane i = row i).
template <typename Policy>
[[gnu::always_inline]] inline int32x4_t block_sums4(const typename Policy::Block* const* row,
                                                    const typename Policy::Column& column) {
  return Policy::finish(row_totals(Policy::row_lanes(*row[0], column), Policy::row_lanes(*row[1], column),
                                   Policy::row_lanes(*row[2], column), Policy::row_lanes(*row[3], column)),
                        column);
}

// S_b of rows r0, r1 of one block column, in lanes 0 and 1 (and again in 2 and 3).
template <typename Policy>
[[gnu::always_inline]] inline int32x4_t block_sums2(const typename Policy::Block* const* row,
                                                    const typename Policy::Column& column) {
  const int32x4_t pair = vpaddq_s32(Policy::row_lanes(*row[0], column), Policy::row_lanes(*row[1], column));
  return Policy::finish(vpaddq_s32(pair, pair), column);
}

// The blocks' scales as the products multiply them: lane i = row i % lanes.
template <typename Block>
[[gnu::always_inline]] inline float32x4_t block_scales(const Block* const* row, size_t lanes) {
  float d[4];
#pragma GCC unroll 4
  for (size_t i = 0; i < 4; ++i) d[i] = block_scale(*row[i % lanes]);
  return vld1q_f32(d);
}

// acc[i] for the n_rows (1 <= n_rows <= kRows) rows whose first blocks are
// first + i * row_step; a row's next block is block_step blocks on. Rows
// beyond n_rows repeat the last one and are computed but not returned.
template <typename Policy, size_t kRows>
void dot_block_rows(const typename Policy::Block* first, size_t row_step, size_t block_step, const std::int8_t* x,
                    size_t k, size_t n_rows, float* acc) {
  static_assert(kRows == 2 || kRows % 4 == 0);
  using Block = typename Policy::Block;
  constexpr size_t kVectors = (kRows + 3) / 4;
  const Block* row[kRows];
  for (size_t i = 0; i < kRows; ++i) row[i] = first + std::min(i, n_rows - 1) * row_step;

  float32x4_t sums[kVectors];
  for (float32x4_t& s : sums) s = vdupq_n_f32(0.0f);
  const size_t whole = k / Block::kValues;
  for (size_t col = 0; col < whole; ++col) {
    const typename Policy::Column column = Policy::load_column(x + col * Block::kValues);
#pragma GCC unroll 2
    for (size_t v = 0; v < kVectors; ++v) {
      const Block* const* group = row + 4 * v;
      int32x4_t s;
      if constexpr (kRows == 2) {
        s = block_sums2<Policy>(group, column);
      } else {
        s = block_sums4<Policy>(group, column);
      }
      const float32x4_t d = block_scales(group, std::min<size_t>(kRows, 4));
      sums[v] = vaddq_f32(sums[v], vmulq_f32(d, vcvtq_f32_s32(s)));
    }
#pragma GCC unroll 8
    for (const Block*& r : row) r += block_step;
  }

  float lanes[4 * kVectors];
  for (size_t v = 0; v < kVectors; ++v) vst1q_f32(lanes + 4 * v, sums[v]);
  const size_t tail = k - whole * Block::kValues;
  for (size_t i = 0; i < n_rows; ++i) {
    acc[i] = lanes[i];
    if (tail != 0) {
      acc[i] = acc[i] + block_scale(*row[i]) * static_cast<float>(block_sum(*row[i], x + whole * Block::kValues, tail));
    }
  }
}

// Single token over consecutive rows, kRows at a time; the last group takes
// what remains. Out is bf16 (nearest-even) or float.
template <typename Policy, size_t kRows, typename Out>
void gemv_block_rows(const void* w, const std::int8_t* x, float x_scale, Out* out, size_t rows, size_t k) {
  using Block = typename Policy::Block;
  const auto* blocks = static_cast<const Block*>(w);
  const size_t row_blocks = portable::blocks_per_row<Block>(k);
  float acc[kRows];
  for (size_t r = 0; r < rows; r += kRows) {
    const size_t n = std::min(kRows, rows - r);
    dot_block_rows<Policy, kRows>(blocks + r * row_blocks, row_blocks, 1, x, k, n, acc);
    for (size_t i = 0; i < n; ++i) portable::store_product(acc[i] * x_scale, out[r + i]);
  }
}

// The single-token q8_0 product groups its rows by the tuning table of
// formats/q8_0.h: 2, 4 or 8 rows share each column of activations.
template <typename Policy>
void gemv_q8_0_table_rows(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows, size_t k) {
  switch (formats::q8_0_gemv_rows_per_group(k)) {
    case 8:
      return gemv_block_rows<Policy, 8>(w, x, x_scale, out, rows, k);
    case 4:
      return gemv_block_rows<Policy, 4>(w, x, x_scale, out, rows, k);
    default:
      return gemv_block_rows<Policy, 2>(w, x, x_scale, out, rows, k);
  }
}

// Several tokens: each group of four rows is read once from memory and then
// passes every token's activations, so that it stays in the first-level cache.
template <typename Policy>
void gemm_block_rows(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                     size_t n_tokens, size_t rows, size_t k) {
  using Block = typename Policy::Block;
  constexpr size_t kRows = 4;
  const auto* blocks = static_cast<const Block*>(w);
  const size_t row_blocks = portable::blocks_per_row<Block>(k);
  float acc[kRows];
  for (size_t r = 0; r < rows; r += kRows) {
    const size_t n = std::min(kRows, rows - r);
    for (size_t t = 0; t < n_tokens; ++t) {
      dot_block_rows<Policy, kRows>(blocks + r * row_blocks, row_blocks, 1, x + t * k, k, n, acc);
      for (size_t i = 0; i < n; ++i) out[t * out_stride + r + i] = narrow_nearest_even(acc[i] * x_scales[t]);
    }
  }
}

// Logits over an unembedding table in groups of 32 rows (unembed_layout.h):
// inside a group, block column b of row j is block b * 32 + j.
template <typename Policy, size_t kRows>
void gemv_grouped_rows_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows, size_t k) {
  using Block = typename Policy::Block;
  using formats::kUnembedGroupRows;
  const auto* blocks = static_cast<const Block*>(w);
  const size_t row_blocks = portable::blocks_per_row<Block>(k);
  float acc[kRows];
  for (size_t r = 0; r < rows; r += kUnembedGroupRows) {
    const Block* group = blocks + formats::unembed_block_index(r, 0, row_blocks);
    const size_t group_rows = std::min(kUnembedGroupRows, rows - r);
    for (size_t j = 0; j < group_rows; j += kRows) {
      const size_t n = std::min(kRows, group_rows - j);
      dot_block_rows<Policy, kRows>(group + j, 1, kUnembedGroupRows, x, k, n, acc);
      for (size_t i = 0; i < n; ++i) out[r + j + i] = acc[i] * x_scale;
    }
  }
}

}  // namespace quorvel::kernels::arm
