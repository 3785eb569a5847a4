// "q1.58": ternary codes with one bf16 scale per 128 weights, 34 bytes a block
// (2.125 bits per weight). The codes are laid out exactly as one group of the
// per-matrix ternary format (ternary.h); weight value = d * (c - 1). Stored in
// the model file exactly like this.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::formats {

struct BlockQ1_58 {
  static constexpr std::size_t kValues = 128;
  std::uint8_t codes[32];
  bf16 d;
};
static_assert(sizeof(BlockQ1_58) == 34);
inline constexpr std::size_t kQ1_58BlockValues = BlockQ1_58::kValues;

// Exact sum of raw code * x_i (codes 0..3, not yet shifted by -1) over one
// 128-weight ternary group. A q1.58 block's codes are such a group, so this
// is also the integer core of the per-matrix ternary product, which subtracts
// the activation sum once per row instead of once per weight.
std::int32_t ternary_group_code_sum(const std::uint8_t* group, const std::int8_t* x);

// The block's scale as the products multiply it: d widened to f32.
inline float block_scale(const BlockQ1_58& b) { return widen(b.d); }

// Exact S_b = sum over the first n (<= 128) weights of (c_i - 1) * x_i.
std::int32_t block_sum(const BlockQ1_58& b, const std::int8_t* x, std::size_t n);

// Quantizes n weights (a multiple of 128) from f32: per block
// d = max(mean(|x|), 1e-5) (summed in f32 in weight order), code =
// clamp(round-half-even(x / d), -1, 1) + 1, d narrowed to bf16 nearest-even.
void quantize_q1_58(const float* x, std::size_t n, BlockQ1_58* out);

// Expands n weights (rounded up to whole blocks) to bf16: ((float)(c - 1) * d)
// narrowed with the saturating rule.
void dequantize_q1_58(const BlockQ1_58* blocks, std::size_t n, bf16* out);

}  // namespace quorvel::formats
