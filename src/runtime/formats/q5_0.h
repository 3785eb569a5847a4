// q5_0: 32 five-bit codes with one f32 scale, 24 bytes a block (6 bits per
// value). The low four bits are packed as in q4_0 (byte j: value j low
// nibble, value j + 16 high nibble); bit j of the little-endian 32-bit word
// qh is the fifth bit of value j. Value = d * (code - 16). Memory only.
//
// Quantizer: as q4_0 with 32 levels: m = the value of largest magnitude with
// its sign, d = m / -16, code = rint(x / d) + 16 clamped to [0, 31]. Error at
// most |d| / 2 = amax / 32, below |d| = amax / 16 for values of the opposite
// sign to m beyond 15.5 |d|. Codes of a row's missing tail values are 16 (zero).
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::formats {

struct BlockQ5_0 {
  static constexpr std::size_t kValues = 32;
  float d;
  std::uint8_t qh[4];
  std::uint8_t qs[16];
};
static_assert(sizeof(BlockQ5_0) == 24);
inline constexpr std::size_t kQ5_0BlockValues = BlockQ5_0::kValues;

void quantize_row_q5_0(const bf16* x, std::size_t n, BlockQ5_0* out);
void dequantize_row_q5_0(const BlockQ5_0* blocks, std::size_t n, float* out);

// Signed code (code - 16, in -16..15) of value i of a block.
inline int block_code(const BlockQ5_0& b, std::size_t i) {
  const unsigned low = (b.qs[i % 16] >> (4 * (i / 16))) & 0x0Fu;
  const unsigned high = (b.qh[i / 8] >> (i % 8)) & 1u;
  return static_cast<int>(low | (high << 4)) - 16;
}

// Value i of a block, exactly as the dequantizer computes it: d * (float)(code - 16).
inline float block_value(const BlockQ5_0& b, std::size_t i) { return b.d * static_cast<float>(block_code(b, i)); }

inline float block_scale(const BlockQ5_0& b) { return b.d; }

// Exact S_b = sum over the first n (<= 32) values of (code_i - 16) * x_i.
std::int32_t block_sum(const BlockQ5_0& b, const std::int8_t* x, std::size_t n);

}  // namespace quorvel::formats
