// Block expansion of the q1_0_128 and q1.58 formats to bf16 in 512-bit
// vectors, on the plan of avx2_q1_expansion.h: each block's at most four
// distinct values are narrowed once, and the weights select among them:
// q1_0_128 by a mask of sign bits, q1.58 by a 16-bit permute indexed by the
// codes.
//
// Included only through avx512_isa.h.
#pragma once

#include "runtime/bf16.h"
#include "runtime/formats/q1_0.h"
#include "runtime/formats/q1_58.h"
#include "runtime/x86/avx512_float_lanes.h"
#include "runtime/x86/intrinsics.h"

namespace quorvel::kernels::x86::avx512 {

struct Q1Expansion {
  // Each 32 weights: lane l holds sign byte 4 * group + l / 8 and tests bit 7 - l % 8.
  static void q1_0_block(const formats::BlockQ1_0& block, bf16* out) {
    const float d = block_scale(block.d);
    const __m512i values =
        _mm512_castsi256_si512(F32x16::narrow(_mm512_setr_ps(d, -d, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0)));
    const __m512i plus = _mm512_broadcastw_epi16(_mm512_castsi512_si128(values));
    const __m512i minus = _mm512_broadcastw_epi16(_mm_srli_si128(_mm512_castsi512_si128(values), 2));
    const __m512i signs = _mm512_broadcast_i32x4(_mm_loadu_si128(reinterpret_cast<const __m128i*>(block.signs)));
    const __m512i bit = _mm512_broadcast_i32x4(_mm_setr_epi16(128, 64, 32, 16, 8, 4, 2, 1));
    // Byte index L in 128-bit quarter L; 0x80 clears the high byte.
    const __m512i pick = _mm512_set_epi64(0x8003800380038003, 0x8003800380038003, 0x8002800280028002,
                                          0x8002800280028002, 0x8001800180018001, 0x8001800180018001,
                                          0x8000800080008000, 0x8000800080008000);
    for (int group = 0; group < 4; ++group) {
      const __m512i bytes =
          _mm512_shuffle_epi8(signs, _mm512_add_epi8(pick, _mm512_set1_epi8(static_cast<char>(4 * group))));
      const __mmask32 set = _mm512_test_epi16_mask(bytes, bit);
      _mm512_storeu_si512(out + 32 * group, _mm512_mask_blend_epi16(set, minus, plus));
    }
  }

  // Weights 32q .. 32q + 31 are the codes at shift 6 - 2q of the 32 code bytes.
  static void q1_58_block(const formats::BlockQ1_58& block, bf16* out) {
    const __m512 weights = _mm512_setr_ps(-1.0f, 0.0f, 1.0f, 2.0f, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    const __m512i values = _mm512_castsi256_si512(F32x16::narrow(weights * _mm512_set1_ps(block_scale(block.d))));
    const __m256i codes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block.codes));
    for (int q = 0; q < 4; ++q) {
      const __m256i c = _mm256_and_si256(_mm256_srli_epi16(codes, 6 - 2 * q), _mm256_set1_epi8(3));
      _mm512_storeu_si512(out + 32 * q, _mm512_permutexvar_epi16(_mm512_cvtepu8_epi16(c), values));
    }
  }

 private:
  static float block_scale(bf16 scale) {
    return __builtin_bit_cast(float, static_cast<std::uint32_t>(scale.bits) << 16);
  }
};

}  // namespace quorvel::kernels::x86::avx512
