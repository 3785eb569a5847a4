// q1_0_128 products (one sign bit per weight, a bf16 scale per 128 weights)
// on AVX-512 VNNI. The activations are prepared with every 8 codes reversed,
// so that a block's sign bytes, read as two little-endian 64-bit words, are
// directly the byte masks of its 128 weights. The masks select ones, VPDPBUSD
// sums the selected activations, and S_b = 2 * (set sum) - (block sum).
#include <cstring>

#include "runtime/formats/q1_0.h"
#include "runtime/x86/avx512_block_products.h"
#include "runtime/x86/avx512_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

struct Q1_0Format {
  static constexpr std::size_t kValues = formats::BlockQ1_0::kValues;
  static constexpr std::size_t kBlockBytes = sizeof(formats::BlockQ1_0);
  static constexpr std::size_t kBlocksPerStep = 1;
  static constexpr int kActivationVectors = 2;
  // The bf16 scale at bytes 16..17 is the high half of the word at 14.
  static constexpr std::int32_t kScaleWord = 14;
  static constexpr bool kBf16Scale = true;
  static constexpr CodeOrder kOrder = CodeOrder::sign_bits_lsb_first;
  struct Weights {
    __m512i v[2];  // 1 where the sign bit is set, 0 elsewhere
  };

  template <int kBlocks>
  [[gnu::always_inline]] static Weights expand(const std::uint8_t* block, std::size_t) {
    std::uint64_t low, high;
    std::memcpy(&low, block, sizeof low);
    std::memcpy(&high, block + 8, sizeof high);
    const __m512i ones = _mm512_set1_epi8(1);
    return {{_mm512_maskz_mov_epi8(_cvtu64_mask64(low), ones), _mm512_maskz_mov_epi8(_cvtu64_mask64(high), ones)}};
  }
  [[gnu::always_inline]] static __m512i dot(__m512i acc, const Weights& w, const __m512i* x) {
    return _mm512_dpbusd_epi32(_mm512_dpbusd_epi32(acc, w.v[0], x[0]), w.v[1], x[1]);
  }
  [[gnu::always_inline]] static __m512i block_sums(__m512i set_sums, __m512i x_sums) {
    return _mm512_sub_epi32(_mm512_slli_epi32(set_sums, 1), x_sums);
  }
};

avx512::WeightRows plain_rows(const void* w, std::size_t rows, std::size_t k) {
  return {static_cast<const std::uint8_t*>(w), k / Q1_0Format::kValues * Q1_0Format::kBlockBytes,
          Q1_0Format::kBlockBytes, rows};
}

}  // namespace

void Avx512Kernels::gemm_q1_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                              size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemm_q1_0(w, x, x_scales, out, out_stride, n_tokens, rows, k);
  avx512::block_products<Q1_0Format>(plain_rows(w, rows, k), x, x_scales, n_tokens, k, out, out_stride);
}

void Avx512Kernels::gemv_q1_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                              size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_q1_0(w, x, x_scale, out, rows, k);
  avx512::block_products<Q1_0Format>(plain_rows(w, rows, k), x, &x_scale, 1, k, out, 0);
}

void Avx512Kernels::gemv_q1_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                  size_t k) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_q1_0_f32(w, x, x_scale, out, rows, k);
  avx512::block_products<Q1_0Format>(plain_rows(w, rows, k), x, &x_scale, 1, k, out, 0);
}

}  // namespace quorvel::kernels::x86
