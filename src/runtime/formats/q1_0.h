// "q1_0_128": one sign bit per weight, one bf16 scale per 128 weights,
// 18 bytes a block (1.125 bits per weight). Weight 8k + j is bit 7 - j of
// byte k (most significant bit first); a set bit is +d, a clear bit -d.
// Stored in the model file exactly like this.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::formats {

struct BlockQ1_0 {
  static constexpr std::size_t kValues = 128;
  std::uint8_t signs[16];
  bf16 d;
};
static_assert(sizeof(BlockQ1_0) == 18);
inline constexpr std::size_t kQ1_0BlockValues = BlockQ1_0::kValues;

// Row v holds the eight weights of sign byte v as +1 / -1, most significant bit first.
const std::array<std::array<std::int8_t, 8>, 256>& q1_0_sign_table();

// Sign (+1 or -1) of weight i (0 <= i < 128) of a block.
inline int q1_0_sign(const BlockQ1_0& b, std::size_t i) { return ((b.signs[i / 8] >> (7 - i % 8)) & 1u) ? 1 : -1; }

// The block's scale as the products multiply it: d widened to f32.
inline float block_scale(const BlockQ1_0& b) { return widen(b.d); }

// Exact S_b = sum over the first n (<= 128) weights of sign_i * x_i.
std::int32_t block_sum(const BlockQ1_0& b, const std::int8_t* x, std::size_t n);

// Quantizes n weights (a multiple of 128) from f32: per block d = mean(|x|)
// (summed in f32 in weight order), bit = (x >= 0), d narrowed to bf16
// nearest-even. Blocks whose weights are all +-d come back exactly.
void quantize_q1_0(const float* x, std::size_t n, BlockQ1_0* out);

// Expands n weights (rounded up to whole blocks) to bf16: (+-1.0f * d)
// narrowed with the saturating rule.
void dequantize_q1_0(const BlockQ1_0* blocks, std::size_t n, bf16* out);

}  // namespace quorvel::formats
