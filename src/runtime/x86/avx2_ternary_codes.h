// The 2-bit code expansion shared by the AVX2 ternary and q1.58 products:
// one 128-weight group (32 bytes) becomes four vectors of unsigned codes 0..3
// in weight order. Against signed activations VPMADDUBSW pairs two products
// of at most 3 * 127 each, so four such vectors add up in 16 bits without
// overflow (4 * 762) before one VPMADDWD widens them. A code 3 reads as 3.
#pragma once

#include <cstdint>

#include "runtime/x86/avx2_lanes.h"
#include "runtime/x86/intrinsics.h"

namespace quorvel::kernels::x86::avx2 {

struct TernaryCodes {
  __m256i v[4];  // weights 0..31, 32..63, 64..95, 96..127
};

// Weights 32q .. 32q + 31 are the bits 7 - 2q .. 6 - 2q of the group's bytes.
[[gnu::always_inline]] inline TernaryCodes expand_ternary_group(const std::uint8_t* group) {
  const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(group));
  const __m256i mask = _mm256_set1_epi8(3);
  return {{_mm256_and_si256(_mm256_srli_epi16(bytes, 6), mask), _mm256_and_si256(_mm256_srli_epi16(bytes, 4), mask),
           _mm256_and_si256(_mm256_srli_epi16(bytes, 2), mask), _mm256_and_si256(bytes, mask)}};
}

// acc + the four-product dot sums of the codes against 128 activations.
[[gnu::always_inline]] inline __m256i dot_ternary_group(__m256i acc, const TernaryCodes& codes, const __m256i* x) {
  const __m256i low = _mm256_add_epi16(_mm256_maddubs_epi16(codes.v[0], x[0]), _mm256_maddubs_epi16(codes.v[1], x[1]));
  const __m256i high = _mm256_add_epi16(_mm256_maddubs_epi16(codes.v[2], x[2]), _mm256_maddubs_epi16(codes.v[3], x[3]));
  return _mm256_add_epi32(acc, widen_pairs(_mm256_add_epi16(low, high)));
}

}  // namespace quorvel::kernels::x86::avx2
