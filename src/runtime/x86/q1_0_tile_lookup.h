// The q1_0_128 tile product of the 256-bit sets, by table lookup. A tile's sign word g (formats/q1_0_tiles.h) is sixteen 4-bit
// indices, row r's in bits 4r .. 4r + 3, all into the same sixteen signed
// sums of the activations 4g .. 4g + 3: entry i = sum over j of (bit j of i
// ? +x[4g + j] : -x[4g + j]). Built once per token, the entries (|e| <= 512)
// split into a table of low bytes and one of high bytes, which VPSHUFB looks
// up sixteen rows at a time; a byte interleave joins the halves into 16-bit
// sums. A block's 32 words add up to at most 32 * 512 in magnitude, so the
// 16-bit sums are exact and are S_b itself, with no block-sum correction.
// The f32 accumulation then runs as everywhere else: one accumulator per
// row, acc + d_b * (float)S_b in block order, then times the token's scale.
// Several tokens share each split sign word, each with tables of its own.
//
// Lane order: a 128-bit lane looks up one word, its low nibbles (rows 0, 2,
// ..., 14) in bytes 0-7 and its high nibbles (rows 1, 3, ..., 15) in bytes
// 8-15, so the sums and accumulators keep the even rows and the odd rows
// apart, each in row order; the two are interleaved once, at the store.
//
// Used by the lane traits that set kSignSumLookup (the 256-bit ones); the
// Isa parameter of the helpers only keeps each instruction set's copy apart.
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

// The tables of up to four tokens; block b of token t at (b * tokens + t) *
// kBlockBytes, so that a tile block's tokens read neighbouring tables. Four
// consecutive groups 4q .. 4q + 3 of a block take 128 bytes: the low-byte
// tables of groups 4q and 4q + 2 side by side (one vector, a group per
// 128-bit lane), their high-byte tables, then the same for groups 4q + 1 and
// 4q + 3: the order in which the words of one 32-byte load of sign words
// pair up with them.
struct SignSumTables {
  static constexpr std::size_t kBlockBytes = Q1_0TileBlock::kGroups * 32;
  // 64 KB on the stack: one token's rows up to 8192 codes, four tokens' up to 2048.
  static constexpr std::size_t kMaxBlocks = 64;
  alignas(64) std::uint8_t bytes[kMaxBlocks * kBlockBytes];

  static bool fit(std::size_t tokens, std::size_t k) {
    return tokens * ((k + Q1_0TileBlock::kValues - 1) / Q1_0TileBlock::kValues) <= kMaxBlocks;
  }
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

// The tables of `tokens` rows of k codes, row t at x + t * k (fit(tokens,
// k) holds); a last partial block reads zeros past k, whose sums are zero.
template <typename Isa>
void build_sign_sum_tables(const std::int8_t* x, std::size_t tokens, std::size_t k, SignSumTables& tables) {
  const __m256i low_signs = sign_pairs<Isa, 0>(), high_signs = sign_pairs<Isa, 2>();
  alignas(32) std::int16_t bias_lanes[16];
  for (int i = 0; i < 16; ++i) bias_lanes[i] = static_cast<std::int16_t>(256 * __builtin_popcount(i) - 512);
  const __m256i bias = _mm256_load_si256(reinterpret_cast<const __m256i*>(bias_lanes));
  alignas(16) std::int8_t tail[Q1_0TileBlock::kValues];
  for (std::size_t t = 0; t < tokens; ++t) {
    for (std::size_t first = 0, b = 0; first < k; first += Q1_0TileBlock::kValues, ++b) {
      const std::int8_t* codes = x + t * k + first;
      if (k - first < Q1_0TileBlock::kValues) {
        std::memset(tail, 0, sizeof tail);
        std::memcpy(tail, codes, k - first);
        codes = tail;
      }
      std::uint8_t* out = tables.bytes + (b * tokens + t) * SignSumTables::kBlockBytes;
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
// one tile block against each token, as 32-bit lanes in row order; `tables`
// points at the block's tables of token 0. The words' indices are split
// once for all the tokens.
template <typename Isa, int kTokens>
[[gnu::always_inline]] inline void lookup_block_sums(const Q1_0TileBlock& block, const std::uint8_t* tables,
                                                     __m256i (&even)[kTokens], __m256i (&odd)[kTokens]) {
  const __m256i nibble = _mm256_set1_epi8(0x0F);
  __m256i even16[kTokens], odd16[kTokens];
  #pragma GCC unroll 4
  for (int t = 0; t < kTokens; ++t) even16[t] = odd16[t] = _mm256_setzero_si256();
  #pragma GCC unroll 8
  for (std::size_t q = 0; q < Q1_0TileBlock::kGroups / 4; ++q) {
    const __m256i words = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block.signs + 4 * q));
    const __m256i low = _mm256_and_si256(words, nibble);
    const __m256i high = _mm256_and_si256(_mm256_srli_epi16(words, 4), nibble);
    const __m256i first = _mm256_unpacklo_epi64(low, high), second = _mm256_unpackhi_epi64(low, high);
    #pragma GCC unroll 4
    for (int t = 0; t < kTokens; ++t) {
      const std::uint8_t* table = tables + t * SignSumTables::kBlockBytes + 128 * q;
      add_lookups<Isa>(first, table, even16[t], odd16[t]);
      add_lookups<Isa>(second, table + 64, even16[t], odd16[t]);
    }
  }
  // Each half summed the words of one 128-bit lane; their sum is the block's.
  #pragma GCC unroll 4
  for (int t = 0; t < kTokens; ++t) {
    const __m256i sums = _mm256_add_epi16(_mm256_permute2x128_si256(even16[t], odd16[t], 0x20),
                                          _mm256_permute2x128_si256(even16[t], odd16[t], 0x31));
    even[t] = _mm256_cvtepi16_epi32(_mm256_castsi256_si128(sums));
    odd[t] = _mm256_cvtepi16_epi32(_mm256_extracti128_si256(sums, 1));
  }
}

// Each tile block fetches the block this far ahead (the next tile's follow
// the last): the lookups keep the load ports busy with the tables, and
// without the hint a decode step streaming the weights from memory took
// about 30 % longer; 8 blocks gained less, 32 no more.
inline constexpr std::size_t kPrefetchBlocks = 16;

inline void prefetch_tile_block(const Q1_0TileBlock* block) {
  const auto* bytes = reinterpret_cast<const char*>(block);
  #pragma GCC unroll 5
  for (std::size_t line = 0; line < sizeof(Q1_0TileBlock); line += 64) __builtin_prefetch(bytes + line, 0, 3);
}

// The first n (<= 16) rows of one tile against the kTokens tokens whose
// tables these are; out points at the tile's first row of token 0, token
// t's rows out_stride further on.
template <typename Isa, int kTokens>
void lookup_tile_product(const Q1_0TileBlock* tile, std::size_t blocks, const SignSumTables& tables,
                         const float* scales, bf16* out, std::size_t out_stride, std::size_t n) {
  using F32 = typename Isa::F32;
  typename Isa::Floats even_acc[kTokens], odd_acc[kTokens];
  #pragma GCC unroll 4
  for (int t = 0; t < kTokens; ++t) even_acc[t] = odd_acc[t] = F32::zero();
  for (std::size_t b = 0; b < blocks; ++b) {
    prefetch_tile_block(tile + b + kPrefetchBlocks);
    __m256i even[kTokens], odd[kTokens];
    lookup_block_sums<Isa, kTokens>(tile[b], tables.bytes + b * kTokens * SignSumTables::kBlockBytes, even, odd);
    // Scale pairs: the even row's bf16 in the low half of each 32-bit word, the odd row's in the high half.
    const __m256i d = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(tile[b].d));
    const auto d_even = _mm256_castsi256_ps(_mm256_slli_epi32(d, 16));
    const auto d_odd = _mm256_castsi256_ps(_mm256_and_si256(d, _mm256_set1_epi32(static_cast<int>(0xFFFF0000u))));
    #pragma GCC unroll 4
    for (int t = 0; t < kTokens; ++t) {
      even_acc[t] = even_acc[t] + d_even * _mm256_cvtepi32_ps(even[t]);
      odd_acc[t] = odd_acc[t] + d_odd * _mm256_cvtepi32_ps(odd[t]);
    }
  }
  #pragma GCC unroll 4
  for (int t = 0; t < kTokens; ++t) {
    const auto scale = F32::set1(scales[t]);
    const __m256 low = _mm256_unpacklo_ps(even_acc[t] * scale, odd_acc[t] * scale);
    const __m256 high = _mm256_unpackhi_ps(even_acc[t] * scale, odd_acc[t] * scale);
    bf16* token_out = out + t * out_stride;
    store_lanes<Isa, 1>(_mm256_permute2f128_ps(low, high, 0x20), token_out, 0, n < 8 ? n : 8);
    if (n > 8) store_lanes<Isa, 1>(_mm256_permute2f128_ps(low, high, 0x31), token_out + 8, 0, n - 8);
  }
}

template <typename Isa, int kTokens>
void lookup_tile_rows(const Q1_0TileBlock* tiles, const SignSumTables& tables, const float* scales, bf16* out,
                      std::size_t out_stride, std::size_t rows, std::size_t k) {
  const std::size_t blocks = (k + Q1_0TileBlock::kValues - 1) / Q1_0TileBlock::kValues;
  for (std::size_t r = 0; r < rows; r += Q1_0TileBlock::kRows) {
    const std::size_t n = rows - r < Q1_0TileBlock::kRows ? rows - r : Q1_0TileBlock::kRows;
    lookup_tile_product<Isa, kTokens>(tiles + r / Q1_0TileBlock::kRows * blocks, blocks, tables, scales, out + r,
                                      out_stride, n);
  }
}

// Whether the lookup takes a product of n_tokens rows of k codes: the tables
// of one token, or of two when there are several, fit. (Passes of two stream
// the weights twice as often as passes of four, and still run faster than the
// expanded bits do; passes of one would stream them once per token.)
inline bool lookup_takes(std::size_t n_tokens, std::size_t k) {
  return SignSumTables::fit(n_tokens < 2 ? 1 : 2, k);
}

// The product of n_tokens rows of k codes (lookup_takes holds), in passes of
// four tokens where their tables fit, else two, then one for the last; each
// pass builds its tables first. Kept out of line, so that the tables' stack
// frame is its own.
template <typename Isa>
[[gnu::noinline]] void lookup_tile_products(const Q1_0TileBlock* tiles, const std::int8_t* x, const float* scales,
                                            bf16* out, std::size_t out_stride, std::size_t n_tokens,
                                            std::size_t rows, std::size_t k) {
  SignSumTables tables;
  const std::size_t widest = SignSumTables::fit(4, k) ? 4 : 2;
  for (std::size_t first = 0; first < n_tokens;) {
    const std::size_t left = n_tokens - first;
    const std::size_t tokens = left >= widest ? widest : left >= 2 ? 2 : 1;
    build_sign_sum_tables<Isa>(x + first * k, tokens, k, tables);
    bf16* token_out = out + first * out_stride;
    if (tokens == 4) lookup_tile_rows<Isa, 4>(tiles, tables, scales + first, token_out, out_stride, rows, k);
    if (tokens == 2) lookup_tile_rows<Isa, 2>(tiles, tables, scales + first, token_out, out_stride, rows, k);
    if (tokens == 1) lookup_tile_rows<Isa, 1>(tiles, tables, scales + first, token_out, out_stride, rows, k);
    first += tokens;
  }
}

}  // namespace
}  // namespace quorvel::kernels::x86
