// The 2-bit code expansion shared by the ternary and q1.58 products: one
// 128-weight group (32 bytes) becomes two vectors of unsigned codes 0..3 in
// weight order, ready for VPDPBUSD (unsigned code x signed activation), whose
// sums are then sum(c * x); the callers subtract the activation sum to get
// sum((c - 1) * x). A code 3 reads as 3, so it counts as weight +2.
#pragma once

#include <cstdint>

#include "runtime/x86/intrinsics.h"

namespace quorvel::kernels::x86::avx512 {

struct TernaryCodes {
  __m512i v[2];  // weights 0..63, 64..127
};

// Weights 0..31 are bits 7-6 of the group's bytes, 32..63 bits 5-4, 64..95
// bits 3-2 and 96..127 bits 1-0: the bytes go to both halves of a vector and
// each half is shifted by its own count (16-bit shifts; the mask drops what
// crosses from the neighbouring byte).
[[gnu::always_inline]] inline TernaryCodes expand_ternary_group(const std::uint8_t* group) {
  const __m512i bytes = _mm512_broadcast_i64x4(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(group)));
  const __m512i first_shifts = _mm512_inserti64x4(_mm512_set1_epi16(6), _mm256_set1_epi16(4), 1);
  const __m512i second_shifts = _mm512_inserti64x4(_mm512_set1_epi16(2), _mm256_set1_epi16(0), 1);
  const __m512i mask = _mm512_set1_epi8(3);
  return {{_mm512_and_si512(_mm512_srlv_epi16(bytes, first_shifts), mask),
           _mm512_and_si512(_mm512_srlv_epi16(bytes, second_shifts), mask)}};
}

// acc + the four-product dot sums of the codes against 128 activations.
[[gnu::always_inline]] inline __m512i dot_ternary_group(__m512i acc, const TernaryCodes& codes, const __m512i* x) {
  return _mm512_dpbusd_epi32(_mm512_dpbusd_epi32(acc, codes.v[0], x[0]), codes.v[1], x[1]);
}

}  // namespace quorvel::kernels::x86::avx512
