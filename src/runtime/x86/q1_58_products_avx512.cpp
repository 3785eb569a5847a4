// q1.58 products (2-bit codes, a bf16 scale per 128 weights) on AVX-512 VNNI:
// S_b = sum(c * x) - sum(x) over the block, through the block engine.
#include "runtime/formats/q1_58.h"
#include "runtime/x86/avx512_block_products.h"
#include "runtime/x86/avx512_kernels.h"
#include "runtime/x86/avx512_ternary_codes.h"

namespace quorvel::kernels::x86 {
namespace {

struct Q1_58Format {
  static constexpr std::size_t kValues = formats::BlockQ1_58::kValues;
  static constexpr std::size_t kBlockBytes = sizeof(formats::BlockQ1_58);
  static constexpr std::size_t kBlocksPerStep = 1;
  static constexpr int kActivationVectors = 2;
  // The bf16 scale at bytes 32..33 is the high half of the word at 30.
  static constexpr std::int32_t kScaleWord = 30;
  static constexpr bool kBf16Scale = true;
  static constexpr CodeOrder kOrder = CodeOrder::natural;
  using Weights = avx512::TernaryCodes;

  template <int kBlocks>
  [[gnu::always_inline]] static Weights expand(const std::uint8_t* block, std::size_t) {
    return avx512::expand_ternary_group(block);
  }
  [[gnu::always_inline]] static __m512i dot(__m512i acc, const Weights& w, const __m512i* x) { return avx512::dot_ternary_group(acc, w, x); }
  [[gnu::always_inline]] static __m512i block_sums(__m512i dots, __m512i x_sums) { return _mm512_sub_epi32(dots, x_sums); }
};

avx512::WeightRows plain_rows(const void* w, std::size_t rows, std::size_t k) {
  return {static_cast<const std::uint8_t*>(w), k / Q1_58Format::kValues * Q1_58Format::kBlockBytes,
          Q1_58Format::kBlockBytes, rows};
}

}  // namespace

void Avx512Kernels::gemm_q1_58(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                               size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemm_q1_58(w, x, x_scales, out, out_stride, n_tokens, rows, k);
  avx512::block_products<Q1_58Format>(plain_rows(w, rows, k), x, x_scales, n_tokens, k, out, out_stride);
}

void Avx512Kernels::gemv_q1_58(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                               size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_q1_58(w, x, x_scale, out, rows, k);
  avx512::block_products<Q1_58Format>(plain_rows(w, rows, k), x, &x_scale, 1, k, out, 0);
}

void Avx512Kernels::gemv_q1_58_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                   size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_q1_58_f32(w, x, x_scale, out, rows, k);
  avx512::block_products<Q1_58Format>(plain_rows(w, rows, k), x, &x_scale, 1, k, out, 0);
}

}  // namespace quorvel::kernels::x86
