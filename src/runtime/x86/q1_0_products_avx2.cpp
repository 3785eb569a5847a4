// q1_0_128 products (one sign bit per weight, a bf16 scale per 128 weights)
// on AVX2. The activations are prepared with every 8 codes reversed, so that
// byte i of a 32-weight vector pairs with bit i of the block's little-endian
// 32-bit sign word: a shuffle brings byte i / 8 of the word to byte i, a bit
// mask isolates bit i % 8, and the result becomes a 0/1 weight. VPMADDUBSW
// sums the selected activations, and S_b = 2 * (set sum) - (block sum).
#include <cstring>

#include "runtime/formats/q1_0.h"
#include "runtime/x86/avx2_block_products.h"
#include "runtime/x86/avx2_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

struct Q1_0Format {
  static constexpr std::size_t kValues = formats::BlockQ1_0::kValues;
  static constexpr std::size_t kBlockBytes = sizeof(formats::BlockQ1_0);
  static constexpr int kActivationVectors = 4;
  // The bf16 scale at bytes 16..17 is the high half of the word at 14.
  static constexpr std::int32_t kScaleWord = 14;
  static constexpr bool kBf16Scale = true;
  static constexpr CodeOrder kOrder = CodeOrder::sign_bits_lsb_first;
  struct Weights {
    __m256i v[4];  // 1 where the sign bit is set, 0 elsewhere
  };

  [[gnu::always_inline]] static Weights expand(const std::uint8_t* block) {
    Weights w;
    #pragma GCC unroll 16
    for (int i = 0; i < 4; ++i) {
      std::uint32_t word;
      std::memcpy(&word, block + 4 * i, sizeof word);
      w.v[i] = avx2::word_bits_as_bytes(word);
    }
    return w;
  }
  // Each 16-bit lane takes two 0/1 x activation products per vector, at most
  // 8 * 127 over the four: no saturation.
  [[gnu::always_inline]] static __m256i dot(__m256i acc, const Weights& w, const __m256i* x) {
    const __m256i low = _mm256_add_epi16(_mm256_maddubs_epi16(w.v[0], x[0]), _mm256_maddubs_epi16(w.v[1], x[1]));
    const __m256i high = _mm256_add_epi16(_mm256_maddubs_epi16(w.v[2], x[2]), _mm256_maddubs_epi16(w.v[3], x[3]));
    return _mm256_add_epi32(acc, avx2::widen_pairs(_mm256_add_epi16(low, high)));
  }
  [[gnu::always_inline]] static __m256i block_sums(__m256i set_sums, __m256i x_sums) {
    return _mm256_sub_epi32(_mm256_slli_epi32(set_sums, 1), x_sums);
  }
};

avx2::WeightRows plain_rows(const void* w, std::size_t rows, std::size_t k) {
  return {static_cast<const std::uint8_t*>(w), k / Q1_0Format::kValues * Q1_0Format::kBlockBytes,
          Q1_0Format::kBlockBytes, rows};
}

}  // namespace

void Avx2Kernels::gemm_q1_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                            size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemm_q1_0(w, x, x_scales, out, out_stride, n_tokens, rows, k);
  avx2::block_products<Q1_0Format>(plain_rows(w, rows, k), x, x_scales, n_tokens, k, out, out_stride);
}

void Avx2Kernels::gemv_q1_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                            size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_q1_0(w, x, x_scale, out, rows, k);
  avx2::block_products<Q1_0Format>(plain_rows(w, rows, k), x, &x_scale, 1, k, out, 0);
}

void Avx2Kernels::gemv_q1_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_q1_0_f32(w, x, x_scale, out, rows, k);
  avx2::block_products<Q1_0Format>(plain_rows(w, rows, k), x, &x_scale, 1, k, out, 0);
}

}  // namespace quorvel::kernels::x86
