// The int8 unembedding product on any lane trait. It streams the whole
// vocabulary table every token, so it must run at memory bandwidth. A 32 x 32
// tile (formats/i8_matrix.h) is read as whole vectors, each holding
// Isa::kTileRowsPerVector rows' 32 codes; the activations of the tile's
// columns stand in every 32-byte piece of a vector, the trait's signed dot
// product takes the codes, and the rows of a pass are reduced once at the
// end, in row order.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/formats/i8_matrix.h"
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

template <typename Isa>
std::int32_t activation_sum(const std::int8_t* x, std::size_t k) {
  std::int32_t sum = 0;
  for (std::size_t i = 0; i < k; ++i) sum += x[i];
  return sum;
}

// Exact sums of the Isa::kLanes * kTileRowsPerVector rows of a tile row
// starting at row `first`: lane r of sums[j] is row first + j * kLanes + r.
template <typename Isa>
void i8_pass_sums(const std::int8_t* tiles, std::size_t first, const std::int8_t* x, std::size_t k,
                  std::int32_t x_sum, typename Isa::Ints (&sums)[Isa::kTileRowsPerVector]) {
  using formats::kI8Tile;
  typename Isa::Ints acc[Isa::kLanes];
  #pragma GCC unroll 16
  for (auto& a : acc) a = Isa::zero();
  for (std::size_t c = 0; c < k; c += kI8Tile, tiles += kI8Tile * kI8Tile) {
    const auto xv = Isa::load_in_every_piece(x + c);
    #pragma GCC unroll 16
    for (int i = 0; i < Isa::kLanes; ++i) {
      const auto codes = Isa::loadu(tiles + first * kI8Tile + i * Isa::kVectorBytes);
      acc[i] = Isa::dot_signed(acc[i], Isa::signed_codes(codes), xv);
    }
  }
  Isa::row_sums(acc, sums);
  #pragma GCC unroll 16
  for (auto& s : sums) s = Isa::signed_sums(s, Isa::set1(x_sum));
}

}  // namespace

// rows and k are multiples of 32; out[r] = ((float)sum * x_scale) * row_scales[r].
template <typename Isa>
void X86Kernels<Isa>::gemv_i8_f32(const std::int8_t* w, const float* row_scales, const std::int8_t* x,
                                  float x_scale, float* out, size_t rows, size_t k) const {
  using F = typename Isa::F32;
  using formats::kI8Tile;
  constexpr std::size_t kPassRows = Isa::kLanes * Isa::kTileRowsPerVector;
  const std::int32_t x_sum = activation_sum<Isa>(x, k);
  const auto scale = F::set1(x_scale);
  for (std::size_t r = 0; r < rows; r += kI8Tile) {
    for (std::size_t first = 0; first < kI8Tile; first += kPassRows) {
      typename Isa::Ints sums[Isa::kTileRowsPerVector];
      i8_pass_sums<Isa>(w + r * k, first, x, k, x_sum, sums);
      #pragma GCC unroll 16
      for (int j = 0; j < Isa::kTileRowsPerVector; ++j) {
        const std::size_t at = r + first + j * Isa::kLanes;
        F::store(out + at, (Isa::to_floats(sums[j]) * scale) * F::load(row_scales + at));
      }
    }
  }
}

}  // namespace quorvel::kernels::x86
