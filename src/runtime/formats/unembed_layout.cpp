#include "runtime/formats/unembed_layout.h"

#include <cstring>

#include "runtime/formats/i8_matrix.h"

namespace quorvel::formats {

void group_blocks_for_unembed(const void* plain, std::size_t rows, std::size_t blocks_per_row, std::size_t block_bytes,
                              void* grouped) {
  const auto* src = static_cast<const std::uint8_t*>(plain);
  auto* dst = static_cast<std::uint8_t*>(grouped);
  for (std::size_t r = 0; r < rows; ++r) {
    for (std::size_t b = 0; b < blocks_per_row; ++b, src += block_bytes) {
      std::memcpy(dst + unembed_block_index(r, b, blocks_per_row) * block_bytes, src, block_bytes);
    }
  }
}

void tile_i8_for_unembed(const std::int8_t* plain, std::size_t rows, std::size_t cols, std::int8_t* tiled) {
  for (std::size_t r = 0; r < rows; ++r) {
    for (std::size_t c = 0; c < cols; c += kI8Tile) {
      std::memcpy(tiled + i8_tiled_offset(r, c, cols), plain + r * cols + c, kI8Tile);
    }
  }
}

}  // namespace quorvel::formats
