// Ternary ("BitLinear") products on any lane trait. Each 128-weight group's
// 2-bit codes expand to unsigned bytes and meet the signed activations in
// the trait's unsigned dot product, exact in 32-bit lanes (on AVX2 the four
// vectors of a group add up in 16 bits first, at most 4 * 762, so a stray
// code 3 cannot overflow either). The integer sums need no per-block float
// step, so every row keeps one vector of partial sums over the whole row and
// the rows of a pass are reduced once at the end; then
// (double)(sum - x_sum) * (gamma * (double)x_scale), rounded to f32 and
// narrowed to bf16 with nearest-even, as the portable set does.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/formats/ternary.h"
#include "runtime/x86/lane_passes.h"
#include "runtime/x86/pass_prefetch.h"
#include "runtime/x86/prepared_activations.h"
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

// Rows [first, first + n) of the pass; lanes past the last row repeat it.
template <typename Isa, int kTokens>
void ternary_pass(const std::uint8_t* w, std::size_t first, std::size_t n, std::size_t k,
                  const PreparedActivations& x, const double* scales, bf16* out, std::size_t out_stride) {
  using formats::kTernaryGroup;
  constexpr int kRows = kRowsPerPass<Isa, kTokens>;
  constexpr int kVectors = Isa::kGroupVectors;
  const std::size_t row_bytes = k / 4;
  const std::uint8_t* row[kRows];
  for (std::size_t r = 0; r < kRows; ++r) row[r] = w + (first + (r < n ? r : n - 1)) * row_bytes;
  typename Isa::Ints partial[Isa::kLanes];
  #pragma GCC unroll 16
  for (auto& p : partial) p = Isa::zero();
  const PassPrefetch<Isa> prefetch(row[0], kRows * row_bytes, k / kTernaryGroup);
  for (std::size_t g = 0; g < k / kTernaryGroup; ++g) {
    prefetch.step(g);
    typename Isa::Ints xv[kTokens][kVectors];
    #pragma GCC unroll 16
    for (int t = 0; t < kTokens; ++t) {
      #pragma GCC unroll 16
      for (int i = 0; i < kVectors; ++i) xv[t][i] = Isa::load(x.codes[t] + g * kTernaryGroup + Isa::kVectorBytes * i);
    }
    #pragma GCC unroll 16
    for (int r = 0; r < kRows; ++r) {
      const typename Isa::GroupCodes codes = Isa::expand_ternary_group(row[r] + g * formats::kTernaryGroupBytes);
      #pragma GCC unroll 16
      for (int t = 0; t < kTokens; ++t) {
        partial[r * kTokens + t] = Isa::template dot_unsigned<kVectors>(partial[r * kTokens + t], codes.v, xv[t]);
      }
    }
  }
  const auto sums = Isa::sub(Isa::sum_lanes(partial), Isa::template broadcast_tokens<kTokens>(x.row_sums));
  store_lanes<Isa, kTokens>(Isa::template scale_in_double<kTokens>(sums, scales), out + first, out_stride, n);
}

template <typename Isa, int kTokens>
void ternary_rows(const std::uint8_t* w, std::size_t rows, std::size_t k, const PreparedActivations& x,
                  const double* scales, bf16* out, std::size_t out_stride) {
  constexpr std::size_t kRows = kRowsPerPass<Isa, kTokens>;
  for (std::size_t r = 0; r < rows; r += kRows) {
    ternary_pass<Isa, kTokens>(w, r, rows - r < kRows ? rows - r : kRows, k, x, scales, out, out_stride);
  }
}

}  // namespace

template <typename Isa>
void X86Kernels<Isa>::gemv_ternary(const std::uint8_t* w, const std::int8_t* x, std::int32_t x_sum, bf16* out,
                                   size_t rows, size_t k, float x_scale, double gamma) const {
  if (k > PreparedActivations::kMaxValues) {
    return PortableKernels::gemv_ternary(w, x, x_sum, out, rows, k, x_scale, gamma);
  }
  PreparedActivations prepared;
  prepare_activations(prepared, x, &x_scale, 1, k, formats::kTernaryGroup, CodeOrder::natural);
  prepared.row_sums[0] = x_sum;  // the caller's sum is the one the definition subtracts
  const double scale = gamma * static_cast<double>(x_scale);
  ternary_rows<Isa, 1>(w, rows, k, prepared, &scale, out, 0);
}

template <typename Isa>
void X86Kernels<Isa>::gemm_ternary(double gamma, const std::uint8_t* w, const std::int8_t* x, const float* x_scales,
                                   bf16* out, size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  if (k > PreparedActivations::kMaxValues) {
    return PortableKernels::gemm_ternary(gamma, w, x, x_scales, out, out_stride, n_tokens, rows, k);
  }
  PreparedActivations prepared;
  token_passes(n_tokens, [&](std::size_t t, std::size_t tokens) {
    prepare_activations(prepared, x + t * k, x_scales + t, tokens, k, formats::kTernaryGroup, CodeOrder::natural);
    double scales[PreparedActivations::kMaxTokens];
    for (std::size_t i = 0; i < tokens; ++i) scales[i] = gamma * static_cast<double>(x_scales[t + i]);
    bf16* token_out = out + t * out_stride;
    if (tokens == 4) ternary_rows<Isa, 4>(w, rows, k, prepared, scales, token_out, out_stride);
    if (tokens == 2) ternary_rows<Isa, 2>(w, rows, k, prepared, scales, token_out, out_stride);
    if (tokens == 1) ternary_rows<Isa, 1>(w, rows, k, prepared, scales, token_out, out_stride);
  });
}

}  // namespace quorvel::kernels::x86
