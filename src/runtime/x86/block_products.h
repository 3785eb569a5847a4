// The engine of the block-format products (q1_0_128, q1.58, q8_0, and the
// q4_0 / q5_0 logits) on any lane trait Isa (avx2_isa.h, avx512_isa.h).
//
// Every lane of a vector is one output: row l / kTokens and token
// l % kTokens of a pass over kLanes / kTokens weight rows. Per block column
// the engine expands each row's block once, takes its dot product with every
// token's activations, reduces the partial vectors to one vector of exact
// integer block sums S_b, and then adds d_b * (float)S_b to each lane's own
// f32 accumulator, product rounded, no fused multiply-add. Each lane thus
// follows the portable order literally (one accumulator per row and token,
// in block order), which keeps the results bit for bit, while the float work
// is spread across rows. Where a vector holds two 32-value blocks
// (kBlocksPerStep = 2, AVX-512), one step takes two block columns and the
// reduction splits each vector's halves.
//
// A Format (a template over Isa) supplies: kValues per block, kBlockBytes,
// kBlocksPerStep, kActivationVectors (activation vectors a step reads),
// kScaleWord (the byte offset of a 32-bit word holding the scale: an f32, or
// a bf16 in its high half when kBf16Scale), kOrder (the activation order it
// expects), Weights, expand<kBlocks>(block, block_step), dot(acc, weights,
// activations) and block_sums(dots, activation block sums).
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/formats/unembed_layout.h"
#include "runtime/x86/lane_passes.h"
#include "runtime/x86/pass_prefetch.h"
#include "runtime/x86/prepared_activations.h"

namespace quorvel::kernels::x86 {
namespace {

// Row r's block b lies at first + r * row_bytes + b * block_step: plain rows
// (block_step = block size) or a grouped unembedding table.
template <typename Isa>
struct WeightRows {
  const std::uint8_t* first;
  std::size_t row_bytes;
  std::size_t block_step;
  std::size_t rows;
};

// Plain rows of ceil(k / kValues) blocks.
template <typename Isa, typename Format>
WeightRows<Isa> plain_rows(const void* w, std::size_t rows, std::size_t k) {
  const std::size_t blocks = (k + Format::kValues - 1) / Format::kValues;
  return {static_cast<const std::uint8_t*>(w), blocks * Format::kBlockBytes, Format::kBlockBytes, rows};
}

template <typename Isa, typename Format>
[[gnu::always_inline]] inline typename Isa::Floats block_scales(const std::uint8_t* column,
                                                                typename Isa::Ints scale_offsets) {
  const auto words = Isa::gather_words(column, scale_offsets);
  if constexpr (Format::kBf16Scale) {
    return Isa::as_floats(Isa::template shift_left<16>(Isa::template shift_right<16>(words)));
  }
  return Isa::as_floats(words);
}

// acc + d_b * (float)S_b for block b of every lane.
template <typename Isa, typename Format, int kTokens>
[[gnu::always_inline]] inline typename Isa::Floats add_block(typename Isa::Floats acc, typename Isa::Ints dots,
                                                             const PreparedActivations& x, std::size_t b,
                                                             const std::uint8_t* column,
                                                             typename Isa::Ints scale_offsets) {
  const auto sums = Format::block_sums(dots, Isa::template broadcast_tokens<kTokens>(x.block_sums + b * kTokens));
  return acc + block_scales<Isa, Format>(column, scale_offsets) * Isa::to_floats(sums);
}

// The rows of one pass, clamped so that the lanes past the last row repeat it.
template <typename Isa, int kTokens>
struct PassRows {
  const std::uint8_t* row[kRowsPerPass<Isa, kTokens>];
  typename Isa::Ints scale_offsets;
};

template <typename Isa, typename Format, int kTokens>
PassRows<Isa, kTokens> pass_rows(const WeightRows<Isa>& w, std::size_t first, std::size_t n) {
  PassRows<Isa, kTokens> pass;
  alignas(Isa::kVectorBytes) std::int32_t offsets[Isa::kLanes];
  for (std::size_t r = 0; r < kRowsPerPass<Isa, kTokens>; ++r) {
    const std::size_t clamped = r < n ? r : n - 1;
    pass.row[r] = w.first + (first + clamped) * w.row_bytes;
    #pragma GCC unroll 16
    for (int t = 0; t < kTokens; ++t) {
      offsets[r * kTokens + t] = static_cast<std::int32_t>(clamped * w.row_bytes) + Format::kScaleWord;
    }
  }
  pass.scale_offsets = Isa::load(offsets);
  return pass;
}

// One step: kBlocks (<= Format::kBlocksPerStep) block columns starting at b.
template <typename Isa, typename Format, int kTokens, int kBlocks>
[[gnu::always_inline]] inline typename Isa::Floats block_step(typename Isa::Floats acc,
                                                              const PassRows<Isa, kTokens>& pass,
                                                              const WeightRows<Isa>& w, const PreparedActivations& x,
                                                              std::size_t b) {
  typename Isa::Ints xv[kTokens][Format::kActivationVectors];
  #pragma GCC unroll 16
  for (int t = 0; t < kTokens; ++t) {
    #pragma GCC unroll 16
    for (int i = 0; i < Format::kActivationVectors; ++i) {
      xv[t][i] = Isa::load(x.codes[t] + b * Format::kValues + Isa::kVectorBytes * i);
    }
  }
  const std::size_t offset = b * w.block_step;
  typename Isa::Ints partial[Isa::kLanes];
  #pragma GCC unroll 16
  for (int r = 0; r < kRowsPerPass<Isa, kTokens>; ++r) {
    const typename Format::Weights wr = Format::template expand<kBlocks>(pass.row[r] + offset, w.block_step);
    #pragma GCC unroll 16
    for (int t = 0; t < kTokens; ++t) partial[r * kTokens + t] = Format::dot(Isa::zero(), wr, xv[t]);
  }
  const std::uint8_t* column = pass.row[0] + offset;
  if constexpr (Format::kBlocksPerStep == 1) {
    return add_block<Isa, Format, kTokens>(acc, Isa::sum_lanes(partial), x, b, column, pass.scale_offsets);
  } else {
    typename Isa::Ints low, high;
    Isa::sum_halves(partial, low, high);
    acc = add_block<Isa, Format, kTokens>(acc, low, x, b, column, pass.scale_offsets);
    if constexpr (kBlocks == 2) {
      acc = add_block<Isa, Format, kTokens>(acc, high, x, b + 1, column + w.block_step, pass.scale_offsets);
    }
    return acc;
  }
}

// Rows [first, first + n) against the prepared tokens; out points at row first of token 0.
template <typename Isa, typename Format, int kTokens, typename Out>
void block_pass(const WeightRows<Isa>& w, std::size_t first, std::size_t n, const PreparedActivations& x, Out* out,
                std::size_t out_stride) {
  const PassRows<Isa, kTokens> pass = pass_rows<Isa, Format, kTokens>(w, first, n);
  constexpr std::size_t kStep = Format::kBlocksPerStep;
  const PassPrefetch<Isa> prefetch(pass.row[0], kRowsPerPass<Isa, kTokens> * x.blocks * Format::kBlockBytes,
                              (x.blocks + kStep - 1) / kStep);
  typename Isa::Floats acc = Isa::F32::zero();
  std::size_t b = 0;
  for (; b + kStep <= x.blocks; b += kStep) {
    prefetch.step(b / kStep);
    acc = block_step<Isa, Format, kTokens, kStep>(acc, pass, w, x, b);
  }
  if constexpr (kStep == 2) {
    if (b < x.blocks) acc = block_step<Isa, Format, kTokens, 1>(acc, pass, w, x, b);
  }
  store_lanes<Isa, kTokens>(acc * Isa::template broadcast_tokens<kTokens>(x.scales), out, out_stride, n);
}

template <typename Isa, typename Format, int kTokens, typename Out>
void block_rows(const WeightRows<Isa>& w, const PreparedActivations& x, Out* out, std::size_t out_stride) {
  constexpr std::size_t kRows = kRowsPerPass<Isa, kTokens>;
  for (std::size_t r = 0; r < w.rows; r += kRows) {
    block_pass<Isa, Format, kTokens>(w, r, w.rows - r < kRows ? w.rows - r : kRows, x, out + r, out_stride);
  }
}

// Several tokens (token t at x + t * k, outputs at out + t * out_stride),
// four at a time so that each expanded weight block serves four tokens; a
// remainder of two or one token takes a narrower pass. k <= kMaxValues.
template <typename Isa, typename Format, typename Out>
void block_products(const WeightRows<Isa>& w, const std::int8_t* x, const float* x_scales, std::size_t n_tokens,
                    std::size_t k, Out* out, std::size_t out_stride) {
  PreparedActivations prepared;
  token_passes(n_tokens, [&](std::size_t t, std::size_t tokens) {
    prepare_activations(prepared, x + t * k, x_scales + t, tokens, k, Format::kValues, Format::kOrder);
    Out* token_out = out + t * out_stride;
    if (tokens == 4) block_rows<Isa, Format, 4>(w, prepared, token_out, out_stride);
    if (tokens == 2) block_rows<Isa, Format, 2>(w, prepared, token_out, out_stride);
    if (tokens == 1) block_rows<Isa, Format, 1>(w, prepared, token_out, out_stride);
  });
}

// The products over plain rows of k values, or false (and nothing done) when
// k is longer than the prepared activations take: the caller then runs the
// portable set.
template <typename Isa, typename Format, typename Out>
bool plain_products(const void* w, const std::int8_t* x, const float* x_scales, std::size_t n_tokens,
                    std::size_t rows, std::size_t k, Out* out, std::size_t out_stride) {
  if (k > PreparedActivations::kMaxValues) return false;
  block_products<Isa, Format>(plain_rows<Isa, Format>(w, rows, k), x, x_scales, n_tokens, k, out, out_stride);
  return true;
}

// Logits over a table grouped by 32 rows (formats/unembed_layout.h): within
// a group, row r's block b is block b * 32 + r, so each group is a WeightRows
// of its own. rows is a multiple of 32 in use; a shorter last group is taken
// as it comes. False (and nothing done) when k is longer than the prepared
// activations take.
template <typename Isa, typename Format>
bool grouped_logits(const void* w, const std::int8_t* x, float x_scale, float* out, std::size_t rows, std::size_t k) {
  using formats::kUnembedGroupRows;
  if (k > PreparedActivations::kMaxValues) return false;
  const std::size_t blocks = (k + Format::kValues - 1) / Format::kValues;
  const std::size_t group_bytes = kUnembedGroupRows * blocks * Format::kBlockBytes;
  PreparedActivations prepared;
  prepare_activations(prepared, x, &x_scale, 1, k, Format::kValues, Format::kOrder);
  for (std::size_t r = 0; r < rows; r += kUnembedGroupRows) {
    const WeightRows<Isa> group{static_cast<const std::uint8_t*>(w) + r / kUnembedGroupRows * group_bytes,
                                Format::kBlockBytes, kUnembedGroupRows * Format::kBlockBytes,
                                rows - r < kUnembedGroupRows ? rows - r : kUnembedGroupRows};
    block_rows<Isa, Format, 1>(group, prepared, out + r, 0);
  }
  return true;
}

}  // namespace

}  // namespace quorvel::kernels::x86
