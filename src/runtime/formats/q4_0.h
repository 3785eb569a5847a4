// q4_0: 32 four-bit codes with one f32 scale, 20 bytes a block (5 bits per
// value). Code byte j (0..15) holds value j in its low nibble and value
// j + 16 in its high nibble; value = d * (code - 8). Used only in memory
// (unembedding and LoRA tables), never in a file.
//
// Quantizer, per block of up to 32 values: m = the value of largest
// magnitude with its sign, d = m / -8, code = rint(x / d) + 8 clamped to
// [0, 15]. m lands exactly on code 0, so the 16 levels cover [-8d, 7d]; the
// error is at most |d| / 2 = amax / 16, except for values of the opposite
// sign to m beyond 7.5 |d|, which clamp with an error below |d| = amax / 8.
// Codes of a row's missing tail values are 8 (zero).
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::formats {

struct BlockQ4_0 {
  static constexpr std::size_t kValues = 32;
  float d;
  std::uint8_t qs[16];
};
static_assert(sizeof(BlockQ4_0) == 20);
inline constexpr std::size_t kQ4_0BlockValues = BlockQ4_0::kValues;

void quantize_row_q4_0(const bf16* x, std::size_t n, BlockQ4_0* out);
void dequantize_row_q4_0(const BlockQ4_0* blocks, std::size_t n, float* out);

// Signed code (code - 8, in -8..7) of value i of a block.
inline int block_code(const BlockQ4_0& b, std::size_t i) {
  return static_cast<int>((b.qs[i % 16] >> (4 * (i / 16))) & 0x0Fu) - 8;
}

// Value i of a block, exactly as the dequantizer computes it: d * (float)(code - 8).
inline float block_value(const BlockQ4_0& b, std::size_t i) { return b.d * static_cast<float>(block_code(b, i)); }

inline float block_scale(const BlockQ4_0& b) { return b.d; }

// Exact S_b = sum over the first n (<= 32) values of (code_i - 8) * x_i.
std::int32_t block_sum(const BlockQ4_0& b, const std::int8_t* x, std::size_t n);

}  // namespace quorvel::formats
