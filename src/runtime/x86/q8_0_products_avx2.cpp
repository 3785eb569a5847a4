// q8_0 products (int8 codes, an f32 scale per 32 values) on AVX2, for weight
// rows and for the grouped unembedding table. VPMADDUBSW wants one unsigned
// operand: it takes |q| and x carrying q's sign, so each 16-bit lane holds
// two products of at most 128 * 127 (a code -128 is handled too). A row whose
// length is not a whole number of blocks ends in a partial block whose
// missing codes meet the prepared activations' zero padding.
#include "runtime/formats/q8_0.h"
#include "runtime/x86/avx2_block_products.h"
#include "runtime/x86/avx2_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

struct Q8_0Format {
  static constexpr std::size_t kValues = formats::BlockQ8_0::kValues;
  static constexpr std::size_t kBlockBytes = sizeof(formats::BlockQ8_0);
  static constexpr int kActivationVectors = 1;
  static constexpr std::int32_t kScaleWord = 0;
  static constexpr bool kBf16Scale = false;
  static constexpr CodeOrder kOrder = CodeOrder::natural;
  struct Weights {
    __m256i codes;
    __m256i magnitudes;
  };

  [[gnu::always_inline]] static Weights expand(const std::uint8_t* block) {
    const __m256i codes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block + 4));
    return {codes, _mm256_abs_epi8(codes)};
  }
  [[gnu::always_inline]] static __m256i dot(__m256i acc, const Weights& w, const __m256i* x) {
    const __m256i products = _mm256_maddubs_epi16(w.magnitudes, _mm256_sign_epi8(x[0], w.codes));
    return _mm256_add_epi32(acc, avx2::widen_pairs(products));
  }
  [[gnu::always_inline]] static __m256i block_sums(__m256i dots, __m256i) { return dots; }
};

avx2::WeightRows plain_rows(const void* w, std::size_t rows, std::size_t k) {
  return {static_cast<const std::uint8_t*>(w), formats::q8_0_blocks_per_row(k) * Q8_0Format::kBlockBytes,
          Q8_0Format::kBlockBytes, rows};
}

}  // namespace

void Avx2Kernels::gemm_q8_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                            size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemm_q8_0(w, x, x_scales, out, out_stride, n_tokens, rows, k);
  avx2::block_products<Q8_0Format>(plain_rows(w, rows, k), x, x_scales, n_tokens, k, out, out_stride);
}

void Avx2Kernels::gemv_q8_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                            size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_q8_0(w, x, x_scale, out, rows, k);
  avx2::block_products<Q8_0Format>(plain_rows(w, rows, k), x, &x_scale, 1, k, out, 0);
}

void Avx2Kernels::gemv_q8_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                  size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_q8_0_f32(w, x, x_scale, out, rows, k);
  avx2::grouped_logits<Q8_0Format>(w, x, x_scale, out, rows, k);
}

}  // namespace quorvel::kernels::x86
