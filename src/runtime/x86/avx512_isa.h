// The AVX-512 lane trait (F/BW/VL with VNNI): sixteen 32-bit lanes per
// vector, and the operations the generic x86 drivers build on. What this set
// does that AVX2 cannot shows in the trait: VPDPBUSD multiplies unsigned by
// signed bytes straight into 32-bit lanes (signed weights are flipped to
// w + 128 and 128 * sum(x) comes off the sums), a vector holds two 32-value
// blocks or two tile rows, and partial stores take a mask.
//
// Included only by *_avx512.cpp files (compiled with the AVX-512 flags).
// Every function sits in namespace avx512, and every generic template takes
// this trait as a parameter, so that nothing compiled with these flags can
// stand in for code of another build (isa_symbols_check.sh holds the build
// to it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "runtime/bf16.h"
#include "runtime/x86/avx512_float_lanes.h"
#include "runtime/x86/avx512_q1_expansion.h"
#include "runtime/x86/intrinsics.h"

namespace quorvel::kernels::x86::avx512 {

struct Isa {
  static constexpr const char* kName = "avx512";
  using Ints = __m512i;
  using Floats = __m512;
  using F32 = F32x16;
  using Q1Expansion = avx512::Q1Expansion;
  static constexpr int kLanes = 16;
  static constexpr std::size_t kVectorBytes = 64;
  static constexpr bool kMaskedStores = true;
  // The sign bits expand to bytes in one masked move, so the tile product
  // needs no sum tables.
  static constexpr bool kSignSumLookup = false;

  [[gnu::always_inline]] static Ints zero() { return _mm512_setzero_si512(); }
  [[gnu::always_inline]] static Ints set1(std::int32_t v) { return _mm512_set1_epi32(v); }
  [[gnu::always_inline]] static Ints load(const void* p) { return _mm512_load_si512(p); }
  [[gnu::always_inline]] static Ints loadu(const void* p) { return _mm512_loadu_si512(p); }
  [[gnu::always_inline]] static Ints add(Ints a, Ints b) { return _mm512_add_epi32(a, b); }
  [[gnu::always_inline]] static Ints sub(Ints a, Ints b) { return _mm512_sub_epi32(a, b); }
  [[gnu::always_inline]] static Ints mul(Ints a, Ints b) { return _mm512_mullo_epi32(a, b); }
  template <int kBits>
  [[gnu::always_inline]] static Ints shift_left(Ints v) { return _mm512_slli_epi32(v, kBits); }
  template <int kBits>
  [[gnu::always_inline]] static Ints shift_right(Ints v) { return _mm512_srli_epi32(v, kBits); }
  [[gnu::always_inline]] static Floats to_floats(Ints v) { return _mm512_cvtepi32_ps(v); }
  [[gnu::always_inline]] static Floats as_floats(Ints v) { return _mm512_castsi512_ps(v); }
  [[gnu::always_inline]] static Ints gather_words(const std::uint8_t* base, Ints offsets) {
    return _mm512_i32gather_epi32(offsets, base, 1);
  }

  // The 32-byte pieces part(0) and, when kParts is 2, part(1) (else zeros).
  template <int kParts, typename Part>
  [[gnu::always_inline]] static Ints join_parts(Part part) {
    const __m256i second = kParts == 2 ? part(1) : _mm256_setzero_si256();
    return _mm512_inserti64x4(_mm512_castsi256_si512(part(0)), second, 1);
  }
  [[gnu::always_inline]] static Ints load_in_every_piece(const void* p) {
    return _mm512_broadcast_i64x4(_mm256_loadu_si256(static_cast<const __m256i*>(p)));
  }

  // Lane i of the result = the sum of the sixteen 32-bit lanes of v[i].
  [[gnu::always_inline]] static Ints sum_lanes(const Ints (&v)[kLanes]) {
    Ints h[2];
    sum_within_256<_MM_SHUFFLE(1, 0, 1, 0), _MM_SHUFFLE(3, 2, 3, 2)>(v, h);
    return _mm512_add_epi32(lanes_of<_MM_SHUFFLE(2, 0, 2, 0)>(h[0], h[1]),
                            lanes_of<_MM_SHUFFLE(3, 1, 3, 1)>(h[0], h[1]));
  }

  // Lane i of `low` = the sum of the low eight 32-bit lanes of v[i]; of
  // `high`, of its high eight (for vectors that carry two blocks or two rows).
  [[gnu::always_inline]] static void sum_halves(const Ints (&v)[kLanes], Ints& low, Ints& high) {
    Ints h[2];
    sum_within_256<_MM_SHUFFLE(2, 0, 2, 0), _MM_SHUFFLE(3, 1, 3, 1)>(v, h);
    low = lanes_of<_MM_SHUFFLE(2, 0, 2, 0)>(h[0], h[1]);
    high = lanes_of<_MM_SHUFFLE(3, 1, 3, 1)>(h[0], h[1]);
  }

  // acc + the dot sums of four unsigned bytes of w[i] with four signed bytes
  // of x[i] per lane, over i < kCount, exact in 32 bits.
  template <int kCount>
  [[gnu::always_inline]] static Ints dot_unsigned(Ints acc, const Ints* w, const Ints* x) {
    #pragma GCC unroll 16
    for (int i = 0; i < kCount; ++i) acc = _mm512_dpbusd_epi32(acc, w[i], x[i]);
    return acc;
  }

  // Signed weight bytes flipped to w + 128, VPDPBUSD's unsigned operand; the
  // flip adds 128 * sum(x) to every sum, which signed_sums takes off again.
  // The 32-bit lanes may wrap on the way, but the exact sum fits 32 bits, so
  // the wrapped arithmetic ends on it.
  struct SignedCodes {
    Ints flipped;
  };
  [[gnu::always_inline]] static SignedCodes signed_codes(Ints codes) {
    return {_mm512_xor_si512(codes, _mm512_set1_epi8(static_cast<char>(0x80)))};
  }
  [[gnu::always_inline]] static Ints dot_signed(Ints acc, const SignedCodes& w, Ints x) {
    return _mm512_dpbusd_epi32(acc, w.flipped, x);
  }
  [[gnu::always_inline]] static Ints signed_sums(Ints dots, Ints x_sums) {
    return _mm512_sub_epi32(dots, _mm512_slli_epi32(x_sums, 7));
  }

  // Byte i = bit i of the little-endian bits at p (0 or 1), for i in 0..63:
  // the bits are directly a byte mask.
  [[gnu::always_inline]] static Ints bits_as_bytes(const std::uint8_t* p) {
    std::uint64_t bits;
    std::memcpy(&bits, p, sizeof bits);
    return _mm512_maskz_mov_epi8(_cvtu64_mask64(bits), _mm512_set1_epi8(1));
  }
  [[gnu::always_inline]] static __m256i add_sixteen_where_set(__m256i bytes, const std::uint8_t* p) {
    std::uint32_t bits;
    std::memcpy(&bits, p, sizeof bits);
    return _mm256_mask_add_epi8(bytes, _cvtu32_mask32(bits), bytes, _mm256_set1_epi8(16));
  }

  // One 128-weight group of 2-bit codes (32 bytes) as unsigned bytes 0..3 in
  // weight order: weights 0..31 are bits 7-6 of the group's bytes, 32..63
  // bits 5-4, 64..95 bits 3-2 and 96..127 bits 1-0; the bytes go to both
  // halves of a vector and each half is shifted by its own count (16-bit
  // shifts; the mask drops what crosses from the neighbouring byte).
  static constexpr int kGroupVectors = 2;
  struct GroupCodes {
    Ints v[kGroupVectors];
  };
  [[gnu::always_inline]] static GroupCodes expand_ternary_group(const std::uint8_t* group) {
    const __m512i bytes = load_in_every_piece(group);
    const __m512i first_shifts = _mm512_inserti64x4(_mm512_set1_epi16(6), _mm256_set1_epi16(4), 1);
    const __m512i second_shifts = _mm512_inserti64x4(_mm512_set1_epi16(2), _mm256_set1_epi16(0), 1);
    const __m512i mask = _mm512_set1_epi8(3);
    return {{_mm512_and_si512(_mm512_srlv_epi16(bytes, first_shifts), mask),
             _mm512_and_si512(_mm512_srlv_epi16(bytes, second_shifts), mask)}};
  }

  template <int kTokens>
  static Floats scale_in_double(Ints sums, const double* scales) {
    alignas(64) double lane_scales[8];
    #pragma GCC unroll 16
    for (int l = 0; l < 8; ++l) lane_scales[l] = scales[l % kTokens];
    const __m512d scale = _mm512_load_pd(lane_scales);
    const __m256 low = _mm512_cvtpd_ps(_mm512_mul_pd(_mm512_cvtepi32_pd(_mm512_castsi512_si256(sums)), scale));
    const __m256 high =
        _mm512_cvtpd_ps(_mm512_mul_pd(_mm512_cvtepi32_pd(_mm512_extracti64x4_epi64(sums, 1)), scale));
    return _mm512_castpd_ps(
        _mm512_insertf64x4(_mm512_castpd256_pd512(_mm256_castps_pd(low)), _mm256_castps_pd(high), 1));
  }

  // The int8 unembedding tiles: a vector holds two rows' 32 codes, so the
  // sixteen vectors of a pass cover a whole tile row of 32 rows; rows[0] gets
  // rows 0..15, rows[1] rows 16..31.
  static constexpr int kTileRowsPerVector = 2;
  [[gnu::always_inline]] static void row_sums(const Ints (&acc)[kLanes], Ints (&rows)[kTileRowsPerVector]) {
    __m512i even, odd;  // rows 0, 2, ..., 30 and 1, 3, ..., 31
    sum_halves(acc, even, odd);
    const __m512i first_half = _mm512_set_epi32(23, 7, 22, 6, 21, 5, 20, 4, 19, 3, 18, 2, 17, 1, 16, 0);
    const __m512i second_half = _mm512_set_epi32(31, 15, 30, 14, 29, 13, 28, 12, 27, 11, 26, 10, 25, 9, 24, 8);
    rows[0] = _mm512_permutex2var_epi32(even, first_half, odd);
    rows[1] = _mm512_permutex2var_epi32(even, second_half, odd);
  }

  // The nearest-even bf16 rule on sixteen floats: NaN keeps its upper half
  // with the quiet bit set; everything else rounds half to even, no clamp.
  [[gnu::always_inline]] static __m256i narrow_nearest_even(Floats v) {
    const __m512i bits = _mm512_castps_si512(v);
    const __m512i magnitude = _mm512_and_si512(bits, _mm512_set1_epi32(0x7FFFFFFF));
    const __mmask16 nan = _mm512_cmpgt_epi32_mask(magnitude, _mm512_set1_epi32(0x7F800000));
    const __m512i odd = _mm512_and_si512(_mm512_srli_epi32(bits, 16), _mm512_set1_epi32(1));
    const __m512i rounded =
        _mm512_srli_epi32(_mm512_add_epi32(_mm512_add_epi32(bits, _mm512_set1_epi32(0x7FFF)), odd), 16);
    const __m512i quiet = _mm512_or_si512(_mm512_srli_epi32(bits, 16), _mm512_set1_epi32(0x40));
    return _mm512_cvtepi32_epi16(_mm512_mask_blend_epi32(nan, rounded, quiet));
  }
  static void store_aligned(float* p, Floats v) { _mm512_store_ps(p, v); }
  static void store_aligned(bf16* p, Floats v) {
    _mm256_store_si256(reinterpret_cast<__m256i*>(p), narrow_nearest_even(v));
  }
  // The first n lanes to p, bf16 by the nearest-even rule.
  static void store_first(float* p, Floats v, std::size_t n) { _mm512_mask_storeu_ps(p, F32::lanes_below(n), v); }
  static void store_first(bf16* p, Floats v, std::size_t n) {
    _mm256_mask_storeu_epi16(p, F32::lanes_below(n), narrow_nearest_even(v));
  }

  // Lane l = values[l % kTokens], for per-token values laid out token after token.
  template <int kTokens>
  [[gnu::always_inline]] static Ints broadcast_tokens(const std::int32_t* values) {
    if constexpr (kTokens == 1) return _mm512_set1_epi32(values[0]);
    if constexpr (kTokens == 2) {
      std::int64_t pair;
      __builtin_memcpy(&pair, values, sizeof pair);
      return _mm512_set1_epi64(pair);
    }
    if constexpr (kTokens == 4) {
      return _mm512_broadcast_i32x4(_mm_loadu_si128(reinterpret_cast<const __m128i*>(values)));
    }
  }
  template <int kTokens>
  [[gnu::always_inline]] static Floats broadcast_tokens(const float* values) {
    std::int32_t bits[kTokens];
    __builtin_memcpy(bits, values, sizeof bits);
    return _mm512_castsi512_ps(broadcast_tokens<kTokens>(bits));
  }

  // The attention value tiles: sixteen dimension rows of sixteen positions,
  // rows r and r + 8 sharing a register, its 128-bit quarters [r: positions
  // 0-7, r: 8-15, r + 8: 0-7, r + 8: 8-15], so that after the in-quarter
  // transpose register c holds position c's dimensions 0-7 and 8-15 in
  // quarters 0 and 2, position c + 8's in quarters 1 and 3. Short rows load
  // with masks.
  static constexpr std::size_t kTileDims = 16;
  [[gnu::always_inline]] static Ints value_tile_row(const bf16* v, std::size_t v_stride, std::size_t r,
                                                    std::size_t dims, std::size_t positions) {
    const __m256i first = r < dims ? load_positions(v + r * v_stride, positions) : _mm256_setzero_si256();
    const __m256i second = r + 8 < dims ? load_positions(v + (r + 8) * v_stride, positions) : _mm256_setzero_si256();
    return _mm512_inserti64x4(_mm512_castsi256_si512(first), second, 1);
  }
  template <int kBits>
  [[gnu::always_inline]] static Ints interleave_low(Ints a, Ints b) {
    if constexpr (kBits == 16) return _mm512_unpacklo_epi16(a, b);
    if constexpr (kBits == 32) return _mm512_unpacklo_epi32(a, b);
    if constexpr (kBits == 64) return _mm512_unpacklo_epi64(a, b);
  }
  template <int kBits>
  [[gnu::always_inline]] static Ints interleave_high(Ints a, Ints b) {
    if constexpr (kBits == 16) return _mm512_unpackhi_epi16(a, b);
    if constexpr (kBits == 32) return _mm512_unpackhi_epi32(a, b);
    if constexpr (kBits == 64) return _mm512_unpackhi_epi64(a, b);
  }
  // Regroups a transposed value tile register (above) so that each 128-bit
  // lane holds four dimensions of position c, then the same four of c + 8,
  // which interleaving with zero words widens to floats in order.
  [[gnu::always_inline]] static Ints position_pair(Ints m) {
    return _mm512_permutex_epi64(m, 0xD8);
  }

  // Lane r of words[j] = the 32-bit word j of the 32 bytes at row[r] + offset.
  // Rows a and a + 4 share a vector (a in 0-3 and 8-11); a 4 x 4 transpose
  // within each 128-bit lane leaves words j and j + 4 of four rows in
  // alternate lanes, which one shuffle per word pairs up across the groups.
  [[gnu::always_inline]] static void transpose_words(const std::uint8_t* const (&row)[kLanes], std::size_t offset,
                                                     Ints (&words)[8]) {
    Ints quads[2][4];  // quads[g][k], 128-bit lane L: word k (L even) or 4 + k (L odd) of four rows
    #pragma GCC unroll 2
    for (int g = 0; g < 2; ++g) {
      Ints pairs[4];
      #pragma GCC unroll 4
      for (int i = 0; i < 4; ++i) {
        const auto* low = reinterpret_cast<const __m256i*>(row[8 * g + i] + offset);
        const auto* high = reinterpret_cast<const __m256i*>(row[8 * g + i + 4] + offset);
        pairs[i] = _mm512_inserti64x4(_mm512_castsi256_si512(_mm256_loadu_si256(low)), _mm256_loadu_si256(high), 1);
      }
      const Ints t0 = _mm512_unpacklo_epi32(pairs[0], pairs[1]), t1 = _mm512_unpackhi_epi32(pairs[0], pairs[1]);
      const Ints t2 = _mm512_unpacklo_epi32(pairs[2], pairs[3]), t3 = _mm512_unpackhi_epi32(pairs[2], pairs[3]);
      quads[g][0] = _mm512_unpacklo_epi64(t0, t2);
      quads[g][1] = _mm512_unpackhi_epi64(t0, t2);
      quads[g][2] = _mm512_unpacklo_epi64(t1, t3);
      quads[g][3] = _mm512_unpackhi_epi64(t1, t3);
    }
    #pragma GCC unroll 4
    for (int k = 0; k < 4; ++k) {
      words[k] = lanes_of<_MM_SHUFFLE(2, 0, 2, 0)>(quads[0][k], quads[1][k]);
      words[4 + k] = lanes_of<_MM_SHUFFLE(3, 1, 3, 1)>(quads[0][k], quads[1][k]);
    }
  }

 private:
  // quads[i] holds, in each 128-bit lane L, the partial sums of v[4i .. 4i+3]
  // over that lane's four elements (the first two levels of both reductions).
  [[gnu::always_inline]] static void sum_within_128(const Ints (&v)[kLanes], Ints (&quads)[4]) {
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
  // The third level: each pair of quads[] added across 128-bit lanes, the
  // lanes paired up by the two selections of lanes_of.
  template <int kFirst, int kSecond>
  [[gnu::always_inline]] static void sum_within_256(const Ints (&v)[kLanes], Ints (&halves)[2]) {
    Ints q[4];
    sum_within_128(v, q);
    #pragma GCC unroll 2
    for (int i = 0; i < 2; ++i) {
      halves[i] = _mm512_add_epi32(lanes_of<kFirst>(q[2 * i], q[2 * i + 1]), lanes_of<kSecond>(q[2 * i], q[2 * i + 1]));
    }
  }
  // a's 128-bit lanes picked by (i0, i1) then b's by (i2, i3).
  template <int kSelect>
  [[gnu::always_inline]] static Ints lanes_of(Ints a, Ints b) { return _mm512_shuffle_i64x2(a, b, kSelect); }
  static __m256i load_positions(const bf16* p, std::size_t n) {
    return _mm256_maskz_loadu_epi16(F32::lanes_below(n), p);
  }
};

}  // namespace quorvel::kernels::x86::avx512
