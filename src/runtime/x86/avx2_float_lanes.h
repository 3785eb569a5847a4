// Eight f32 lanes on AVX2: the vector vocabulary of the elementwise, norm,
// attention and LoRA kernels (the generic algorithms in *_lanes.h take it as
// their template parameter V; avx512_float_lanes.h is the sixteen-lane twin).
//
// bf16 loads widen exactly (the 16 bits become the high half); bf16 stores
// narrow with the saturating rule: clamp into the finite bf16 range, then
// (bits + 0x8000) >> 16. Partial loads fill the missing lanes with +0 and
// never touch memory past the n elements; partial stores write exactly n.
//
// min and max keep the instructions' own rule, which the kernels rely on to
// match the portable comparisons: min(a, b) = a < b ? a : b and
// max(a, b) = a > b ? a : b, so a NaN in a gives b and a NaN in b stays.
//
// Included only by *_avx2.cpp files and, through the AVX-VNNI trait (which
// derives a vocabulary type of its own from this one), by *_avxvnni.cpp
// files; everything sits in namespace avx2 so that no inline function
// compiled with the AVX2 flags can stand in for one of another build.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"
#include "runtime/x86/intrinsics.h"

namespace quorvel::kernels::x86::avx2 {

struct F32x8 {
  using Reg = __m256;
  static constexpr std::size_t kWidth = 8;

  static Reg zero() { return _mm256_setzero_ps(); }
  static Reg set1(float v) { return _mm256_set1_ps(v); }

  static Reg load(const float* p) { return _mm256_loadu_ps(p); }
  static Reg load(const float* p, std::size_t n) { return _mm256_maskload_ps(p, lanes_below(n)); }
  static void store(float* p, Reg v) { _mm256_storeu_ps(p, v); }
  static void store(float* p, Reg v, std::size_t n) { _mm256_maskstore_ps(p, lanes_below(n), v); }

  static Reg widen(__m128i halves) { return _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_cvtepu16_epi32(halves), 16)); }
  static Reg load_bf16(const bf16* p) { return widen(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))); }
  static Reg load_bf16(const bf16* p, std::size_t n) {
    alignas(16) std::uint16_t part[kWidth] = {};
    __builtin_memcpy(part, p, n * sizeof(bf16));
    return widen(_mm_load_si128(reinterpret_cast<const __m128i*>(part)));
  }

  // The saturating rule on eight floats; NaN passes the clamp unchanged.
  static __m128i narrow(Reg v) {
    v = _mm256_min_ps(set1(kBf16Max), v);
    v = _mm256_max_ps(set1(-kBf16Max), v);
    const __m256i halves = _mm256_srli_epi32(_mm256_add_epi32(_mm256_castps_si256(v), _mm256_set1_epi32(0x8000)), 16);
    return _mm_packus_epi32(_mm256_castsi256_si128(halves), _mm256_extracti128_si256(halves, 1));
  }
  static void store_bf16(bf16* p, Reg v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), narrow(v)); }
  static void store_bf16(bf16* p, Reg v, std::size_t n) {
    alignas(16) std::uint16_t part[kWidth];
    _mm_store_si128(reinterpret_cast<__m128i*>(part), narrow(v));
    __builtin_memcpy(p, part, n * sizeof(bf16));
  }

  static Reg fma(Reg a, Reg b, Reg c) { return _mm256_fmadd_ps(a, b, c); }
  static Reg min(Reg a, Reg b) { return _mm256_min_ps(a, b); }
  static Reg max(Reg a, Reg b) { return _mm256_max_ps(a, b); }
  static Reg floor(Reg v) { return _mm256_floor_ps(v); }
  static Reg abs(Reg v) { return _mm256_andnot_ps(set1(-0.0f), v); }
  // +0 in the lanes where v is NaN, v elsewhere.
  static Reg zero_nan(Reg v) { return _mm256_and_ps(v, _mm256_cmp_ps(v, v, _CMP_ORD_Q)); }
  static Reg round_even(Reg v) { return _mm256_round_ps(v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC); }
  // 2^n for integral n: n added to the exponent bits of 1.0 (a NaN n
  // converts to 0x80000000, whose shifted bits vanish: 1.0).
  static Reg pow2(Reg n) {
    const __m256i exponent = _mm256_slli_epi32(_mm256_cvtps_epi32(n), 23);
    return _mm256_castsi256_ps(_mm256_add_epi32(exponent, _mm256_set1_epi32(0x3F800000)));
  }

  // The largest lane; the lanes hold no NaN.
  static float max_lane(Reg v) {
    __m128 m = _mm_max_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
    m = _mm_max_ps(m, _mm_movehl_ps(m, m));
    m = _mm_max_ss(m, _mm_movehdup_ps(m));
    return _mm_cvtss_f32(m);
  }

  // Eight integral floats in [-127, 127] to int8 codes.
  static void store_codes(std::int8_t* q, Reg v) {
    const __m256i ints = _mm256_cvtps_epi32(v);
    const __m128i words = _mm_packs_epi32(_mm256_castsi256_si128(ints), _mm256_extracti128_si256(ints, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(q), _mm_packs_epi16(words, words));
  }
  static void store_codes(std::int8_t* q, Reg v, std::size_t n) {
    alignas(8) std::int8_t part[kWidth];
    store_codes(part, v);
    __builtin_memcpy(q, part, n);
  }

  // The four-lane dot products (attention scores, dot_rows_bf16) keep each
  // row's four lanes in one 128-bit quarter of a vector: quarter j of a
  // vector built from row[m] holds row[m + 4 * j].
  static constexpr std::size_t kQuarters = 2;
  using Ints = __m256i;
  static Ints rows_eight(const bf16* const* row, std::size_t i) {
    const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row[0] + i));
    return _mm256_inserti128_si256(_mm256_castsi128_si256(low),
                                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(row[4] + i)), 1);
  }
  static Ints broadcast_eight(const bf16* p) {
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
  }
  // Widened elements 0-3 and 4-7 of each quarter's eight bf16.
  static Reg first_four(Ints v) { return _mm256_castsi256_ps(_mm256_unpacklo_epi16(_mm256_setzero_si256(), v)); }
  static Reg second_four(Ints v) { return _mm256_castsi256_ps(_mm256_unpackhi_epi16(_mm256_setzero_si256(), v)); }
  // Within each quarter: lanes 0, 1 of a and b interleaved (low), or lanes
  // 2, 3 (high); two of a's lanes then two of b's, picked by kSelect.
  static Reg interleave_low(Reg a, Reg b) { return _mm256_unpacklo_ps(a, b); }
  static Reg interleave_high(Reg a, Reg b) { return _mm256_unpackhi_ps(a, b); }
  template <int kSelect>
  static Reg pick(Reg a, Reg b) { return _mm256_shuffle_ps(a, b, kSelect); }

 private:
  static __m256i lanes_below(std::size_t n) {
    return _mm256_cmpgt_epi32(_mm256_set1_epi32(static_cast<int>(n)), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
  }
};

}  // namespace quorvel::kernels::x86::avx2
