// The AVX-512 engine of the block-format products (q1_0_128, q1.58, q8_0,
// and the q4_0 / q5_0 logits).
//
// Every lane of a vector is one output: row l / kTokens and token
// l % kTokens of a pass over 16 / kTokens weight rows. Per block column the
// engine expands each row's block once, takes its dot product with every
// token's activations, reduces the sixteen partial vectors to one vector of
// exact integer block sums S_b, and then adds d_b * (float)S_b to each lane's
// own f32 accumulator, product rounded, no fused multiply-add. Each lane thus
// follows the portable order literally (one accumulator per row and token,
// in block order), which keeps the results bit for bit, while the float work
// is spread across rows.
//
// A Format supplies: kValues per block, kBlockBytes, kBlocksPerStep (1, or 2 when two
// blocks fill one vector), kActivationVectors (64-byte activation vectors a
// step reads), kScaleWord (the byte offset of a 32-bit word holding the scale:
// an f32, or a bf16 in its high half when kBf16Scale), kOrder (the activation
// order it expects), Weights, expand<kBlocks>(block, block_step), dot(acc,
// weights, activations) and block_sums(dots, activation block sums).
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/formats/unembed_layout.h"
#include "runtime/x86/avx512_lanes.h"
#include "runtime/x86/intrinsics.h"
#include "runtime/x86/pass_prefetch.h"
#include "runtime/x86/prepared_activations.h"

namespace quorvel::kernels::x86::avx512 {

// Row r's block b lies at first + r * row_bytes + b * block_step: plain rows
// (block_step = block size) or a grouped unembedding table.
struct WeightRows {
  const std::uint8_t* first;
  std::size_t row_bytes;
  std::size_t block_step;
  std::size_t rows;
};

template <typename Format>
[[gnu::always_inline]] inline __m512 block_scales(const std::uint8_t* column, __m512i scale_offsets) {
  const __m512i words = _mm512_i32gather_epi32(scale_offsets, column, 1);
  if constexpr (Format::kBf16Scale) return _mm512_castsi512_ps(_mm512_slli_epi32(_mm512_srli_epi32(words, 16), 16));
  return _mm512_castsi512_ps(words);
}

// acc + d_b * (float)S_b for block b of every lane.
template <typename Format, int kTokens>
[[gnu::always_inline]] inline __m512 add_block(__m512 acc, __m512i dots, const PreparedActivations& x, std::size_t b, const std::uint8_t* column,
                 __m512i scale_offsets) {
  const __m512i sums = Format::block_sums(dots, broadcast_tokens<kTokens>(x.block_sums + b * kTokens));
  return _mm512_add_ps(acc, _mm512_mul_ps(block_scales<Format>(column, scale_offsets), _mm512_cvtepi32_ps(sums)));
}

// The rows of one pass, clamped so that the lanes past the last row repeat it
// (their results are never stored).
template <int kTokens>
struct PassRows {
  const std::uint8_t* row[kRowsPerPass<kTokens>];
  __m512i scale_offsets;
};

template <typename Format, int kTokens>
PassRows<kTokens> pass_rows(const WeightRows& w, std::size_t first, std::size_t n) {
  PassRows<kTokens> pass;
  alignas(64) std::int32_t offsets[kLanes];
  for (std::size_t r = 0; r < kRowsPerPass<kTokens>; ++r) {
    const std::size_t clamped = r < n ? r : n - 1;
    pass.row[r] = w.first + (first + clamped) * w.row_bytes;
    #pragma GCC unroll 16
    for (int t = 0; t < kTokens; ++t) {
      offsets[r * kTokens + t] = static_cast<std::int32_t>(clamped * w.row_bytes) + Format::kScaleWord;
    }
  }
  pass.scale_offsets = _mm512_load_si512(offsets);
  return pass;
}

// One step: kBlocks (<= Format::kBlocksPerStep) block columns starting at b.
template <typename Format, int kTokens, int kBlocks>
[[gnu::always_inline]] inline __m512 block_step(__m512 acc, const PassRows<kTokens>& pass, const WeightRows& w, const PreparedActivations& x,
                  std::size_t b) {
  __m512i xv[kTokens][Format::kActivationVectors];
  #pragma GCC unroll 16
  for (int t = 0; t < kTokens; ++t) {
    #pragma GCC unroll 16
    for (int i = 0; i < Format::kActivationVectors; ++i) {
      xv[t][i] = _mm512_load_si512(x.codes[t] + b * Format::kValues + 64 * i);
    }
  }
  const std::size_t offset = b * w.block_step;
  __m512i partial[kLanes];
  #pragma GCC unroll 16
  for (int r = 0; r < kRowsPerPass<kTokens>; ++r) {
    const typename Format::Weights wr = Format::template expand<kBlocks>(pass.row[r] + offset, w.block_step);
    #pragma GCC unroll 16
    for (int t = 0; t < kTokens; ++t) partial[r * kTokens + t] = Format::dot(_mm512_setzero_si512(), wr, xv[t]);
  }
  const std::uint8_t* column = pass.row[0] + offset;
  if constexpr (Format::kBlocksPerStep == 1) {
    return add_block<Format, kTokens>(acc, sum_lanes(partial), x, b, column, pass.scale_offsets);
  } else {
    __m512i low, high;
    sum_halves(partial, low, high);
    acc = add_block<Format, kTokens>(acc, low, x, b, column, pass.scale_offsets);
    if constexpr (kBlocks == 2) acc = add_block<Format, kTokens>(acc, high, x, b + 1, column + w.block_step, pass.scale_offsets);
    return acc;
  }
}

// Rows [first, first + n) against the prepared tokens; out points at row first of token 0.
template <typename Format, int kTokens, typename Out>
void block_pass(const WeightRows& w, std::size_t first, std::size_t n, const PreparedActivations& x, Out* out,
                std::size_t out_stride) {
  const PassRows<kTokens> pass = pass_rows<Format, kTokens>(w, first, n);
  constexpr std::size_t kStep = Format::kBlocksPerStep;
  const PassPrefetch prefetch(pass.row[0], kRowsPerPass<kTokens> * x.blocks * Format::kBlockBytes,
                              (x.blocks + kStep - 1) / kStep);
  __m512 acc = _mm512_setzero_ps();
  std::size_t b = 0;
  for (; b + kStep <= x.blocks; b += kStep) {
    prefetch.step(b / kStep);
    acc = block_step<Format, kTokens, kStep>(acc, pass, w, x, b);
  }
  if constexpr (kStep == 2) {
    if (b < x.blocks) acc = block_step<Format, kTokens, 1>(acc, pass, w, x, b);
  }
  store_lanes<kTokens>(_mm512_mul_ps(acc, broadcast_tokens<kTokens>(x.scales)), out, out_stride, n);
}

template <typename Format, int kTokens, typename Out>
void block_rows(const WeightRows& w, const PreparedActivations& x, Out* out, std::size_t out_stride) {
  constexpr std::size_t kRows = kRowsPerPass<kTokens>;
  for (std::size_t r = 0; r < w.rows; r += kRows) {
    block_pass<Format, kTokens>(w, r, w.rows - r < kRows ? w.rows - r : kRows, x, out + r, out_stride);
  }
}

// Several tokens (token t at x + t * k, outputs at out + t * out_stride),
// four at a time so that each expanded weight block serves four tokens; a
// remainder of two or one token takes a narrower pass. k <= kMaxValues.
template <typename Format, typename Out>
void block_products(const WeightRows& w, const std::int8_t* x, const float* x_scales, std::size_t n_tokens,
                    std::size_t k, Out* out, std::size_t out_stride) {
  PreparedActivations prepared;
  token_passes(n_tokens, [&](std::size_t t, std::size_t tokens) {
    prepare_activations(prepared, x + t * k, x_scales + t, tokens, k, Format::kValues, Format::kOrder);
    Out* token_out = out + t * out_stride;
    if (tokens == 4) block_rows<Format, 4>(w, prepared, token_out, out_stride);
    if (tokens == 2) block_rows<Format, 2>(w, prepared, token_out, out_stride);
    if (tokens == 1) block_rows<Format, 1>(w, prepared, token_out, out_stride);
  });
}

// Logits over a table grouped by 32 rows (formats/unembed_layout.h): within
// a group, row r's block b is block b * 32 + r, so each group is a WeightRows
// of its own. rows is a multiple of 32 in use; a shorter last group is taken
// as it comes.
template <typename Format>
void grouped_logits(const void* w, const std::int8_t* x, float x_scale, float* out, std::size_t rows, std::size_t k) {
  using formats::kUnembedGroupRows;
  const std::size_t blocks = (k + Format::kValues - 1) / Format::kValues;
  const std::size_t group_bytes = kUnembedGroupRows * blocks * Format::kBlockBytes;
  PreparedActivations prepared;
  prepare_activations(prepared, x, &x_scale, 1, k, Format::kValues, Format::kOrder);
  for (std::size_t r = 0; r < rows; r += kUnembedGroupRows) {
    const WeightRows group{static_cast<const std::uint8_t*>(w) + r / kUnembedGroupRows * group_bytes,
                           Format::kBlockBytes, kUnembedGroupRows * Format::kBlockBytes,
                           rows - r < kUnembedGroupRows ? rows - r : kUnembedGroupRows};
    block_rows<Format, 1>(group, prepared, out + r, 0);
  }
}

}  // namespace quorvel::kernels::x86::avx512
