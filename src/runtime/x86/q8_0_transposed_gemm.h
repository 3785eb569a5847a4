// The several-token q8_0 product by transposed block columns, on any lane
// trait. For each block column the codes of Isa::kLanes rows are transposed
// once (the trait's transpose_words) into eight vectors whose lane r holds
// row r's codes 4j .. 4j + 3; each token then takes eight of the trait's
// signed dot products against its own four activations broadcast, and the
// lanes come out as the rows' exact block sums with no reduction. The
// transpose is shared by every token of the pass, and each broadcast
// activation word by every row of it.
// The float steps per lane are the portable ones: acc = acc + d_b * (float)S_b.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "runtime/formats/q8_0.h"
#include "runtime/x86/lane_passes.h"
#include "runtime/x86/pass_prefetch.h"
#include "runtime/x86/prepared_activations.h"

namespace quorvel::kernels::x86 {
namespace {

constexpr std::size_t kQ8_0Words = formats::BlockQ8_0::kValues / 4;

inline std::int32_t code_word(const std::int8_t* codes) {
  std::int32_t word;
  std::memcpy(&word, codes, sizeof word);
  return word;
}

// Block column `offset` of the pass's rows, transposed, as the trait's signed codes.
template <typename Isa>
[[gnu::always_inline]] inline void load_column(const std::uint8_t* const (&row)[Isa::kLanes], std::size_t offset,
                                               typename Isa::SignedCodes (&codes)[kQ8_0Words]) {
  typename Isa::Ints words[kQ8_0Words];
  Isa::transpose_words(row, offset + offsetof(formats::BlockQ8_0, q), words);
#pragma GCC unroll 8
  for (std::size_t j = 0; j < kQ8_0Words; ++j) codes[j] = Isa::signed_codes(words[j]);
}

// Lane r = the exact sum of block b of row r with token t's block b.
template <typename Isa, int kTokens>
[[gnu::always_inline]] inline typename Isa::Ints block_sums(const typename Isa::SignedCodes (&codes)[kQ8_0Words],
                                                            const PreparedActivations& x, std::size_t t,
                                                            std::size_t b) {
  const std::int8_t* xb = x.codes[t] + b * formats::BlockQ8_0::kValues;
  typename Isa::Ints sums = Isa::zero();
#pragma GCC unroll 8
  for (std::size_t j = 0; j < kQ8_0Words; ++j) sums = Isa::dot_signed(sums, codes[j], Isa::set1(code_word(xb + 4 * j)));
  return Isa::signed_sums(sums, Isa::set1(x.block_sums[b * kTokens + t]));
}

// Rows [first, first + n) (n <= kLanes; lanes past the last row repeat it)
// for the prepared pass of kTokens tokens; out points at the first token's
// row `first`.
template <typename Isa, int kTokens>
void transposed_pass(const std::uint8_t* w, std::size_t row_bytes, std::size_t first, std::size_t n,
                     const PreparedActivations& x, bf16* out, std::size_t out_stride) {
  constexpr std::size_t kRows = Isa::kLanes;
  const std::uint8_t* row[kRows];
  alignas(Isa::kVectorBytes) std::int32_t scale_offsets[kRows];
  for (std::size_t r = 0; r < kRows; ++r) {
    row[r] = w + (first + (r < n ? r : n - 1)) * row_bytes;
    scale_offsets[r] = static_cast<std::int32_t>(row[r] - row[0]) + offsetof(formats::BlockQ8_0, d);
  }
  const typename Isa::Ints scale_index = Isa::load(scale_offsets);
  const PassPrefetch<Isa> prefetch(row[0], kRows * row_bytes, x.blocks);
  typename Isa::Floats acc[kTokens];
#pragma GCC unroll 8
  for (int t = 0; t < kTokens; ++t) acc[t] = Isa::F32::zero();
  for (std::size_t b = 0; b < x.blocks; ++b) {
    prefetch.step(b);
    const std::size_t offset = b * sizeof(formats::BlockQ8_0);
    typename Isa::SignedCodes codes[kQ8_0Words];
    load_column<Isa>(row, offset, codes);
    const typename Isa::Floats d = Isa::as_floats(Isa::gather_words(row[0] + offset, scale_index));
#pragma GCC unroll 8
    for (int t = 0; t < kTokens; ++t) acc[t] = acc[t] + d * Isa::to_floats(block_sums<Isa, kTokens>(codes, x, t, b));
  }
#pragma GCC unroll 8
  for (int t = 0; t < kTokens; ++t) {
    store_lanes<Isa, 1>(acc[t] * Isa::F32::set1(x.scales[t]), out + t * out_stride, 0, n);
  }
}

template <typename Isa, int kTokens>
void transposed_rows(const std::uint8_t* w, std::size_t rows, std::size_t row_bytes, const PreparedActivations& x,
                     bf16* out, std::size_t out_stride) {
  constexpr std::size_t kRows = Isa::kLanes;
  for (std::size_t r = 0; r < rows; r += kRows) {
    transposed_pass<Isa, kTokens>(w, row_bytes, r, rows - r < kRows ? rows - r : kRows, x, out + r, out_stride);
  }
}

// The 512-bit trait's 32 registers hold eight tokens' accumulators beside a
// block column's codes; the 256-bit traits' 16 hold four.
template <typename Isa>
inline constexpr std::size_t kWidestPass = Isa::kLanes == 16 ? 8 : 4;

// Token t at x + t * k, its outputs at out + t * out_stride; k <= kMaxValues.
// The tokens go in passes of eight on a trait with 32 registers (the
// layers' tiles of 8 tokens), else of four (their chunks), a remainder of
// four, two or one in a narrower pass.
template <typename Isa>
void transposed_q8_0_gemm(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                          std::size_t out_stride, std::size_t n_tokens, std::size_t rows, std::size_t k) {
  using formats::BlockQ8_0;
  const auto* weights = static_cast<const std::uint8_t*>(w);
  const std::size_t row_bytes = (k + BlockQ8_0::kValues - 1) / BlockQ8_0::kValues * sizeof(BlockQ8_0);
  PreparedActivations prepared;
  for (std::size_t t = 0; t < n_tokens;) {
    const std::size_t left = n_tokens - t;
    const std::size_t widest = kWidestPass<Isa>;
    const std::size_t tokens = left >= widest ? widest : left >= 4 ? 4 : left >= 2 ? 2 : 1;
    prepare_activations(prepared, x + t * k, x_scales + t, tokens, k, BlockQ8_0::kValues, CodeOrder::natural);
    bf16* pass_out = out + t * out_stride;
    if constexpr (kWidestPass<Isa> == 8) {
      if (tokens == 8) transposed_rows<Isa, 8>(weights, rows, row_bytes, prepared, pass_out, out_stride);
    }
    if (tokens == 4) transposed_rows<Isa, 4>(weights, rows, row_bytes, prepared, pass_out, out_stride);
    if (tokens == 2) transposed_rows<Isa, 2>(weights, rows, row_bytes, prepared, pass_out, out_stride);
    if (tokens == 1) transposed_rows<Isa, 1>(weights, rows, row_bytes, prepared, pass_out, out_stride);
    t += tokens;
  }
}

}  // namespace

}  // namespace quorvel::kernels::x86
