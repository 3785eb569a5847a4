// "int8" matrices.
//
// Tiled (unembedding): one f32 scale per row, codes in tiles of 32 rows by
// 32 columns so that a kernel streams 32 rows at once. Rows and columns are
// multiples of 32; the byte of (row r, column c) is at
//   (r / 32) * 32 * cols + (c / 32) * 1024 + (r % 32) * 32 + (c % 32).
//
// Plain (LoRA factors): row-major codes with one f32 scale per row, described
// by an I8Matrix record.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quorvel::formats {

inline constexpr std::size_t kI8Tile = 32;

inline std::size_t i8_tiled_offset(std::size_t r, std::size_t c, std::size_t cols) {
  return (r / 32) * 32 * cols + (c / 32) * 1024 + (r % 32) * 32 + (c % 32);
}

struct I8Matrix {
  std::uint64_t rows;
  std::uint64_t cols;
  float* scales;        // one per row
  std::int8_t* values;  // rows * cols, row-major
};

}  // namespace quorvel::formats
