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
#include "runtime/x86/q1_0_tile_lookup.h"
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

using formats::Q1_0TileBlock;

template <typename Isa>
inline constexpr int kVectorsPerTile = static_cast<int>(Q1_0TileBlock::kRows) / Isa::kLanes;

// Lane r of sums[t]: the exact S_b of row `part` * kLanes + r of tile block
// b against prepared token t. Each sign word is expanded once for all the
// tokens. The words take turns, four at a time, among 4 / kTokens
// accumulators per token: long enough runs for AVX2's 16-bit pair sums,
// enough independent chains for VPDPBUSD (a single token's one chain of 32
// runs about 15 % slower on Zen 4).
template <typename Isa, int kTokens>
[[gnu::always_inline]] inline void tile_block_sums(const Q1_0TileBlock& block, int part, const PreparedActivations& x,
                                                   std::size_t b, typename Isa::Ints (&sums)[kTokens]) {
  using Ints = typename Isa::Ints;
  constexpr int kChains = 4 / kTokens;
  constexpr int kWordsPerStep = 4;
  const auto* words = reinterpret_cast<const std::uint8_t*>(block.signs) + part * Isa::kVectorBytes / 8;
  Ints chains[kTokens][kChains];
  #pragma GCC unroll 4
  for (int t = 0; t < kTokens; ++t) {
    #pragma GCC unroll 4
    for (int c = 0; c < kChains; ++c) chains[t][c] = Isa::zero();
  }
  #pragma GCC unroll 8
  for (int step = 0; step < static_cast<int>(Q1_0TileBlock::kGroups) / kWordsPerStep; ++step) {
    Ints w[kWordsPerStep];
    #pragma GCC unroll 4
    for (int i = 0; i < kWordsPerStep; ++i) {
      w[i] = Isa::bits_as_bytes(words + (step * kWordsPerStep + i) * sizeof(std::uint64_t));
    }
    #pragma GCC unroll 4
    for (int t = 0; t < kTokens; ++t) {
      const std::int8_t* codes = x.codes[t] + b * Q1_0TileBlock::kValues + 4 * kWordsPerStep * step;
      Ints xv[kWordsPerStep];
      #pragma GCC unroll 4
      for (int i = 0; i < kWordsPerStep; ++i) {
        std::int32_t four;
        std::memcpy(&four, codes + 4 * i, sizeof four);
        xv[i] = Isa::set1(four);
      }
      Ints& chain = chains[t][step % kChains];
      chain = Isa::template dot_unsigned<kWordsPerStep>(chain, w, xv);
    }
  }
  #pragma GCC unroll 4
  for (int t = 0; t < kTokens; ++t) {
    Ints set_sums = chains[t][0];
    #pragma GCC unroll 4
    for (int c = 1; c < kChains; ++c) set_sums = Isa::add(set_sums, chains[t][c]);
    sums[t] = Isa::sub(Isa::template shift_left<1>(set_sums), Isa::set1(x.block_sums[b * kTokens + t]));
  }
}

// The first n (<= 16) rows of one tile against the kTokens prepared tokens;
// out points at the tile's first row of token 0, token t's rows out_stride
// further on.
template <typename Isa, int kTokens>
void tile_product(const Q1_0TileBlock* tile, const PreparedActivations& x, bf16* out, std::size_t out_stride,
                  std::size_t n) {
  constexpr int kParts = kVectorsPerTile<Isa>;
  typename Isa::Floats acc[kTokens][kParts];
  #pragma GCC unroll 4
  for (int t = 0; t < kTokens; ++t) {
    #pragma GCC unroll 2
    for (int part = 0; part < kParts; ++part) acc[t][part] = Isa::F32::zero();
  }
  for (std::size_t b = 0; b < x.blocks; ++b) {
    prefetch_tile_block(tile + b + kPrefetchBlocks);
    #pragma GCC unroll 2
    for (int part = 0; part < kParts; ++part) {
      typename Isa::Ints sums[kTokens];
      tile_block_sums<Isa, kTokens>(tile[b], part, x, b, sums);
      const auto d = Isa::F32::load_bf16(tile[b].d + part * Isa::kLanes);
      #pragma GCC unroll 4
      for (int t = 0; t < kTokens; ++t) acc[t][part] = acc[t][part] + d * Isa::to_floats(sums[t]);
    }
  }
  #pragma GCC unroll 2
  for (int part = 0; part < kParts; ++part) {
    const std::size_t first = static_cast<std::size_t>(part) * Isa::kLanes;
    if (first >= n) break;
    const std::size_t count = n - first < Isa::kLanes ? n - first : Isa::kLanes;
    #pragma GCC unroll 4
    for (int t = 0; t < kTokens; ++t) {
      store_lanes<Isa, 1>(acc[t][part] * Isa::F32::set1(x.scales[t]), out + t * out_stride + first, 0, count);
    }
  }
}

template <typename Isa, int kTokens>
void tile_rows(const Q1_0TileBlock* tiles, std::size_t row_blocks, const PreparedActivations& x, bf16* out,
               std::size_t out_stride, std::size_t rows) {
  constexpr std::size_t kRows = Q1_0TileBlock::kRows;
  for (std::size_t r = 0; r < rows; r += kRows) {
    const std::size_t n = rows - r < kRows ? rows - r : kRows;
    tile_product<Isa, kTokens>(tiles + r / kRows * row_blocks, x, out + r, out_stride, n);
  }
}

// The product with expanded sign words; up to four tokens share each. Kept
// out of line, like the lookup's, so that each stack frame holds only its
// own activations.
template <typename Isa>
[[gnu::noinline]] void expanded_tile_products(const Q1_0TileBlock* tiles, const std::int8_t* x,
                                              const float* x_scales, bf16* out, std::size_t out_stride,
                                              std::size_t n_tokens, std::size_t rows, std::size_t k) {
  const std::size_t row_blocks = (k + Q1_0TileBlock::kValues - 1) / Q1_0TileBlock::kValues;
  PreparedActivations prepared;
  token_passes(n_tokens, [&](std::size_t first, std::size_t tokens) {
    prepare_activations(prepared, x + first * k, x_scales + first, tokens, k, Q1_0TileBlock::kValues,
                        CodeOrder::natural);
    bf16* token_out = out + first * out_stride;
    if (tokens == 4) tile_rows<Isa, 4>(tiles, row_blocks, prepared, token_out, out_stride, rows);
    if (tokens == 2) tile_rows<Isa, 2>(tiles, row_blocks, prepared, token_out, out_stride, rows);
    if (tokens == 1) tile_rows<Isa, 1>(tiles, row_blocks, prepared, token_out, out_stride, rows);
  });
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
  if constexpr (Isa::kSignSumLookup) {
    if (lookup_takes(n_tokens, k)) {
      lookup_tile_products<Isa>(blocks, x, x_scales, out, out_stride, n_tokens, rows, k);
      return;
    }
  }
  expanded_tile_products<Isa>(blocks, x, x_scales, out, out_stride, n_tokens, rows, k);
}

}  // namespace quorvel::kernels::x86
