// q1.58 products (2-bit codes, a bf16 scale per 128 weights) through the
// block engine, on any lane trait: the codes expand to unsigned bytes 0..3,
// and S_b = sum(c * x) - sum(x) over the block (a code 3 counts as +2).
#pragma once

#include "runtime/formats/q1_58.h"
#include "runtime/x86/block_products.h"
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

template <typename Isa>
struct Q1_58Format {
  using Ints = typename Isa::Ints;
  static constexpr std::size_t kValues = formats::BlockQ1_58::kValues;
  static constexpr std::size_t kBlockBytes = sizeof(formats::BlockQ1_58);
  static constexpr std::size_t kBlocksPerStep = 1;
  static constexpr int kActivationVectors = Isa::kGroupVectors;
  // The bf16 scale at bytes 32..33 is the high half of the word at 30.
  static constexpr std::int32_t kScaleWord = 30;
  static constexpr bool kBf16Scale = true;
  static constexpr CodeOrder kOrder = CodeOrder::natural;
  using Weights = typename Isa::GroupCodes;

  template <int kBlocks>
  [[gnu::always_inline]] static Weights expand(const std::uint8_t* block, std::size_t) {
    return Isa::expand_ternary_group(block);
  }
  [[gnu::always_inline]] static Ints dot(Ints acc, const Weights& w, const Ints* x) {
    return Isa::template dot_unsigned<kActivationVectors>(acc, w.v, x);
  }
  [[gnu::always_inline]] static Ints block_sums(Ints dots, Ints x_sums) { return Isa::sub(dots, x_sums); }
};

}  // namespace

template <typename Isa>
void X86Kernels<Isa>::gemm_q1_58(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                                 size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  if (!plain_products<Isa, Q1_58Format<Isa>>(w, x, x_scales, n_tokens, rows, k, out, out_stride)) {
    PortableKernels::gemm_q1_58(w, x, x_scales, out, out_stride, n_tokens, rows, k);
  }
}

template <typename Isa>
void X86Kernels<Isa>::gemv_q1_58(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                                 size_t k) const {
  if (!plain_products<Isa, Q1_58Format<Isa>>(w, x, &x_scale, 1, rows, k, out, 0)) {
    PortableKernels::gemv_q1_58(w, x, x_scale, out, rows, k);
  }
}

template <typename Isa>
void X86Kernels<Isa>::gemv_q1_58_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                     size_t k) const {
  if (!plain_products<Isa, Q1_58Format<Isa>>(w, x, &x_scale, 1, rows, k, out, 0)) {
    PortableKernels::gemv_q1_58_f32(w, x, x_scale, out, rows, k);
  }
}

}  // namespace quorvel::kernels::x86
