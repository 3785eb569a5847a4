// q4_0 and q5_0 logits (four- and five-bit codes, an f32 scale per 32
// values) over the grouped unembedding table, on AVX-512 VNNI. The codes are
// unpacked as unsigned values (0..15, or 0..31 with the fifth bit added from
// qh) for VPDPBUSD, two blocks per vector, and the offset comes off the exact
// sum: S_b = sum(code * x) - offset * sum(x).
#include <cstring>

#include "runtime/formats/q4_0.h"
#include "runtime/formats/q5_0.h"
#include "runtime/x86/avx512_block_products.h"
#include "runtime/x86/avx512_kernels.h"

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

// The fifth bits of q5_0: bit j of the little-endian word qh adds 16 to value j.
[[gnu::always_inline]] inline __m256i add_fifth_bits(__m256i low, const std::uint8_t* qh) {
  std::uint32_t bits;
  std::memcpy(&bits, qh, sizeof bits);
  return _mm256_mask_add_epi8(low, _cvtu32_mask32(bits), low, _mm256_set1_epi8(16));
}

// Shared by both formats: kOffset is the code of weight 0, kCodes unpacks one block.
template <typename Block, int kOffset, __m256i (*kCodes)(const std::uint8_t*)>
struct NibbleFormat {
  static constexpr std::size_t kValues = Block::kValues;
  static constexpr std::size_t kBlockBytes = sizeof(Block);
  static constexpr std::size_t kBlocksPerStep = 2;
  static constexpr int kActivationVectors = 1;
  static constexpr std::int32_t kScaleWord = 0;
  static constexpr bool kBf16Scale = false;
  static constexpr CodeOrder kOrder = CodeOrder::natural;
  struct Weights {
    __m512i codes;  // block b (low half) and b + 1 (high half)
  };

  template <int kBlocks>
  [[gnu::always_inline]] static Weights expand(const std::uint8_t* block, std::size_t block_step) {
    const __m256i second = kBlocks == 2 ? kCodes(block + block_step) : _mm256_setzero_si256();
    return {_mm512_inserti64x4(_mm512_castsi256_si512(kCodes(block)), second, 1)};
  }
  [[gnu::always_inline]] static __m512i dot(__m512i acc, const Weights& w, const __m512i* x) {
    return _mm512_dpbusd_epi32(acc, w.codes, x[0]);
  }
  [[gnu::always_inline]] static __m512i block_sums(__m512i dots, __m512i x_sums) {
    return _mm512_sub_epi32(dots, _mm512_mullo_epi32(x_sums, _mm512_set1_epi32(kOffset)));
  }
};

[[gnu::always_inline]] inline __m256i q4_0_codes(const std::uint8_t* block) { return unpack_nibbles(block + offsetof(formats::BlockQ4_0, qs)); }

[[gnu::always_inline]] inline __m256i q5_0_codes(const std::uint8_t* block) {
  return add_fifth_bits(unpack_nibbles(block + offsetof(formats::BlockQ5_0, qs)),
                        block + offsetof(formats::BlockQ5_0, qh));
}

using Q4_0Format = NibbleFormat<formats::BlockQ4_0, 8, q4_0_codes>;
using Q5_0Format = NibbleFormat<formats::BlockQ5_0, 16, q5_0_codes>;

}  // namespace

void Avx512Kernels::gemv_q4_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                  size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_q4_0_f32(w, x, x_scale, out, rows, k);
  avx512::grouped_logits<Q4_0Format>(w, x, x_scale, out, rows, k);
}

void Avx512Kernels::gemv_q5_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                  size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_q5_0_f32(w, x, x_scale, out, rows, k);
  avx512::grouped_logits<Q5_0Format>(w, x, x_scale, out, rows, k);
}

}  // namespace quorvel::kernels::x86
