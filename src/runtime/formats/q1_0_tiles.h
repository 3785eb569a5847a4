// q1_0_128 weights regrouped in tiles of sixteen rows, so that a vector
// whose 32-bit lanes are rows reads one block of all sixteen at once: the
// x86-64 sets multiply a tile block with no reduction across lanes, and its
// sixteen scales side by side load as one vector.
//
// Tile t's block b (rows 16t .. 16t + 15, weights 128b .. 128b + 127) is
// tile block t * blocks_per_row + b. Within it, sign word g holds weights
// 4g .. 4g + 3 of every row: bit 4r + i is the sign bit of weight 4g + i of
// row r (set = +d, clear = -d), so the word's bytes, expanded one byte per
// bit, are the rows' four-weight groups in lane order. d[r] is row r's
// scale. The rows missing from a last partial tile have clear bits and
// zero scales.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"
#include "runtime/formats/q1_0.h"

namespace quorvel::formats {

struct Q1_0TileBlock {
  static constexpr std::size_t kRows = 16;
  static constexpr std::size_t kValues = BlockQ1_0::kValues;
  static constexpr std::size_t kGroups = kValues / 4;
  std::uint64_t signs[kGroups];
  bf16 d[kRows];
};
static_assert(sizeof(Q1_0TileBlock) == Q1_0TileBlock::kRows * sizeof(BlockQ1_0));

inline std::size_t q1_0_tile_count(std::size_t rows) {
  return (rows + Q1_0TileBlock::kRows - 1) / Q1_0TileBlock::kRows;
}

// Regroups n_rows plain rows of `blocks` blocks each into
// q1_0_tile_count(n_rows) * blocks tile blocks.
void tile_q1_0_rows(const BlockQ1_0* rows, std::size_t n_rows, std::size_t blocks, Q1_0TileBlock* out);

// Exact S_b of row r (< 16) of a tile block over its first n (<= 128) weights.
std::int32_t tile_row_sum(const Q1_0TileBlock& b, std::size_t r, const std::int8_t* x, std::size_t n);

}  // namespace quorvel::formats
