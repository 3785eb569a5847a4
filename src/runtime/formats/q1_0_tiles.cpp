#include "runtime/formats/q1_0_tiles.h"

#include <cstring>

namespace quorvel::formats {

namespace {

// The four bits of a nibble in reverse order: a sign byte stores its first
// weight in its top bit, a sign word in its lowest.
constexpr std::uint64_t reversed_nibble(unsigned v) {
  return ((v & 1u) << 3) | ((v & 2u) << 1) | ((v & 4u) >> 1) | ((v & 8u) >> 3);
}

void tile_block(const BlockQ1_0* first, std::size_t n_rows, std::size_t row_step, Q1_0TileBlock& out) {
  std::memset(&out, 0, sizeof out);
  for (std::size_t r = 0; r < n_rows; ++r) {
    const BlockQ1_0& block = first[r * row_step];
    for (std::size_t byte = 0; byte < sizeof block.signs; ++byte) {
      const unsigned bits = block.signs[byte];
      out.signs[2 * byte] |= reversed_nibble(bits >> 4) << (4 * r);
      out.signs[2 * byte + 1] |= reversed_nibble(bits & 15u) << (4 * r);
    }
    out.d[r] = block.d;
  }
}

}  // namespace

void tile_q1_0_rows(const BlockQ1_0* rows, std::size_t n_rows, std::size_t blocks, Q1_0TileBlock* out) {
  constexpr std::size_t kRows = Q1_0TileBlock::kRows;
  for (std::size_t first = 0; first < n_rows; first += kRows) {
    const std::size_t tile_rows = n_rows - first < kRows ? n_rows - first : kRows;
    for (std::size_t b = 0; b < blocks; ++b) tile_block(rows + first * blocks + b, tile_rows, blocks, *out++);
  }
}

std::int32_t tile_row_sum(const Q1_0TileBlock& b, std::size_t r, const std::int8_t* x, std::size_t n) {
  std::int32_t sum = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const bool set = (b.signs[i / 4] >> (4 * r + i % 4)) & 1u;
    sum += set ? x[i] : -x[i];
  }
  return sum;
}

}  // namespace quorvel::formats
