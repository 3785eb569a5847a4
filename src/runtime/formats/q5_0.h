// q5_0: 32 five-bit codes with one f32 scale, 24 bytes a block (6 bits per
// value). The low four bits are packed as in q4_0 (byte j: value j low
// nibble, value j + 16 high nibble); bit j of the little-endian 32-bit word
// qh is the fifth bit of value j. Value = d * (code - 16). Memory only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::formats {

struct BlockQ5_0 {
  float d;
  std::uint8_t qh[4];
  std::uint8_t qs[16];
};
static_assert(sizeof(BlockQ5_0) == 24);
inline constexpr std::size_t kQ5_0BlockValues = 32;

void quantize_row_q5_0(const bf16* x, std::size_t n, BlockQ5_0* out);
void dequantize_row_q5_0(const BlockQ5_0* blocks, std::size_t n, float* out);

}  // namespace quorvel::formats
