#include "runtime/formats/q1_0_tiles.h"

#include <bit>
#include <cstring>

namespace quorvel::formats {

namespace {

// A sign byte stores its first weight in its top bit, a sign word in its
// lowest: with the bits of every byte reversed, bit k of a row's 64-bit
// word h (its bytes loaded in memory order on a little-endian machine) is
// weight 64h + k.
static_assert(std::endian::native == std::endian::little);
std::uint64_t reverse_bits_of_bytes(std::uint64_t x) {
  x = ((x >> 1) & 0x5555555555555555u) | ((x & 0x5555555555555555u) << 1);
  x = ((x >> 2) & 0x3333333333333333u) | ((x & 0x3333333333333333u) << 2);
  return ((x >> 4) & 0x0F0F0F0F0F0F0F0Fu) | ((x & 0x0F0F0F0F0F0F0F0Fu) << 4);
}

// Transposes sixteen words as a 16 x 16 matrix of nibbles (nibble c of m[r]
// becomes nibble r of m[c]): the off-diagonal blocks of halves, then of
// quarters, eighths and single nibbles trade places.
void transpose_nibbles(std::uint64_t (&m)[16]) {
  constexpr std::uint64_t kMasks[] = {0x00000000FFFFFFFFu, 0x0000FFFF0000FFFFu, 0x00FF00FF00FF00FFu,
                                      0x0F0F0F0F0F0F0F0Fu};
  for (unsigned stage = 0, rows = 8, bits = 32; stage < 4; ++stage, rows /= 2, bits /= 2) {
    for (unsigned k = 0; k < 16; ++k) {
      if (k & rows) continue;
      const std::uint64_t t = ((m[k] >> bits) ^ m[k + rows]) & kMasks[stage];
      m[k] ^= t << bits;
      m[k + rows] ^= t;
    }
  }
}

// Sign word g of a tile block is nibble g of every row, row r at bits 4r:
// each half of the rows' weights, as sixteen words, transposed.
void tile_block(const BlockQ1_0* first, std::size_t n_rows, std::size_t row_step, Q1_0TileBlock& out) {
  constexpr std::size_t kHalves = sizeof(BlockQ1_0::signs) / sizeof(std::uint64_t);
  std::memset(out.d, 0, sizeof out.d);
  for (std::size_t half = 0; half < kHalves; ++half) {
    std::uint64_t m[Q1_0TileBlock::kRows] = {};
    for (std::size_t r = 0; r < n_rows; ++r) {
      std::memcpy(&m[r], first[r * row_step].signs + half * sizeof(std::uint64_t), sizeof m[r]);
      m[r] = reverse_bits_of_bytes(m[r]);
    }
    transpose_nibbles(m);
    std::memcpy(out.signs + half * Q1_0TileBlock::kRows, m, sizeof m);
  }
  for (std::size_t r = 0; r < n_rows; ++r) out.d[r] = first[r * row_step].d;
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
