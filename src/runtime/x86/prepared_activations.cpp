#include "runtime/x86/prepared_activations.h"

#include <emmintrin.h>

#include <cstring>

namespace quorvel::kernels::x86 {
namespace {

// The exact sum of n codes. Sixteen at a time as unsigned bytes (code + 128)
// summed by PSADBW, which SSE2, and so every x86-64 processor, has; the
// 128 per code comes off at the end.
std::int32_t code_sum(const std::int8_t* codes, std::size_t n) {
  const __m128i flip = _mm_set1_epi8(static_cast<char>(0x80));
  __m128i sums = _mm_setzero_si128();
  std::size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    const __m128i biased = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(codes + i)), flip);
    sums = _mm_add_epi64(sums, _mm_sad_epu8(biased, _mm_setzero_si128()));
  }
  std::int64_t sum = _mm_cvtsi128_si64(sums) + _mm_cvtsi128_si64(_mm_unpackhi_epi64(sums, sums));
  sum -= 128 * static_cast<std::int64_t>(i);
  for (; i < n; ++i) sum += codes[i];
  return static_cast<std::int32_t>(sum);
}

void copy_codes(std::int8_t* dst, const std::int8_t* src, std::size_t k, CodeOrder order) {
  if (order == CodeOrder::natural) {
    std::memcpy(dst, src, k);
  } else {
    for (std::size_t i = 0; i < k; ++i) dst[i] = src[(i & ~std::size_t{7}) + 7 - (i & 7)];
  }
  std::memset(dst + k, 0, PreparedActivations::kPadding);
}

}  // namespace

void prepare_activations(PreparedActivations& p, const std::int8_t* x, const float* scales, std::size_t tokens,
                         std::size_t k, std::size_t block_values, CodeOrder order) {
  p.tokens = tokens;
  p.blocks = (k + block_values - 1) / block_values;
  for (std::size_t t = 0; t < tokens; ++t) {
    const std::int8_t* row = x + t * k;
    copy_codes(p.codes[t], row, k, order);
    p.scales[t] = scales[t];
    std::int32_t total = 0;
    for (std::size_t b = 0; b < p.blocks; ++b) {
      const std::size_t first = b * block_values;
      const std::int32_t sum = code_sum(row + first, k - first < block_values ? k - first : block_values);
      p.block_sums[b * tokens + t] = sum;
      total += sum;
    }
    p.row_sums[t] = total;
  }
}

}  // namespace quorvel::kernels::x86
