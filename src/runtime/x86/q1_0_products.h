// q1_0_128 products (one sign bit per weight, a bf16 scale per 128 weights)
// through the block engine, on any lane trait. The activations are prepared
// with every 8 codes reversed, so that byte i of a vector pairs with bit i
// of the block's little-endian sign bits; the trait turns the bits into 0/1
// bytes, the unsigned dot product sums the selected activations, and
// S_b = 2 * (set sum) - (block sum).
#pragma once

#include "runtime/formats/q1_0.h"
#include "runtime/x86/block_products.h"
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

template <typename Isa>
struct Q1_0Format {
  using Ints = typename Isa::Ints;
  static constexpr std::size_t kValues = formats::BlockQ1_0::kValues;
  static constexpr std::size_t kBlockBytes = sizeof(formats::BlockQ1_0);
  static constexpr std::size_t kBlocksPerStep = 1;
  static constexpr int kActivationVectors = kValues / Isa::kVectorBytes;
  // The bf16 scale at bytes 16..17 is the high half of the word at 14.
  static constexpr std::int32_t kScaleWord = 14;
  static constexpr bool kBf16Scale = true;
  static constexpr CodeOrder kOrder = CodeOrder::sign_bits_lsb_first;
  struct Weights {
    Ints v[kActivationVectors];  // 1 where the sign bit is set, 0 elsewhere
  };

  template <int kBlocks>
  [[gnu::always_inline]] static Weights expand(const std::uint8_t* block, std::size_t) {
    Weights w;
    #pragma GCC unroll 16
    for (int i = 0; i < kActivationVectors; ++i) w.v[i] = Isa::bits_as_bytes(block + i * Isa::kVectorBytes / 8);
    return w;
  }
  // At most 8 * 127 per 16-bit pair sum on AVX2: no saturation.
  [[gnu::always_inline]] static Ints dot(Ints acc, const Weights& w, const Ints* x) {
    return Isa::template dot_unsigned<kActivationVectors>(acc, w.v, x);
  }
  [[gnu::always_inline]] static Ints block_sums(Ints set_sums, Ints x_sums) {
    return Isa::sub(Isa::template shift_left<1>(set_sums), x_sums);
  }
};

}  // namespace

template <typename Isa>
void X86Kernels<Isa>::gemm_q1_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                                size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  if (!plain_products<Isa, Q1_0Format<Isa>>(w, x, x_scales, n_tokens, rows, k, out, out_stride)) {
    PortableKernels::gemm_q1_0(w, x, x_scales, out, out_stride, n_tokens, rows, k);
  }
}

template <typename Isa>
void X86Kernels<Isa>::gemv_q1_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                                size_t k) const {
  if (!plain_products<Isa, Q1_0Format<Isa>>(w, x, &x_scale, 1, rows, k, out, 0)) {
    PortableKernels::gemv_q1_0(w, x, x_scale, out, rows, k);
  }
}

template <typename Isa>
void X86Kernels<Isa>::gemv_q1_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                    size_t k) const {
  if (!plain_products<Isa, Q1_0Format<Isa>>(w, x, &x_scale, 1, rows, k, out, 0)) {
    PortableKernels::gemv_q1_0_f32(w, x, x_scale, out, rows, k);
  }
}

}  // namespace quorvel::kernels::x86
