// The AVX2 lane trait: eight 32-bit lanes per vector, and the operations the
// generic x86 drivers (block_products.h, ternary_products.h, ...) build on.
// AVX2 has no unsigned x signed 8-bit dot product into 32 bits, so the byte
// products pair up with VPMADDUBSW (into 16 bits) and widen with VPMADDWD;
// signed weights take |w| and move w's sign onto the activation.
//
// Included only by *_avx2.cpp files (compiled with the AVX2 flags) and by
// avx_vnni_isa.h, whose trait derives from this one. Every
// function sits in namespace avx2, and every generic template takes this
// trait as a parameter, so that nothing compiled with these flags can stand
// in for code of another build (isa_symbols_check.sh holds the build to it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "runtime/bf16.h"
#include "runtime/x86/avx2_float_lanes.h"
#include "runtime/x86/avx2_q1_expansion.h"
#include "runtime/x86/intrinsics.h"

namespace quorvel::kernels::x86::avx2 {

struct Isa {
  static constexpr const char* kName = "avx2";
  using Ints = __m256i;
  using Floats = __m256;
  using F32 = F32x8;
  using Q1Expansion = avx2::Q1Expansion;
  static constexpr int kLanes = 8;
  static constexpr std::size_t kVectorBytes = 32;
  // Partial stores go through a lane array (no masked 16-bit stores).
  static constexpr bool kMaskedStores = false;
  // A lone token's q1_0_128 tile product looks its sums up in per-token
  // tables (q1_0_tile_lookup.h): fewer instructions than expanding the sign
  // bits to bytes without a byte mask move.
  static constexpr bool kSignSumLookup = true;

  [[gnu::always_inline]] static Ints zero() { return _mm256_setzero_si256(); }
  [[gnu::always_inline]] static Ints set1(std::int32_t v) { return _mm256_set1_epi32(v); }
  [[gnu::always_inline]] static Ints load(const void* p) { return _mm256_load_si256(static_cast<const __m256i*>(p)); }
  [[gnu::always_inline]] static Ints loadu(const void* p) { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }
  [[gnu::always_inline]] static Ints add(Ints a, Ints b) { return _mm256_add_epi32(a, b); }
  [[gnu::always_inline]] static Ints sub(Ints a, Ints b) { return _mm256_sub_epi32(a, b); }
  [[gnu::always_inline]] static Ints mul(Ints a, Ints b) { return _mm256_mullo_epi32(a, b); }
  template <int kBits>
  [[gnu::always_inline]] static Ints shift_left(Ints v) { return _mm256_slli_epi32(v, kBits); }
  template <int kBits>
  [[gnu::always_inline]] static Ints shift_right(Ints v) { return _mm256_srli_epi32(v, kBits); }
  [[gnu::always_inline]] static Floats to_floats(Ints v) { return _mm256_cvtepi32_ps(v); }
  [[gnu::always_inline]] static Floats as_floats(Ints v) { return _mm256_castsi256_ps(v); }
  // Lane l = the 32-bit word at base + offsets[l].
  [[gnu::always_inline]] static Ints gather_words(const std::uint8_t* base, Ints offsets) {
    return _mm256_i32gather_epi32(reinterpret_cast<const int*>(base), offsets, 1);
  }

  // The 32-byte pieces part(0), part(1), ... side by side; one fills a vector.
  template <int kParts, typename Part>
  [[gnu::always_inline]] static Ints join_parts(Part part) {
    static_assert(kParts == 1);
    return part(0);
  }
  // The 32 bytes at p in every 32-byte piece of a vector.
  [[gnu::always_inline]] static Ints load_in_every_piece(const void* p) { return loadu(p); }

  // Lane r of words[j] = the 32-bit word j of the 32 bytes at row[r] + offset.
  // Rows r and r + 4 share a vector per 16-byte half, so that a 4 x 4
  // transpose within each 128-bit lane finishes the job.
  [[gnu::always_inline]] static void transpose_words(const std::uint8_t* const (&row)[kLanes], std::size_t offset,
                                                     Ints (&words)[8]) {
    #pragma GCC unroll 2
    for (int half = 0; half < 2; ++half) {
      Ints pairs[4];
      #pragma GCC unroll 4
      for (int i = 0; i < 4; ++i) {
        const auto* low = reinterpret_cast<const __m128i*>(row[i] + offset + 16 * half);
        const auto* high = reinterpret_cast<const __m128i*>(row[i + 4] + offset + 16 * half);
        pairs[i] = _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(low)), _mm_loadu_si128(high), 1);
      }
      transpose_4x4(pairs, words + 4 * half);
    }
  }

  // Lane i of the result = the sum of the eight 32-bit lanes of v[i].
  [[gnu::always_inline]] static Ints sum_lanes(const Ints (&v)[kLanes]) {
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

  // acc + the dot sums of four unsigned bytes of w[i] with four signed bytes
  // of x[i] per lane, over i < kCount. The byte pairs add up in 16 bits
  // before one widening, so the caller keeps 2 * kCount * max(w) * 128 below
  // 32768.
  template <int kCount>
  [[gnu::always_inline]] static Ints dot_unsigned(Ints acc, const Ints* w, const Ints* x) {
    return add(acc, _mm256_madd_epi16(pair_sums<kCount>(w, x), _mm256_set1_epi16(1)));
  }

  // Signed weight bytes: VPMADDUBSW takes |w|, the activation carries w's
  // sign, so a pair of products is at most 2 * 128 * 127.
  struct SignedCodes {
    Ints codes;
    Ints magnitudes;
  };
  [[gnu::always_inline]] static SignedCodes signed_codes(Ints codes) { return {codes, _mm256_abs_epi8(codes)}; }
  [[gnu::always_inline]] static Ints dot_signed(Ints acc, const SignedCodes& w, Ints x) {
    const Ints products = _mm256_maddubs_epi16(w.magnitudes, _mm256_sign_epi8(x, w.codes));
    return add(acc, _mm256_madd_epi16(products, _mm256_set1_epi16(1)));
  }
  // The exact sums from the dot_signed sums (lane by lane, with the
  // activation sums they were taken against).
  [[gnu::always_inline]] static Ints signed_sums(Ints dots, Ints) { return dots; }

  // Byte i = bit i of the little-endian bits at p (0 or 1), for i in 0..31:
  // a shuffle brings byte i / 8 to byte i, a mask isolates bit i % 8.
  [[gnu::always_inline]] static Ints bits_as_bytes(const std::uint8_t* p) {
    std::uint32_t word;
    std::memcpy(&word, p, sizeof word);
    const __m256i byte_of_bit = _mm256_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1,  //
                                                 2, 2, 2, 2, 2, 2, 2, 2, 3, 3, 3, 3, 3, 3, 3, 3);
    const __m256i bit_of_byte = _mm256_set1_epi64x(static_cast<long long>(0x8040201008040201ull));
    const __m256i bytes = _mm256_shuffle_epi8(_mm256_set1_epi32(static_cast<int>(word)), byte_of_bit);
    return _mm256_min_epu8(_mm256_and_si256(bytes, bit_of_byte), _mm256_set1_epi8(1));
  }
  // bytes + 16 where bit i of the little-endian word at p is set (bytes below 16).
  [[gnu::always_inline]] static __m256i add_sixteen_where_set(__m256i bytes, const std::uint8_t* p) {
    return _mm256_or_si256(bytes, _mm256_slli_epi16(bits_as_bytes(p), 4));
  }

  // One 128-weight group of 2-bit codes (32 bytes) as unsigned bytes 0..3 in
  // weight order: weights 32q .. 32q + 31 are bits 7 - 2q .. 6 - 2q.
  static constexpr int kGroupVectors = 4;
  struct GroupCodes {
    Ints v[kGroupVectors];
  };
  [[gnu::always_inline]] static GroupCodes expand_ternary_group(const std::uint8_t* group) {
    const __m256i bytes = loadu(group);
    const __m256i mask = _mm256_set1_epi8(3);
    return {{_mm256_and_si256(_mm256_srli_epi16(bytes, 6), mask), _mm256_and_si256(_mm256_srli_epi16(bytes, 4), mask),
             _mm256_and_si256(_mm256_srli_epi16(bytes, 2), mask), _mm256_and_si256(bytes, mask)}};
  }

  // (float)((double)sums * scale) per lane, with lane l's scale scales[l % kTokens].
  template <int kTokens>
  static Floats scale_in_double(Ints sums, const double* scales) {
    alignas(32) double lane_scales[4];
    #pragma GCC unroll 16
    for (int l = 0; l < 4; ++l) lane_scales[l] = scales[l % kTokens];
    const __m256d scale = _mm256_load_pd(lane_scales);
    const __m128 low = _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_cvtepi32_pd(_mm256_castsi256_si128(sums)), scale));
    const __m128 high = _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_cvtepi32_pd(_mm256_extracti128_si256(sums, 1)), scale));
    return _mm256_insertf128_ps(_mm256_castps128_ps256(low), high, 1);
  }

  // The int8 unembedding tiles: a vector holds one row's 32 codes.
  static constexpr int kTileRowsPerVector = 1;
  [[gnu::always_inline]] static void row_sums(const Ints (&acc)[kLanes], Ints (&rows)[kTileRowsPerVector]) {
    rows[0] = sum_lanes(acc);
  }

  // The nearest-even bf16 rule on eight floats: NaN keeps its upper half with
  // the quiet bit set; everything else rounds half to even, no clamp.
  [[gnu::always_inline]] static __m128i narrow_nearest_even(Floats v) {
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
  // All lanes to a vector-aligned array, bf16 by the nearest-even rule.
  static void store_aligned(float* p, Floats v) { _mm256_store_ps(p, v); }
  static void store_aligned(bf16* p, Floats v) {
    _mm_store_si128(reinterpret_cast<__m128i*>(p), narrow_nearest_even(v));
  }

  // Lane l = values[l % kTokens], for per-token values laid out token after token.
  template <int kTokens>
  [[gnu::always_inline]] static Ints broadcast_tokens(const std::int32_t* values) {
    alignas(32) std::int32_t lanes[kLanes];
    #pragma GCC unroll 16
    for (int l = 0; l < kLanes; ++l) lanes[l] = values[l % kTokens];
    return load(lanes);
  }
  template <int kTokens>
  [[gnu::always_inline]] static Floats broadcast_tokens(const float* values) {
    alignas(32) float lanes[kLanes];
    #pragma GCC unroll 16
    for (int l = 0; l < kLanes; ++l) lanes[l] = values[l % kTokens];
    return _mm256_load_ps(lanes);
  }

  // The attention value tiles: eight dimension rows of sixteen positions,
  // one row per register; a short row is padded with zeros.
  static constexpr std::size_t kTileDims = 8;
  [[gnu::always_inline]] static Ints value_tile_row(const bf16* v, std::size_t v_stride, std::size_t r,
                                                    std::size_t dims, std::size_t positions) {
    if (r >= dims) return zero();
    if (positions == 16) return loadu(v + r * v_stride);
    alignas(32) std::uint16_t part[16] = {};
    __builtin_memcpy(part, v + r * v_stride, positions * sizeof(bf16));
    return load(part);
  }
  template <int kBits>
  [[gnu::always_inline]] static Ints interleave_low(Ints a, Ints b) {
    if constexpr (kBits == 16) return _mm256_unpacklo_epi16(a, b);
    if constexpr (kBits == 32) return _mm256_unpacklo_epi32(a, b);
    if constexpr (kBits == 64) return _mm256_unpacklo_epi64(a, b);
  }
  template <int kBits>
  [[gnu::always_inline]] static Ints interleave_high(Ints a, Ints b) {
    if constexpr (kBits == 16) return _mm256_unpackhi_epi16(a, b);
    if constexpr (kBits == 32) return _mm256_unpackhi_epi32(a, b);
    if constexpr (kBits == 64) return _mm256_unpackhi_epi64(a, b);
  }
  // A transposed value tile register holds dimensions 0-7 of position c in
  // its low 128 bits and of position c + 8 in its high 128; this regroups it
  // so that each 128-bit lane holds four dimensions of c, then the same four
  // of c + 8, which interleaving with zero words widens to floats in order.
  [[gnu::always_inline]] static Ints position_pair(Ints m) { return _mm256_permute4x64_epi64(m, 0xD8); }

 private:
  // Within each 128-bit lane: word j of out[i] = word i of in[j].
  [[gnu::always_inline]] static void transpose_4x4(const Ints (&in)[4], Ints* out) {
    const Ints t0 = _mm256_unpacklo_epi32(in[0], in[1]), t1 = _mm256_unpackhi_epi32(in[0], in[1]);
    const Ints t2 = _mm256_unpacklo_epi32(in[2], in[3]), t3 = _mm256_unpackhi_epi32(in[2], in[3]);
    out[0] = _mm256_unpacklo_epi64(t0, t2);
    out[1] = _mm256_unpackhi_epi64(t0, t2);
    out[2] = _mm256_unpacklo_epi64(t1, t3);
    out[3] = _mm256_unpackhi_epi64(t1, t3);
  }
  // Sixteen 16-bit sums of byte-product pairs over kCount vectors, added as
  // a balanced tree.
  template <int kCount>
  [[gnu::always_inline]] static Ints pair_sums(const Ints* w, const Ints* x) {
    if constexpr (kCount == 1) {
      return _mm256_maddubs_epi16(w[0], x[0]);
    } else {
      constexpr int kHalf = kCount / 2;
      return _mm256_add_epi16(pair_sums<kHalf>(w, x), pair_sums<kCount - kHalf>(w + kHalf, x + kHalf));
    }
  }
};

}  // namespace quorvel::kernels::x86::avx2
