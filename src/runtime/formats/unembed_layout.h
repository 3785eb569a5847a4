// Arrangement of the unembedding's output table.
//
// The logits kernels stream 32 rows at once, so the quantized table is kept
// in groups of 32 rows: within a group, for each block column, the 32 rows'
// blocks lie next to each other (32 * block size bytes), and the groups
// follow each other. The int8 table uses the tiled layout of i8_matrix.h
// (tiles of 32 rows by 32 columns). Tables hold the row count rounded up to
// 32; the padding rows are whatever the caller filled the buffer with (zero).
#pragma once

#include <cstddef>
#include <cstdint>

namespace quorvel::formats {

inline constexpr std::size_t kUnembedGroupRows = 32;

inline std::size_t unembed_padded_rows(std::size_t rows) {
  return (rows + kUnembedGroupRows - 1) / kUnembedGroupRows * kUnembedGroupRows;
}

// Position, counted in blocks, of block column b of row r in a grouped table
// whose rows have blocks_per_row blocks.
inline std::size_t unembed_block_index(std::size_t r, std::size_t b, std::size_t blocks_per_row) {
  return (r / kUnembedGroupRows) * kUnembedGroupRows * blocks_per_row + b * kUnembedGroupRows + r % kUnembedGroupRows;
}

// Copies `rows` consecutive rows of blocks_per_row blocks (block_bytes each)
// into the grouped order. `grouped` must hold unembed_padded_rows(rows) rows;
// the places of the padding rows are not written.
void group_blocks_for_unembed(const void* plain, std::size_t rows, std::size_t blocks_per_row, std::size_t block_bytes,
                              void* grouped);

// Copies `rows` row-major int8 rows of `cols` codes (cols a multiple of 32)
// into 32 x 32 tiles. `tiled` must hold unembed_padded_rows(rows) rows; the
// places of the padding rows are not written.
void tile_i8_for_unembed(const std::int8_t* plain, std::size_t rows, std::size_t cols, std::int8_t* tiled);

}  // namespace quorvel::formats
