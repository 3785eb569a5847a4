// Activation rows copied into the shape the x86-64 products read: zero
// padding after the last code (so a 64-byte load past a row's tail block
// reads zeros, and a tail block's unused weight bytes multiply zeros), the
// exact code sum of every block per token, and optionally the q1_0_128 order.
//
// Built once per call on the stack and read by every row of the call, so its
// cost is one pass over the activations, not over the weights. Compiled
// without instruction-set flags: the x86 sets of every width share it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quorvel::kernels::x86 {

enum class CodeOrder {
  natural,
  // Codes reversed within every 8 bytes: lane i of a vector then pairs with
  // bit i of the little-endian sign word of a q1_0_128 block, whose bytes
  // store their weights most significant bit first.
  sign_bits_lsb_first,
};

struct PreparedActivations {
  // The most tokens one pass of a several-token product takes (the AVX-512
  // q8_0 product's eight).
  static constexpr std::size_t kMaxTokens = 8;
  // The longest row the SIMD products take; longer rows go to the portable code.
  static constexpr std::size_t kMaxValues = 16384;
  static constexpr std::size_t kPadding = 128;
  static constexpr std::size_t kMinBlockValues = 32;

  alignas(64) std::int8_t codes[kMaxTokens][kMaxValues + kPadding];
  // Sum of block b of token t at block_sums[b * tokens + t]: the tokens of a
  // block sit together, so one broadcast serves every lane of a vector.
  alignas(64) std::int32_t block_sums[(kMaxValues / kMinBlockValues + 1) * kMaxTokens];
  std::int32_t row_sums[kMaxTokens];
  float scales[kMaxTokens];
  std::size_t tokens;
  std::size_t blocks;
};

// Calls pass(first, count) over the tokens [0, n_tokens) in passes of four,
// then two, then one token: the widths the products are built for.
template <typename Pass>
void token_passes(std::size_t n_tokens, Pass&& pass) {
  for (std::size_t t = 0; t < n_tokens;) {
    const std::size_t left = n_tokens - t;
    const std::size_t count = left >= 4 ? 4 : left >= 2 ? 2 : 1;
    pass(t, count);
    t += count;
  }
}

// Prepares `tokens` (<= kMaxTokens) rows of k (<= kMaxValues) codes, row t at
// x + t * k with scale scales[t], in blocks of block_values (>= 32) codes; a
// last partial block sums the codes that exist.
void prepare_activations(PreparedActivations& p, const std::int8_t* x, const float* scales, std::size_t tokens,
                         std::size_t k, std::size_t block_values, CodeOrder order);

}  // namespace quorvel::kernels::x86
