// q1_0_128 products over rows tiled by sixteen (formats/q1_0_tiles.h), on
// any lane trait. A vector's 32-bit lanes are rows: each sign word of a tile
// block, expanded one 0/1 byte per bit, pairs every row's four weights with
// the same four activations, so the unsigned dot product leaves each row's
// set-sum in its own lane and S_b = 2 * (set sum) - (block sum) needs no
// reduction across lanes. The scales of a lane's rows lie side by side and
// load as one vector; each lane then adds d_b * (float)S_b to its own f32
// accumulator in block order, product rounded, as the portable set does.
// A 256-bit trait takes a tile as two vectors of eight rows (the low and
// high halves of each sign word).
#pragma once

#include <cstring>

#include "runtime/formats/q1_0_tiles.h"
#include "runtime/x86/lane_passes.h"
#include "runtime/x86/prepared_activations.h"
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

using formats::Q1_0TileBlock;

template <typename Isa>
inline constexpr int kVectorsPerTile = static_cast<int>(Q1_0TileBlock::kRows) / Isa::kLanes;

// Lane r of the result: the exact S_b of row `part` * kLanes + r of the tile
// block, whose activations start at x and sum to x_sum. The sign words take
// turns, four at a time, among four independent accumulators: long enough
// runs for AVX2's 16-bit pair sums, short enough dependency chains for
// VPDPBUSD (one chain of 32 runs about 15 % slower on Zen 4).
template <typename Isa>
[[gnu::always_inline]] inline typename Isa::Ints tile_block_sums(const Q1_0TileBlock& block, int part,
                                                                 const std::int8_t* x, std::int32_t x_sum) {
  using Ints = typename Isa::Ints;
  constexpr int kChains = 4;
  constexpr int kWordsPerStep = 4;
  const auto* words = reinterpret_cast<const std::uint8_t*>(block.signs) + part * Isa::kVectorBytes / 8;
  Ints chains[kChains];
  #pragma GCC unroll 4
  for (int c = 0; c < kChains; ++c) chains[c] = Isa::zero();
  #pragma GCC unroll 8
  for (int step = 0; step < static_cast<int>(Q1_0TileBlock::kGroups) / kWordsPerStep; ++step) {
    Ints w[kWordsPerStep], xv[kWordsPerStep];
    #pragma GCC unroll 4
    for (int i = 0; i < kWordsPerStep; ++i) {
      const int g = step * kWordsPerStep + i;
      std::int32_t four;
      std::memcpy(&four, x + 4 * g, sizeof four);
      w[i] = Isa::bits_as_bytes(words + g * sizeof(std::uint64_t));
      xv[i] = Isa::set1(four);
    }
    chains[step % kChains] = Isa::template dot_unsigned<kWordsPerStep>(chains[step % kChains], w, xv);
  }
  const Ints set_sums = Isa::add(Isa::add(chains[0], chains[1]), Isa::add(chains[2], chains[3]));
  return Isa::sub(Isa::template shift_left<1>(set_sums), Isa::set1(x_sum));
}

// The first n (<= 16) rows of one tile against prepared token t; out points at the tile's first row.
template <typename Isa>
void tile_product(const Q1_0TileBlock* tile, const PreparedActivations& x, std::size_t t, bf16* out,
                  std::size_t n) {
  typename Isa::Floats acc[kVectorsPerTile<Isa>];
  #pragma GCC unroll 2
  for (int part = 0; part < kVectorsPerTile<Isa>; ++part) acc[part] = Isa::F32::zero();
  for (std::size_t b = 0; b < x.blocks; ++b) {
    const std::int8_t* codes = x.codes[t] + b * Q1_0TileBlock::kValues;
    #pragma GCC unroll 2
    for (int part = 0; part < kVectorsPerTile<Isa>; ++part) {
      const auto sums = tile_block_sums<Isa>(tile[b], part, codes, x.block_sums[b * x.tokens + t]);
      acc[part] = acc[part] + Isa::F32::load_bf16(tile[b].d + part * Isa::kLanes) * Isa::to_floats(sums);
    }
  }
  #pragma GCC unroll 2
  for (int part = 0; part < kVectorsPerTile<Isa>; ++part) {
    const std::size_t first = static_cast<std::size_t>(part) * Isa::kLanes;
    if (first < n) {
      const std::size_t count = n - first < Isa::kLanes ? n - first : Isa::kLanes;
      store_lanes<Isa, 1>(acc[part] * Isa::F32::set1(x.scales[t]), out + first, 0, count);
    }
  }
}

}  // namespace

template <typename Isa>
void X86Kernels<Isa>::gemm_q1_0_tiles(const void* tiles, const std::int8_t* x, const float* x_scales, bf16* out,
                                      size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  if (k > PreparedActivations::kMaxValues) {
    PortableKernels::gemm_q1_0_tiles(tiles, x, x_scales, out, out_stride, n_tokens, rows, k);
    return;
  }
  const auto* blocks = static_cast<const Q1_0TileBlock*>(tiles);
  const std::size_t row_blocks = (k + Q1_0TileBlock::kValues - 1) / Q1_0TileBlock::kValues;
  constexpr std::size_t kRows = Q1_0TileBlock::kRows;
  // Each tile meets up to four tokens in turn while its bytes are in cache.
  PreparedActivations prepared;
  token_passes(n_tokens, [&](std::size_t first, std::size_t tokens) {
    prepare_activations(prepared, x + first * k, x_scales + first, tokens, k, Q1_0TileBlock::kValues,
                        CodeOrder::natural);
    for (std::size_t r = 0; r < rows; r += kRows) {
      for (std::size_t t = 0; t < tokens; ++t) {
        tile_product<Isa>(blocks + r / kRows * row_blocks, prepared, t, out + (first + t) * out_stride + r,
                          rows - r < kRows ? rows - r : kRows);
      }
    }
  });
}

}  // namespace quorvel::kernels::x86
