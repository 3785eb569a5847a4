// Block expansion of the q1_0_128 and q1.58 formats to bf16 in 256-bit
// vectors (the quantized embedding lookups; dequantize_q1.h walks the rows).
//
// A block has one scale d, so its weights take at most four values: the
// saturating narrowing of +d or -d, or of (c - 1) * d for the codes 0 to 3,
// each computed once per block in float as the portable set computes it per
// weight. (Its (+1 or -1) * d becomes, in an optimized build, a choice
// between d and -d; the negation flips the sign of a NaN scale where a
// product by -1.0f would keep it, and this set negates like that build.)
// The weights then only select among the values: q1_0_128 by a compare
// against each weight's sign bit, q1.58 by a byte shuffle of the 2-bit codes
// into the low and high bytes of the values.
//
// Included only through avx2_isa.h.
#pragma once

#include "runtime/bf16.h"
#include "runtime/formats/q1_0.h"
#include "runtime/formats/q1_58.h"
#include "runtime/x86/avx2_float_lanes.h"
#include "runtime/x86/intrinsics.h"

namespace quorvel::kernels::x86::avx2 {

struct Q1Expansion {
  // Each 16 weights: lane l holds sign byte 2 * pair + l / 8 and tests bit 7 - l % 8.
  static void q1_0_block(const formats::BlockQ1_0& block, bf16* out) {
    const float d = block_scale(block.d);
    const __m128i values = F32x8::narrow(_mm256_setr_ps(d, -d, 0, 0, 0, 0, 0, 0));
    const __m256i plus = _mm256_set1_epi16(static_cast<short>(_mm_extract_epi16(values, 0)));
    const __m256i minus = _mm256_set1_epi16(static_cast<short>(_mm_extract_epi16(values, 1)));
    const __m256i signs = _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(block.signs)));
    const __m256i bit = _mm256_setr_epi16(128, 64, 32, 16, 8, 4, 2, 1, 128, 64, 32, 16, 8, 4, 2, 1);
    // Byte index 0 for the low eight lanes, 1 for the high eight; 0x80 clears the high byte.
    const __m256i pick = _mm256_setr_epi8(0, -128, 0, -128, 0, -128, 0, -128, 0, -128, 0, -128, 0, -128, 0, -128, 1,
                                          -128, 1, -128, 1, -128, 1, -128, 1, -128, 1, -128, 1, -128, 1, -128);
    for (int pair = 0; pair < 8; ++pair) {
      const __m256i bytes =
          _mm256_shuffle_epi8(signs, _mm256_add_epi8(pick, _mm256_set1_epi8(static_cast<char>(2 * pair))));
      const __m256i set = _mm256_cmpeq_epi16(_mm256_and_si256(bytes, bit), bit);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 16 * pair), _mm256_blendv_epi8(minus, plus, set));
    }
  }

  // Weights 32q .. 32q + 31 are the codes at shift 6 - 2q of the 32 code bytes.
  static void q1_58_block(const formats::BlockQ1_58& block, bf16* out) {
    const __m128i values =
        F32x8::narrow(_mm256_setr_ps(-1.0f, 0.0f, 1.0f, 2.0f, 0, 0, 0, 0) * _mm256_set1_ps(block_scale(block.d)));
    // Bytes 0-3 of each half: the low bytes of the four values; the high bytes follow.
    const __m128i low_high = _mm_shuffle_epi8(values, _mm_setr_epi8(0, 2, 4, 6, 1, 3, 5, 7, 0, 0, 0, 0, 0, 0, 0, 0));
    const __m256i low_bytes = _mm256_broadcastsi128_si256(low_high);
    const __m256i high_bytes = _mm256_broadcastsi128_si256(_mm_srli_si128(low_high, 4));
    const __m256i codes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block.codes));
    for (int q = 0; q < 4; ++q) {
      const __m256i c = _mm256_and_si256(_mm256_srli_epi16(codes, 6 - 2 * q), _mm256_set1_epi8(3));
      const __m256i low = _mm256_shuffle_epi8(low_bytes, c), high = _mm256_shuffle_epi8(high_bytes, c);
      const __m256i first = _mm256_unpacklo_epi8(low, high);   // weights 0-7 | 16-23
      const __m256i second = _mm256_unpackhi_epi8(low, high);  // weights 8-15 | 24-31
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 32 * q), _mm256_permute2x128_si256(first, second, 0x20));
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 32 * q + 16),
                          _mm256_permute2x128_si256(first, second, 0x31));
    }
  }

 private:
  static float block_scale(bf16 scale) {
    return __builtin_bit_cast(float, static_cast<std::uint32_t>(scale.bits) << 16);
  }
};

}  // namespace quorvel::kernels::x86::avx2
