// Lane helpers of the AVX-512 products: the reductions that turn sixteen
// vectors of partial dot products into one vector of sums (one lane per
// weight row, or per row and token), the nearest-even narrowing to bf16, and
// the stores of finished lanes.
//
// Included only by the *_avx512.cpp files, which are compiled with the
// AVX-512 flags; everything here sits in namespace avx512 so that no inline
// function compiled with those flags can stand in for one of the portable
// build.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"
#include "runtime/x86/intrinsics.h"

namespace quorvel::kernels::x86::avx512 {

inline constexpr int kLanes = 16;

// pairs[i] holds, in each 128-bit lane L, the partial sums of v[4i .. 4i+3]
// over that lane's four elements (the first two levels of both reductions).
[[gnu::always_inline]] inline void sum_within_128(const __m512i (&v)[kLanes], __m512i (&quads)[4]) {
  __m512i pairs[8];
  #pragma GCC unroll 16
  for (int i = 0; i < 8; ++i) {
    pairs[i] = _mm512_add_epi32(_mm512_unpacklo_epi32(v[2 * i], v[2 * i + 1]),
                                _mm512_unpackhi_epi32(v[2 * i], v[2 * i + 1]));
  }
  #pragma GCC unroll 16
  for (int i = 0; i < 4; ++i) {
    quads[i] = _mm512_add_epi32(_mm512_unpacklo_epi64(pairs[2 * i], pairs[2 * i + 1]),
                                _mm512_unpackhi_epi64(pairs[2 * i], pairs[2 * i + 1]));
  }
}

// a's 128-bit lanes picked by (i0, i1) then b's by (i2, i3).
template <int kSelect>
[[gnu::always_inline]] inline __m512i lanes_of(__m512i a, __m512i b) {
  return _mm512_shuffle_i64x2(a, b, kSelect);
}

// Lane i of the result = the sum of the sixteen 32-bit lanes of v[i].
[[gnu::always_inline]] inline __m512i sum_lanes(const __m512i (&v)[kLanes]) {
  __m512i q[4];
  sum_within_128(v, q);
  const __m512i h0 = _mm512_add_epi32(lanes_of<_MM_SHUFFLE(1, 0, 1, 0)>(q[0], q[1]),
                                      lanes_of<_MM_SHUFFLE(3, 2, 3, 2)>(q[0], q[1]));
  const __m512i h1 = _mm512_add_epi32(lanes_of<_MM_SHUFFLE(1, 0, 1, 0)>(q[2], q[3]),
                                      lanes_of<_MM_SHUFFLE(3, 2, 3, 2)>(q[2], q[3]));
  return _mm512_add_epi32(lanes_of<_MM_SHUFFLE(2, 0, 2, 0)>(h0, h1), lanes_of<_MM_SHUFFLE(3, 1, 3, 1)>(h0, h1));
}

// Lane i of `low` = the sum of the low eight 32-bit lanes of v[i]; of `high`,
// of its high eight (for vectors that carry two blocks or two rows).
[[gnu::always_inline]] inline void sum_halves(const __m512i (&v)[kLanes], __m512i& low, __m512i& high) {
  __m512i q[4];
  sum_within_128(v, q);
  const __m512i h0 = _mm512_add_epi32(lanes_of<_MM_SHUFFLE(2, 0, 2, 0)>(q[0], q[1]),
                                      lanes_of<_MM_SHUFFLE(3, 1, 3, 1)>(q[0], q[1]));
  const __m512i h1 = _mm512_add_epi32(lanes_of<_MM_SHUFFLE(2, 0, 2, 0)>(q[2], q[3]),
                                      lanes_of<_MM_SHUFFLE(3, 1, 3, 1)>(q[2], q[3]));
  low = lanes_of<_MM_SHUFFLE(2, 0, 2, 0)>(h0, h1);
  high = lanes_of<_MM_SHUFFLE(3, 1, 3, 1)>(h0, h1);
}

// The nearest-even bf16 rule on sixteen floats: NaN keeps its upper half
// with the quiet bit set; everything else rounds half to even, no clamp.
[[gnu::always_inline]] inline __m256i narrow_nearest_even(__m512 v) {
  const __m512i bits = _mm512_castps_si512(v);
  const __m512i magnitude = _mm512_and_si512(bits, _mm512_set1_epi32(0x7FFFFFFF));
  const __mmask16 nan = _mm512_cmpgt_epi32_mask(magnitude, _mm512_set1_epi32(0x7F800000));
  const __m512i odd = _mm512_and_si512(_mm512_srli_epi32(bits, 16), _mm512_set1_epi32(1));
  const __m512i rounded =
      _mm512_srli_epi32(_mm512_add_epi32(_mm512_add_epi32(bits, _mm512_set1_epi32(0x7FFF)), odd), 16);
  const __m512i quiet = _mm512_or_si512(_mm512_srli_epi32(bits, 16), _mm512_set1_epi32(0x40));
  return _mm512_cvtepi32_epi16(_mm512_mask_blend_epi32(nan, rounded, quiet));
}

// Lane l belongs to row l / kTokens and token l % kTokens.
template <int kTokens>
constexpr int kRowsPerPass = kLanes / kTokens;

// Stores the lanes of the first n_rows rows: out[t * stride + r].
template <int kTokens>
void store_lanes(__m512 values, float* out, std::size_t stride, std::size_t n_rows) {
  if constexpr (kTokens == 1) {
    _mm512_mask_storeu_ps(out, static_cast<__mmask16>((1u << n_rows) - 1), values);
  } else {
    alignas(64) float lanes[kLanes];
    _mm512_store_ps(lanes, values);
    for (std::size_t r = 0; r < n_rows; ++r) {
      #pragma GCC unroll 16
      for (int t = 0; t < kTokens; ++t) out[static_cast<std::size_t>(t) * stride + r] = lanes[r * kTokens + t];
    }
  }
}

template <int kTokens>
void store_lanes(__m512 values, bf16* out, std::size_t stride, std::size_t n_rows) {
  const __m256i narrowed = narrow_nearest_even(values);
  if constexpr (kTokens == 1) {
    _mm256_mask_storeu_epi16(out, static_cast<__mmask16>((1u << n_rows) - 1), narrowed);
  } else {
    alignas(32) std::uint16_t lanes[kLanes];
    _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), narrowed);
    for (std::size_t r = 0; r < n_rows; ++r) {
      #pragma GCC unroll 16
      for (int t = 0; t < kTokens; ++t) out[static_cast<std::size_t>(t) * stride + r] = bf16{lanes[r * kTokens + t]};
    }
  }
}

// Lane l = values[l % kTokens], for per-token sums laid out token after token.
template <int kTokens>
[[gnu::always_inline]] inline __m512i broadcast_tokens(const std::int32_t* values) {
  if constexpr (kTokens == 1) return _mm512_set1_epi32(values[0]);
  if constexpr (kTokens == 2) {
    std::int64_t pair;
    __builtin_memcpy(&pair, values, sizeof pair);
    return _mm512_set1_epi64(pair);
  }
  if constexpr (kTokens == 4) return _mm512_broadcast_i32x4(_mm_loadu_si128(reinterpret_cast<const __m128i*>(values)));
}

template <int kTokens>
[[gnu::always_inline]] inline __m512 broadcast_tokens(const float* values) {
  std::int32_t bits[kTokens];
  __builtin_memcpy(bits, values, sizeof bits);
  return _mm512_castsi512_ps(broadcast_tokens<kTokens>(bits));
}

}  // namespace quorvel::kernels::x86::avx512
