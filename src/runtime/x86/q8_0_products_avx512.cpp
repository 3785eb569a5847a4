// q8_0 single-token products (int8 codes, an f32 scale per 32 values) on
// AVX-512 VNNI, for weight rows and for the grouped unembedding table (the
// several-token product is q8_0_gemm_avx512.cpp). Two blocks of a row
// fill one vector. VPDPBUSD wants one unsigned operand, so the codes are
// flipped to q + 128 and S_b = sum((q + 128) * x) - 128 * sum(x). A row whose
// length is not a whole number of blocks ends in a partial block whose
// missing codes meet the prepared activations' zero padding.
#include "runtime/formats/q8_0.h"
#include "runtime/x86/avx512_block_products.h"
#include "runtime/x86/avx512_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

struct Q8_0Format {
  static constexpr std::size_t kValues = formats::BlockQ8_0::kValues;
  static constexpr std::size_t kBlockBytes = sizeof(formats::BlockQ8_0);
  static constexpr std::size_t kBlocksPerStep = 2;
  static constexpr int kActivationVectors = 1;
  static constexpr std::int32_t kScaleWord = 0;
  static constexpr bool kBf16Scale = false;
  static constexpr CodeOrder kOrder = CodeOrder::natural;
  struct Weights {
    __m512i codes;  // q + 128 of block b (low half) and b + 1 (high half)
  };

  template <int kBlocks>
  [[gnu::always_inline]] static Weights expand(const std::uint8_t* block, std::size_t block_step) {
    const __m256i first = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block + 4));
    const __m256i second = kBlocks == 2
                               ? _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block + block_step + 4))
                               : _mm256_setzero_si256();
    const __m512i both = _mm512_inserti64x4(_mm512_castsi256_si512(first), second, 1);
    return {_mm512_xor_si512(both, _mm512_set1_epi8(static_cast<char>(0x80)))};
  }
  [[gnu::always_inline]] static __m512i dot(__m512i acc, const Weights& w, const __m512i* x) {
    return _mm512_dpbusd_epi32(acc, w.codes, x[0]);
  }
  [[gnu::always_inline]] static __m512i block_sums(__m512i dots, __m512i x_sums) {
    return _mm512_sub_epi32(dots, _mm512_slli_epi32(x_sums, 7));
  }
};

avx512::WeightRows plain_rows(const void* w, std::size_t rows, std::size_t k) {
  return {static_cast<const std::uint8_t*>(w), formats::q8_0_blocks_per_row(k) * Q8_0Format::kBlockBytes,
          Q8_0Format::kBlockBytes, rows};
}

}  // namespace

void Avx512Kernels::gemv_q8_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                              size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_q8_0(w, x, x_scale, out, rows, k);
  avx512::block_products<Q8_0Format>(plain_rows(w, rows, k), x, &x_scale, 1, k, out, 0);
}

void Avx512Kernels::gemv_q8_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                  size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_q8_0_f32(w, x, x_scale, out, rows, k);
  avx512::grouped_logits<Q8_0Format>(w, x, x_scale, out, rows, k);
}

}  // namespace quorvel::kernels::x86
