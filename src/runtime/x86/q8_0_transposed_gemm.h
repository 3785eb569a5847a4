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
#include <memory>

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
// for kPasses prepared passes x[0 .. kPasses) of kTokens tokens each, whose
// tokens follow one another; out points at the first token's row `first`.
template <typename Isa, int kTokens, int kPasses>
void transposed_pass(const std::uint8_t* w, std::size_t row_bytes, std::size_t first, std::size_t n,
                     const PreparedActivations* x, bf16* out, std::size_t out_stride) {
  constexpr std::size_t kRows = Isa::kLanes;
  const std::uint8_t* row[kRows];
  alignas(Isa::kVectorBytes) std::int32_t scale_offsets[kRows];
  for (std::size_t r = 0; r < kRows; ++r) {
    row[r] = w + (first + (r < n ? r : n - 1)) * row_bytes;
    scale_offsets[r] = static_cast<std::int32_t>(row[r] - row[0]) + offsetof(formats::BlockQ8_0, d);
  }
  const typename Isa::Ints scale_index = Isa::load(scale_offsets);
  const PassPrefetch<Isa> prefetch(row[0], kRows * row_bytes, x[0].blocks);
  typename Isa::Floats acc[kPasses][kTokens];
#pragma GCC unroll 8
  for (int i = 0; i < kPasses * kTokens; ++i) acc[i / kTokens][i % kTokens] = Isa::F32::zero();
  for (std::size_t b = 0; b < x[0].blocks; ++b) {
    prefetch.step(b);
    const std::size_t offset = b * sizeof(formats::BlockQ8_0);
    typename Isa::SignedCodes codes[kQ8_0Words];
    load_column<Isa>(row, offset, codes);
    const typename Isa::Floats d = Isa::as_floats(Isa::gather_words(row[0] + offset, scale_index));
#pragma GCC unroll 8
    for (int i = 0; i < kPasses * kTokens; ++i) {
      auto& a = acc[i / kTokens][i % kTokens];
      a = a + d * Isa::to_floats(block_sums<Isa, kTokens>(codes, x[i / kTokens], i % kTokens, b));
    }
  }
#pragma GCC unroll 8
  for (int i = 0; i < kPasses * kTokens; ++i) {
    const auto scale = Isa::F32::set1(x[i / kTokens].scales[i % kTokens]);
    store_lanes<Isa, 1>(acc[i / kTokens][i % kTokens] * scale, out + i * out_stride, 0, n);
  }
}

template <typename Isa, int kTokens, int kPasses = 1>
void transposed_rows(const std::uint8_t* w, std::size_t rows, std::size_t row_bytes, const PreparedActivations* x,
                     bf16* out, std::size_t out_stride) {
  constexpr std::size_t kRows = Isa::kLanes;
  for (std::size_t r = 0; r < rows; r += kRows) {
    transposed_pass<Isa, kTokens, kPasses>(w, row_bytes, r, rows - r < kRows ? rows - r : kRows, x, out + r,
                                           out_stride);
  }
}

// A call's tokens go in groups of at most this many, prepared once each (in
// passes of four, two and one; two passes of four run together as eight);
// every chunk of rows then meets all of a group's token passes before the
// next chunk starts, so that its weights come from the core's own cache
// after the first pass. A chunk holds as many whole transposed passes of
// rows as fit kCachedRowBytes.
constexpr std::size_t kGroupTokens = 32;
constexpr std::size_t kCachedRowBytes = 128 * 1024;

struct TokenPass {
  std::size_t first;
  std::size_t count;
};

// The prepared passes of one group (a group short of a multiple of four ends
// in a pass of two and one of one). A type of this file's own, so that each
// instruction set's copy of the code that frees it stays its own.
struct PreparedGroup {
  PreparedActivations passes[kGroupTokens / PreparedActivations::kMaxTokens + 1];
};

// Kept per thread from call to call.
inline PreparedActivations* prepared_passes() {
  thread_local const std::unique_ptr<PreparedGroup> group = std::make_unique<PreparedGroup>();
  return group->passes;
}

template <typename Isa>
std::size_t cached_rows(std::size_t rows, std::size_t row_bytes, std::size_t n_tokens) {
  if (n_tokens <= PreparedActivations::kMaxTokens) return rows;
  const std::size_t passes = kCachedRowBytes / row_bytes / Isa::kLanes;
  return (passes == 0 ? 1 : passes) * Isa::kLanes;
}

// Tokens [0, n_tokens) of a group (token t at x + t * k) against all rows.
template <typename Isa>
void transposed_group(const std::uint8_t* w, const std::int8_t* x, const float* x_scales, bf16* out,
                      std::size_t out_stride, std::size_t n_tokens, std::size_t rows, std::size_t k) {
  using formats::BlockQ8_0;
  const std::size_t row_bytes = (k + BlockQ8_0::kValues - 1) / BlockQ8_0::kValues * sizeof(BlockQ8_0);
  PreparedActivations* prepared = prepared_passes();
  TokenPass passes[kGroupTokens];
  std::size_t n_passes = 0;
  token_passes(n_tokens, [&](std::size_t t, std::size_t tokens) {
    prepare_activations(prepared[n_passes], x + t * k, x_scales + t, tokens, k, BlockQ8_0::kValues,
                        CodeOrder::natural);
    passes[n_passes++] = {t, tokens};
  });
  const std::size_t chunk = cached_rows<Isa>(rows, row_bytes, n_tokens);
  for (std::size_t r = 0; r < rows; r += chunk) {
    const std::uint8_t* weights = w + r * row_bytes;
    const std::size_t n = rows - r < chunk ? rows - r : chunk;
    for (std::size_t p = 0; p < n_passes;) {
      bf16* pass_out = out + passes[p].first * out_stride + r;
      const PreparedActivations* x_pass = prepared + p;
      const bool paired = passes[p].count == 4 && p + 1 < n_passes && passes[p + 1].count == 4;
      if (paired) {
        transposed_rows<Isa, 4, 2>(weights, n, row_bytes, x_pass, pass_out, out_stride);
      } else if (passes[p].count == 4) {
        transposed_rows<Isa, 4>(weights, n, row_bytes, x_pass, pass_out, out_stride);
      } else if (passes[p].count == 2) {
        transposed_rows<Isa, 2>(weights, n, row_bytes, x_pass, pass_out, out_stride);
      } else {
        transposed_rows<Isa, 1>(weights, n, row_bytes, x_pass, pass_out, out_stride);
      }
      p += paired ? 2 : 1;
    }
  }
}

// Token t at x + t * k, its outputs at out + t * out_stride; k <= kMaxValues.
template <typename Isa>
void transposed_q8_0_gemm(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                          std::size_t out_stride, std::size_t n_tokens, std::size_t rows, std::size_t k) {
  for (std::size_t t = 0; t < n_tokens; t += kGroupTokens) {
    const std::size_t tokens = n_tokens - t < kGroupTokens ? n_tokens - t : kGroupTokens;
    transposed_group<Isa>(static_cast<const std::uint8_t*>(w), x + t * k, x_scales + t, out + t * out_stride,
                          out_stride, tokens, rows, k);
  }
}

}  // namespace

}  // namespace quorvel::kernels::x86
