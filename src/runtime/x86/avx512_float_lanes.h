// Sixteen f32 lanes on AVX-512: the same vocabulary as avx2::F32x8 (see
// avx2_float_lanes.h for the rules every member keeps), with masked loads and
// stores for partial vectors and four 128-bit quarters where F32x8 has two.
//
// Included only by *_avx512.cpp files; everything sits in namespace avx512 so
// that no inline function compiled with the AVX-512 flags can stand in for
// one of another build.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"
#include "runtime/x86/intrinsics.h"

namespace quorvel::kernels::x86::avx512 {

struct F32x16 {
  using Reg = __m512;
  static constexpr std::size_t kWidth = 16;

  // The first n of sixteen lanes (n <= 16).
  static __mmask16 lanes_below(std::size_t n) { return static_cast<__mmask16>((1u << n) - 1u); }

  static Reg zero() { return _mm512_setzero_ps(); }
  static Reg set1(float v) { return _mm512_set1_ps(v); }

  static Reg load(const float* p) { return _mm512_loadu_ps(p); }
  static Reg load(const float* p, std::size_t n) { return _mm512_maskz_loadu_ps(lanes_below(n), p); }
  static void store(float* p, Reg v) { _mm512_storeu_ps(p, v); }
  static void store(float* p, Reg v, std::size_t n) { _mm512_mask_storeu_ps(p, lanes_below(n), v); }

  static Reg widen(__m256i halves) { return _mm512_castsi512_ps(_mm512_slli_epi32(_mm512_cvtepu16_epi32(halves), 16)); }
  static Reg load_bf16(const bf16* p) { return widen(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p))); }
  static Reg load_bf16(const bf16* p, std::size_t n) { return widen(_mm256_maskz_loadu_epi16(lanes_below(n), p)); }

  // The saturating rule on sixteen floats; NaN passes the clamp unchanged.
  static __m256i narrow(Reg v) {
    v = _mm512_min_ps(set1(kBf16Max), v);
    v = _mm512_max_ps(set1(-kBf16Max), v);
    const __m512i bits = _mm512_castps_si512(v);
    return _mm512_cvtepi32_epi16(_mm512_srli_epi32(_mm512_add_epi32(bits, _mm512_set1_epi32(0x8000)), 16));
  }
  static void store_bf16(bf16* p, Reg v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), narrow(v)); }
  static void store_bf16(bf16* p, Reg v, std::size_t n) { _mm256_mask_storeu_epi16(p, lanes_below(n), narrow(v)); }

  static Reg fma(Reg a, Reg b, Reg c) { return _mm512_fmadd_ps(a, b, c); }
  static Reg min(Reg a, Reg b) { return _mm512_min_ps(a, b); }
  static Reg max(Reg a, Reg b) { return _mm512_max_ps(a, b); }
  static Reg floor(Reg v) { return _mm512_roundscale_ps(v, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC); }
  static Reg abs(Reg v) {
    return _mm512_castsi512_ps(_mm512_and_si512(_mm512_castps_si512(v), _mm512_set1_epi32(0x7FFFFFFF)));
  }
  static Reg zero_nan(Reg v) { return _mm512_maskz_mov_ps(_mm512_cmp_ps_mask(v, v, _CMP_ORD_Q), v); }
  static Reg round_even(Reg v) { return _mm512_roundscale_ps(v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC); }
  static Reg pow2(Reg n) {
    const __m512i exponent = _mm512_slli_epi32(_mm512_cvtps_epi32(n), 23);
    return _mm512_castsi512_ps(_mm512_add_epi32(exponent, _mm512_set1_epi32(0x3F800000)));
  }

  static float max_lane(Reg v) { return _mm512_reduce_max_ps(v); }

  static void store_codes(std::int8_t* q, Reg v) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(q), _mm512_cvtepi32_epi8(_mm512_cvtps_epi32(v)));
  }
  static void store_codes(std::int8_t* q, Reg v, std::size_t n) {
    _mm512_mask_cvtepi32_storeu_epi8(q, lanes_below(n), _mm512_cvtps_epi32(v));
  }

  static constexpr std::size_t kQuarters = 4;
  using Ints = __m512i;
  static Ints rows_eight(const bf16* const* row, std::size_t i) {
    __m512i v = _mm512_castsi128_si512(load_eight(row[0] + i));
    v = _mm512_inserti32x4(v, load_eight(row[4] + i), 1);
    v = _mm512_inserti32x4(v, load_eight(row[8] + i), 2);
    return _mm512_inserti32x4(v, load_eight(row[12] + i), 3);
  }
  static Ints broadcast_eight(const bf16* p) { return _mm512_broadcast_i32x4(load_eight(p)); }
  static Reg first_four(Ints v) { return _mm512_castsi512_ps(_mm512_unpacklo_epi16(_mm512_setzero_si512(), v)); }
  static Reg second_four(Ints v) { return _mm512_castsi512_ps(_mm512_unpackhi_epi16(_mm512_setzero_si512(), v)); }
  static Reg interleave_low(Reg a, Reg b) { return _mm512_unpacklo_ps(a, b); }
  static Reg interleave_high(Reg a, Reg b) { return _mm512_unpackhi_ps(a, b); }
  template <int kSelect>
  static Reg pick(Reg a, Reg b) { return _mm512_shuffle_ps(a, b, kSelect); }

 private:
  static __m128i load_eight(const bf16* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
};

}  // namespace quorvel::kernels::x86::avx512
