// q4_0 and q5_0 logits (four- and five-bit codes, an f32 scale per 32
// values) over the grouped unembedding table, on AVX2. The codes are
// unpacked as unsigned values (0..15, or 0..31 with the fifth bit added from
// qh); VPMADDUBSW pairs two products of at most 31 * 127 per 16-bit lane, and
// the offset comes off the exact sum: S_b = sum(code * x) - offset * sum(x).
#include <cstring>

#include "runtime/formats/q4_0.h"
#include "runtime/formats/q5_0.h"
#include "runtime/x86/avx2_block_products.h"
#include "runtime/x86/avx2_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

// The 32 four-bit codes of 16 bytes in value order: value j is the low
// nibble of byte j, value j + 16 its high nibble.
[[gnu::always_inline]] inline __m256i unpack_nibbles(const std::uint8_t* qs) {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(qs));
  const __m128i mask = _mm_set1_epi8(0x0F);
  return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_and_si128(bytes, mask)),
                                 _mm_and_si128(_mm_srli_epi16(bytes, 4), mask), 1);
}

[[gnu::always_inline]] inline __m256i q4_0_codes(const std::uint8_t* block) {
  return unpack_nibbles(block + offsetof(formats::BlockQ4_0, qs));
}

// The fifth bits of q5_0: bit j of the little-endian word qh adds 16 to value j.
[[gnu::always_inline]] inline __m256i q5_0_codes(const std::uint8_t* block) {
  std::uint32_t bits;
  std::memcpy(&bits, block + offsetof(formats::BlockQ5_0, qh), sizeof bits);
  const __m256i fifth = _mm256_slli_epi16(avx2::word_bits_as_bytes(bits), 4);  // 0 or 16 per byte
  return _mm256_or_si256(unpack_nibbles(block + offsetof(formats::BlockQ5_0, qs)), fifth);
}

// Shared by both formats: kOffset is the code of weight 0, kCodes unpacks one block.
template <typename Block, int kOffset, __m256i (*kCodes)(const std::uint8_t*)>
struct NibbleFormat {
  static constexpr std::size_t kValues = Block::kValues;
  static constexpr std::size_t kBlockBytes = sizeof(Block);
  static constexpr int kActivationVectors = 1;
  static constexpr std::int32_t kScaleWord = 0;
  static constexpr bool kBf16Scale = false;
  static constexpr CodeOrder kOrder = CodeOrder::natural;
  struct Weights {
    __m256i codes;
  };

  [[gnu::always_inline]] static Weights expand(const std::uint8_t* block) { return {kCodes(block)}; }
  [[gnu::always_inline]] static __m256i dot(__m256i acc, const Weights& w, const __m256i* x) {
    return _mm256_add_epi32(acc, avx2::widen_pairs(_mm256_maddubs_epi16(w.codes, x[0])));
  }
  [[gnu::always_inline]] static __m256i block_sums(__m256i dots, __m256i x_sums) {
    return _mm256_sub_epi32(dots, _mm256_mullo_epi32(x_sums, _mm256_set1_epi32(kOffset)));
  }
};

using Q4_0Format = NibbleFormat<formats::BlockQ4_0, 8, q4_0_codes>;
using Q5_0Format = NibbleFormat<formats::BlockQ5_0, 16, q5_0_codes>;

}  // namespace

void Avx2Kernels::gemv_q4_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_q4_0_f32(w, x, x_scale, out, rows, k);
  avx2::grouped_logits<Q4_0Format>(w, x, x_scale, out, rows, k);
}

void Avx2Kernels::gemv_q5_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_q5_0_f32(w, x, x_scale, out, rows, k);
  avx2::grouped_logits<Q5_0Format>(w, x, x_scale, out, rows, k);
}

}  // namespace quorvel::kernels::x86
