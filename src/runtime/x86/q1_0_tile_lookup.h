// The single-token q1_0_128 tile product of the 256-bit sets, by table
// lookup. A tile's sign word g (formats/q1_0_tiles.h) is sixteen 4-bit
// indices, row r's in bits 4r .. 4r + 3, all into the same sixteen signed
// sums of the activations 4g .. 4g + 3: entry i = sum over j of (bit j of i
// ? +x[4g + j] : -x[4g + j]). Built once per token, the entries (|e| <= 512)
// split into a table of low bytes and one of high bytes, which VPSHUFB looks
// up sixteen rows at a time; a byte interleave joins the halves into 16-bit
// sums. A block's 32 words add up to at most 32 * 512 in magnitude, so the
// 16-bit sums are exact and are S_b itself, with no block-sum correction.
// The f32 accumulation then runs as everywhere else: one accumulator per
// row, acc + d_b * (float)S_b in block order, then times the token's scale.
//
// Lane order: a 128-bit lane looks up one word, its low nibbles (rows 0, 2,
// ..., 14) in bytes 0-7 and its high nibbles (rows 1, 3, ..., 15) in bytes
// 8-15, so the sums and accumulators keep the even rows and the odd rows
// apart, each in row order; the two are interleaved once, at the store.
//
// Used by a lane trait that sets kSignSumLookup (the 256-bit ones).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "runtime/formats/q1_0_tiles.h"
#include "runtime/x86/intrinsics.h"
#include "runtime/x86/lane_passes.h"

namespace quorvel::kernels::x86 {
namespace {

using formats::Q1_0TileBlock;

// One token's tables. Four consecutive groups 4q .. 4q + 3 of a block take
// 128 bytes: the low-byte tables of groups 4q and 4q + 2 side by side (one
// vector, a group per 128-bit lane), their high-byte tables, then the same
// for groups 4q + 1 and 4q + 3: the order in which the words of one 32-byte
// load of sign words pair up with them.
struct SignSumTables {
  // The longest row the lookup takes (the tables live on the stack).
  static constexpr std::size_t kMaxValues = 8192;
  static constexpr std::size_t kBlockBytes = Q1_0TileBlock::kGroups * 32;
  alignas(64) std::uint8_t bytes[kMaxValues / Q1_0TileBlock::kValues * kBlockBytes];
};

// Byte pair of 16-bit lane i: +1 or -1 by bit kBit of i, then by bit kBit + 1.
template <typename Isa, int kBit>
[[gnu::always_inline]] inline __m256i sign_pairs() {
  alignas(32) std::int8_t pairs[32];
  for (int i = 0; i < 16; ++i) {
    pairs[2 * i] = (i >> kBit & 1) != 0 ? 1 : -1;
    pairs[2 * i + 1] = (i >> (kBit + 1) & 1) != 0 ? 1 : -1;
  }
  return _mm256_load_si256(reinterpret_cast<const __m256i*>(pairs));
}

// The sixteen sums of one group as 16-bit lanes in entry order. VPMADDUBSW
// wants unsigned bytes, so the codes go in as x + 128 against the +-1 pairs,
// and the 128 * (sum of the signs) that adds comes off again (`bias`).
template <typename Isa>
[[gnu::always_inline]] inline __m256i group_sums(const std::int8_t* four, __m256i low_signs, __m256i high_signs,
                                                 __m256i bias) {
  std::uint32_t codes;
  std::memcpy(&codes, four, sizeof codes);
  codes ^= 0x80808080u;
  const __m256i low = _mm256_set1_epi16(static_cast<short>(codes & 0xFFFF));
  const __m256i high = _mm256_set1_epi16(static_cast<short>(codes >> 16));
  const __m256i sums = _mm256_add_epi16(_mm256_maddubs_epi16(low, low_signs), _mm256_maddubs_epi16(high, high_signs));
  return _mm256_sub_epi16(sums, bias);
}

// Stores the low-byte tables of groups a and b (one per 128-bit lane), then
// their high-byte tables.
template <typename Isa>
[[gnu::always_inline]] inline void store_table_pair(__m256i a, __m256i b, std::uint8_t* out) {
  // Within each 128-bit lane: the low bytes of the eight entries, then the high bytes.
  const __m256i split = _mm256_setr_epi8(0, 2, 4, 6, 8, 10, 12, 14, 1, 3, 5, 7, 9, 11, 13, 15,  //
                                         0, 2, 4, 6, 8, 10, 12, 14, 1, 3, 5, 7, 9, 11, 13, 15);
  const __m256i sa = _mm256_shuffle_epi8(a, split), sb = _mm256_shuffle_epi8(b, split);
  _mm256_store_si256(reinterpret_cast<__m256i*>(out), _mm256_permute4x64_epi64(_mm256_unpacklo_epi64(sa, sb), 0xD8));
  _mm256_store_si256(reinterpret_cast<__m256i*>(out + 32),
                     _mm256_permute4x64_epi64(_mm256_unpackhi_epi64(sa, sb), 0xD8));
}

// The tables of the first k (<= kMaxValues) codes of x; a last partial block
// reads zeros past k, whose sums are zero.
template <typename Isa>
void build_sign_sum_tables(const std::int8_t* x, std::size_t k, SignSumTables& tables) {
  const __m256i low_signs = sign_pairs<Isa, 0>(), high_signs = sign_pairs<Isa, 2>();
  alignas(32) std::int16_t bias_lanes[16];
  for (int i = 0; i < 16; ++i) bias_lanes[i] = static_cast<std::int16_t>(256 * __builtin_popcount(i) - 512);
  const __m256i bias = _mm256_load_si256(reinterpret_cast<const __m256i*>(bias_lanes));
  alignas(16) std::int8_t tail[Q1_0TileBlock::kValues];
  for (std::size_t first = 0, b = 0; first < k; first += Q1_0TileBlock::kValues, ++b) {
    const std::int8_t* codes = x + first;
    if (k - first < Q1_0TileBlock::kValues) {
      std::memset(tail, 0, sizeof tail);
      std::memcpy(tail, codes, k - first);
      codes = tail;
    }
    std::uint8_t* out = tables.bytes + b * SignSumTables::kBlockBytes;
    #pragma GCC unroll 2
    for (std::size_t q = 0; q < Q1_0TileBlock::kGroups / 4; ++q) {
      __m256i sums[4];
      #pragma GCC unroll 4
      for (int i = 0; i < 4; ++i) sums[i] = group_sums<Isa>(codes + 16 * q + 4 * i, low_signs, high_signs, bias);
      store_table_pair<Isa>(sums[0], sums[2], out + 128 * q);
      store_table_pair<Isa>(sums[1], sums[3], out + 128 * q + 64);
    }
  }
}

// Adds the sums that two words' indices (one word per 128-bit lane) look up
// in their groups' tables to the even- and odd-row 16-bit sums.
template <typename Isa>
[[gnu::always_inline]] inline void add_lookups(__m256i indices, const std::uint8_t* table, __m256i& even,
                                               __m256i& odd) {
  const __m256i low = _mm256_shuffle_epi8(_mm256_load_si256(reinterpret_cast<const __m256i*>(table)), indices);
  const __m256i high = _mm256_shuffle_epi8(_mm256_load_si256(reinterpret_cast<const __m256i*>(table + 32)), indices);
  even = _mm256_add_epi16(even, _mm256_unpacklo_epi8(low, high));
  odd = _mm256_add_epi16(odd, _mm256_unpackhi_epi8(low, high));
}

// S_b of the even rows 0, 2, ..., 14 and of the odd rows 1, 3, ..., 15 of
// one tile block, as 32-bit lanes in row order.
template <typename Isa>
[[gnu::always_inline]] inline void lookup_block_sums(const Q1_0TileBlock& block, const std::uint8_t* tables,
                                                     __m256i& even, __m256i& odd) {
  const __m256i nibble = _mm256_set1_epi8(0x0F);
  __m256i even16 = _mm256_setzero_si256(), odd16 = _mm256_setzero_si256();
  #pragma GCC unroll 8
  for (std::size_t q = 0; q < Q1_0TileBlock::kGroups / 4; ++q) {
    const __m256i words = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block.signs + 4 * q));
    const __m256i low = _mm256_and_si256(words, nibble);
    const __m256i high = _mm256_and_si256(_mm256_srli_epi16(words, 4), nibble);
    add_lookups<Isa>(_mm256_unpacklo_epi64(low, high), tables + 128 * q, even16, odd16);
    add_lookups<Isa>(_mm256_unpackhi_epi64(low, high), tables + 128 * q + 64, even16, odd16);
  }
  // Each half summed the words of one 128-bit lane; their sum is the block's.
  const __m256i sums = _mm256_add_epi16(_mm256_permute2x128_si256(even16, odd16, 0x20),
                                        _mm256_permute2x128_si256(even16, odd16, 0x31));
  even = _mm256_cvtepi16_epi32(_mm256_castsi256_si128(sums));
  odd = _mm256_cvtepi16_epi32(_mm256_extracti128_si256(sums, 1));
}

// The first n (<= 16) rows of one tile against the token whose tables these are.
template <typename Isa>
void lookup_tile_product(const Q1_0TileBlock* tile, std::size_t blocks, const SignSumTables& tables, float scale,
                         bf16* out, std::size_t n) {
  using F32 = typename Isa::F32;
  typename Isa::Floats even_acc = F32::zero(), odd_acc = F32::zero();
  for (std::size_t b = 0; b < blocks; ++b) {
    __m256i even, odd;
    lookup_block_sums<Isa>(tile[b], tables.bytes + b * SignSumTables::kBlockBytes, even, odd);
    // Scale pairs: the even row's bf16 in the low half of each 32-bit word, the odd row's in the high half.
    const __m256i d = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(tile[b].d));
    const auto d_even = _mm256_castsi256_ps(_mm256_slli_epi32(d, 16));
    const auto d_odd = _mm256_castsi256_ps(_mm256_and_si256(d, _mm256_set1_epi32(static_cast<int>(0xFFFF0000u))));
    even_acc = even_acc + d_even * _mm256_cvtepi32_ps(even);
    odd_acc = odd_acc + d_odd * _mm256_cvtepi32_ps(odd);
  }
  even_acc = even_acc * F32::set1(scale);
  odd_acc = odd_acc * F32::set1(scale);
  const __m256 low = _mm256_unpacklo_ps(even_acc, odd_acc), high = _mm256_unpackhi_ps(even_acc, odd_acc);
  store_lanes<Isa, 1>(_mm256_permute2f128_ps(low, high, 0x20), out, 0, n < 8 ? n : 8);
  if (n > 8) store_lanes<Isa, 1>(_mm256_permute2f128_ps(low, high, 0x31), out + 8, 0, n - 8);
}

// One token's product over `rows` rows of tiles, k (<= kMaxValues) long.
template <typename Isa>
void lookup_tile_rows(const Q1_0TileBlock* tiles, const std::int8_t* x, float scale, bf16* out, std::size_t rows,
                      std::size_t k) {
  SignSumTables tables;
  build_sign_sum_tables<Isa>(x, k, tables);
  const std::size_t blocks = (k + Q1_0TileBlock::kValues - 1) / Q1_0TileBlock::kValues;
  for (std::size_t r = 0; r < rows; r += Q1_0TileBlock::kRows) {
    const std::size_t n = rows - r < Q1_0TileBlock::kRows ? rows - r : Q1_0TileBlock::kRows;
    lookup_tile_product<Isa>(tiles + r / Q1_0TileBlock::kRows * blocks, blocks, tables, scale, out + r, n);
  }
}

}  // namespace
}  // namespace quorvel::kernels::x86
