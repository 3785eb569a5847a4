// The arithmetic of every block-format product of the portable set, written
// once for all formats (q1_0_128, q1.58, q8_0, q4_0, q5_0, q6_k).
//
// Per output row: acc = 0; for each block in block order,
// acc = acc + d_b * (float)S_b, with S_b the exact integer block sum and the
// product rounded before the add; then acc * x_scale, stored as f32 or
// narrowed to bf16 with the nearest-even rule. One f32 accumulator per row,
// no lane split: this is the definition the SIMD sets reproduce bit for bit.
//
// A format supplies Block::kValues and the overloads block_scale and
// block_sum in namespace formats, next to its block struct (found by
// argument-dependent lookup).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"
#include "runtime/formats/unembed_layout.h"

namespace quorvel::kernels::portable {

template <typename Block>
constexpr std::size_t blocks_per_row(std::size_t k) {
  return (k + Block::kValues - 1) / Block::kValues;
}

// Row sums of n_rows rows at once, block column by block column, so that one
// pass over the activations serves every row of the group. Row i's block b is
// first[i * row_step + b * block_step]; the last block of a row whose length
// k is not a whole number of blocks is summed over its existing values only.
template <typename Block>
void block_rows_dot(const Block* first, std::size_t row_step, std::size_t block_step, const std::int8_t* x,
                    std::size_t k, std::size_t n_rows, float* acc) {
  std::fill(acc, acc + n_rows, 0.0f);
  const Block* column = first;
  for (std::size_t col = 0; col < k; col += Block::kValues, column += block_step) {
    const std::size_t n = std::min(Block::kValues, k - col);
    for (std::size_t i = 0; i < n_rows; ++i) {
      const Block& b = column[i * row_step];
      acc[i] = acc[i] + block_scale(b) * static_cast<float>(block_sum(b, x + col, n));
    }
  }
}

inline void store_product(float value, float& out) { out = value; }
inline void store_product(float value, bf16& out) { out = narrow_nearest_even(value); }

inline constexpr std::size_t kMaxRowGroup = 8;

// The q1_0_128 and q1.58 single-token products take rows in groups of four
// (the last group holds 1 to 3), so that each activation block serves four
// weight rows.
inline constexpr std::size_t kQ1RowsPerGroup = 4;

// Single token over consecutive rows (each row blocks_per_row blocks), taken
// `group` (<= kMaxRowGroup) rows at a time; the last group takes what remains.
template <typename Block, typename Out>
void gemv_block_rows(const Block* w, const std::int8_t* x, float x_scale, Out* out, std::size_t rows, std::size_t k,
                     std::size_t group) {
  const std::size_t row_blocks = blocks_per_row<Block>(k);
  float acc[kMaxRowGroup];
  for (std::size_t r = 0; r < rows; r += group) {
    const std::size_t n = std::min(group, rows - r);
    block_rows_dot(w + r * row_blocks, row_blocks, 1, x, k, n, acc);
    for (std::size_t i = 0; i < n; ++i) store_product(acc[i] * x_scale, out[r + i]);
  }
}

// Several tokens: token t's activations at x + t * k, outputs at
// out + t * out_stride; each token exactly as the single-token product.
template <typename Block>
void gemm_block_rows(const Block* w, const std::int8_t* x, const float* x_scales, bf16* out, std::size_t out_stride,
                     std::size_t n_tokens, std::size_t rows, std::size_t k, std::size_t group) {
  for (std::size_t t = 0; t < n_tokens; ++t) {
    gemv_block_rows(w, x + t * k, x_scales[t], out + t * out_stride, rows, k, group);
  }
}

// Logits over an unembedding table grouped by 32 rows (unembed_layout.h);
// rows is a multiple of 32 and w points at the first row of a group.
template <typename Block>
void gemv_grouped_rows_f32(const Block* w, const std::int8_t* x, float x_scale, float* out, std::size_t rows,
                           std::size_t k) {
  using formats::kUnembedGroupRows;
  const std::size_t row_blocks = blocks_per_row<Block>(k);
  float acc[kUnembedGroupRows];
  for (std::size_t r = 0; r < rows; r += kUnembedGroupRows) {
    const std::size_t n = std::min(kUnembedGroupRows, rows - r);
    block_rows_dot(w + formats::unembed_block_index(r, 0, row_blocks), 1, kUnembedGroupRows, x, k, n, acc);
    for (std::size_t i = 0; i < n; ++i) out[r + i] = acc[i] * x_scale;
  }
}

}  // namespace quorvel::kernels::portable
