// q8_0 products (int8 codes, an f32 scale per 32 values) through the block
// engine, on any lane trait, for weight rows and for the grouped
// unembedding table. The codes are signed, so they go through the trait's
// signed dot product; where a vector holds 64 bytes, two blocks of a row
// fill one. A row whose length is not a whole number of blocks ends in a
// partial block whose missing codes meet the prepared activations' zero
// padding. gemm_q8_0 takes the transposed engine (q8_0_transposed_gemm.h),
// which shares each block column's transpose among the tokens of a pass.
#pragma once

#include <cstddef>

#include "runtime/formats/q8_0.h"
#include "runtime/x86/block_products.h"
#include "runtime/x86/intrinsics.h"
#include "runtime/x86/q8_0_transposed_gemm.h"
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

template <typename Isa>
struct Q8_0Format {
  using Ints = typename Isa::Ints;
  static constexpr std::size_t kValues = formats::BlockQ8_0::kValues;
  static constexpr std::size_t kBlockBytes = sizeof(formats::BlockQ8_0);
  static constexpr std::size_t kBlocksPerStep = Isa::kVectorBytes / kValues;
  static constexpr int kActivationVectors = 1;
  static constexpr std::int32_t kScaleWord = 0;
  static constexpr bool kBf16Scale = false;
  static constexpr CodeOrder kOrder = CodeOrder::natural;
  using Weights = typename Isa::SignedCodes;

  template <int kBlocks>
  [[gnu::always_inline]] static Weights expand(const std::uint8_t* block, std::size_t block_step) {
    const std::uint8_t* codes = block + offsetof(formats::BlockQ8_0, q);
    return Isa::signed_codes(Isa::template join_parts<kBlocks>([&](std::size_t i) {
      return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(codes + i * block_step));
    }));
  }
  [[gnu::always_inline]] static Ints dot(Ints acc, const Weights& w, const Ints* x) {
    return Isa::dot_signed(acc, w, x[0]);
  }
  [[gnu::always_inline]] static Ints block_sums(Ints dots, Ints x_sums) { return Isa::signed_sums(dots, x_sums); }
};

}  // namespace

template <typename Isa>
void X86Kernels<Isa>::gemm_q8_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                                size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  if (k > PreparedActivations::kMaxValues) {
    return PortableKernels::gemm_q8_0(w, x, x_scales, out, out_stride, n_tokens, rows, k);
  }
  transposed_q8_0_gemm<Isa>(w, x, x_scales, out, out_stride, n_tokens, rows, k);
}

template <typename Isa>
void X86Kernels<Isa>::gemv_q8_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                                size_t k) const {
  if (!plain_products<Isa, Q8_0Format<Isa>>(w, x, &x_scale, 1, rows, k, out, 0)) {
    PortableKernels::gemv_q8_0(w, x, x_scale, out, rows, k);
  }
}

template <typename Isa>
void X86Kernels<Isa>::gemv_q8_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                    size_t k) const {
  if (!grouped_logits<Isa, Q8_0Format<Isa>>(w, x, x_scale, out, rows, k)) {
    PortableKernels::gemv_q8_0_f32(w, x, x_scale, out, rows, k);
  }
}

}  // namespace quorvel::kernels::x86
