// Lane helpers of the AVX2 products: the reduction of eight vectors of
// partial dot products into one vector of sums (one lane per weight row, or
// per row and token), the nearest-even narrowing to bf16, and the stores of
// finished lanes. AVX2 has no unsigned x signed 8-bit dot product into 32
// bits, so the products pair bytes with VPMADDUBSW (into 16 bits) and widen
// with VPMADDWD.
//
// Included only by the *_avx2.cpp files (compiled with the AVX2 flags);
// everything here sits in namespace avx2 so that no inline function compiled
// with those flags can stand in for one of the portable build.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"
#include "runtime/x86/intrinsics.h"

namespace quorvel::kernels::x86::avx2 {

inline constexpr int kLanes = 8;

// Lane i of the result = the sum of the eight 32-bit lanes of v[i].
[[gnu::always_inline]] inline __m256i sum_lanes(const __m256i (&v)[kLanes]) {
  __m256i pairs[4];
  #pragma GCC unroll 16
  for (int i = 0; i < 4; ++i) {
    pairs[i] = _mm256_add_epi32(_mm256_unpacklo_epi32(v[2 * i], v[2 * i + 1]),
                                _mm256_unpackhi_epi32(v[2 * i], v[2 * i + 1]));
  }
  __m256i quads[2];  // each 128-bit lane: partial sums of v[4i .. 4i+3]
  #pragma GCC unroll 16
  for (int i = 0; i < 2; ++i) {
    quads[i] = _mm256_add_epi32(_mm256_unpacklo_epi64(pairs[2 * i], pairs[2 * i + 1]),
                                _mm256_unpackhi_epi64(pairs[2 * i], pairs[2 * i + 1]));
  }
  return _mm256_add_epi32(_mm256_permute2x128_si256(quads[0], quads[1], 0x20),
                          _mm256_permute2x128_si256(quads[0], quads[1], 0x31));
}

// Sixteen int16 products of bytes summed pairwise, then pairs of those into
// eight 32-bit lanes: the exact dot sums of four bytes per lane.
[[gnu::always_inline]] inline __m256i widen_pairs(__m256i pair_sums) { return _mm256_madd_epi16(pair_sums, _mm256_set1_epi16(1)); }

// Byte i = bit i of `word` (0 or 1), for i in 0..31: a shuffle brings byte
// i / 8 of the word to byte i, a mask isolates bit i % 8.
[[gnu::always_inline]] inline __m256i word_bits_as_bytes(std::uint32_t word) {
  const __m256i byte_of_bit = _mm256_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1,  //
                                               2, 2, 2, 2, 2, 2, 2, 2, 3, 3, 3, 3, 3, 3, 3, 3);
  const __m256i bit_of_byte = _mm256_set1_epi64x(static_cast<long long>(0x8040201008040201ull));
  const __m256i bytes = _mm256_shuffle_epi8(_mm256_set1_epi32(static_cast<int>(word)), byte_of_bit);
  return _mm256_min_epu8(_mm256_and_si256(bytes, bit_of_byte), _mm256_set1_epi8(1));
}

// The nearest-even bf16 rule on eight floats: NaN keeps its upper half with
// the quiet bit set; everything else rounds half to even, no clamp.
[[gnu::always_inline]] inline __m128i narrow_nearest_even(__m256 v) {
  const __m256i bits = _mm256_castps_si256(v);
  const __m256i magnitude = _mm256_and_si256(bits, _mm256_set1_epi32(0x7FFFFFFF));
  const __m256i nan = _mm256_cmpgt_epi32(magnitude, _mm256_set1_epi32(0x7F800000));
  const __m256i odd = _mm256_and_si256(_mm256_srli_epi32(bits, 16), _mm256_set1_epi32(1));
  const __m256i rounded =
      _mm256_srli_epi32(_mm256_add_epi32(_mm256_add_epi32(bits, _mm256_set1_epi32(0x7FFF)), odd), 16);
  const __m256i quiet = _mm256_or_si256(_mm256_srli_epi32(bits, 16), _mm256_set1_epi32(0x40));
  const __m256i halves = _mm256_blendv_epi8(rounded, quiet, nan);  // every lane below 0x10000
  return _mm_packus_epi32(_mm256_castsi256_si128(halves), _mm256_extracti128_si256(halves, 1));
}

// Lane l belongs to row l / kTokens and token l % kTokens.
template <int kTokens>
constexpr int kRowsPerPass = kLanes / kTokens;

// Stores the lanes of the first n_rows rows: out[t * stride + r].
template <int kTokens>
void store_lanes(__m256 values, float* out, std::size_t stride, std::size_t n_rows) {
  alignas(32) float lanes[kLanes];
  _mm256_store_ps(lanes, values);
  for (std::size_t r = 0; r < n_rows; ++r) {
    #pragma GCC unroll 16
    for (int t = 0; t < kTokens; ++t) out[static_cast<std::size_t>(t) * stride + r] = lanes[r * kTokens + t];
  }
}

template <int kTokens>
void store_lanes(__m256 values, bf16* out, std::size_t stride, std::size_t n_rows) {
  alignas(16) std::uint16_t lanes[kLanes];
  _mm_store_si128(reinterpret_cast<__m128i*>(lanes), narrow_nearest_even(values));
  for (std::size_t r = 0; r < n_rows; ++r) {
    #pragma GCC unroll 16
    for (int t = 0; t < kTokens; ++t) out[static_cast<std::size_t>(t) * stride + r] = bf16{lanes[r * kTokens + t]};
  }
}

// Lane l = values[l % kTokens], for per-token values laid out token after token.
template <int kTokens>
[[gnu::always_inline]] inline __m256i broadcast_tokens(const std::int32_t* values) {
  alignas(32) std::int32_t lanes[kLanes];
  #pragma GCC unroll 16
  for (int l = 0; l < kLanes; ++l) lanes[l] = values[l % kTokens];
  return _mm256_load_si256(reinterpret_cast<const __m256i*>(lanes));
}

template <int kTokens>
[[gnu::always_inline]] inline __m256 broadcast_tokens(const float* values) {
  alignas(32) float lanes[kLanes];
  #pragma GCC unroll 16
  for (int l = 0; l < kLanes; ++l) lanes[l] = values[l % kTokens];
  return _mm256_load_ps(lanes);
}

}  // namespace quorvel::kernels::x86::avx2
