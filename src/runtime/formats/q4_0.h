// q4_0: 32 four-bit codes with one f32 scale, 20 bytes a block (5 bits per
// value). Code byte j (0..15) holds value j in its low nibble and value
// j + 16 in its high nibble; value = d * (code - 8). Used only in memory
// (unembedding and LoRA tables), never in a file.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::formats {

struct BlockQ4_0 {
  float d;
  std::uint8_t qs[16];
};
static_assert(sizeof(BlockQ4_0) == 20);
inline constexpr std::size_t kQ4_0BlockValues = 32;

void quantize_row_q4_0(const bf16* x, std::size_t n, BlockQ4_0* out);
void dequantize_row_q4_0(const BlockQ4_0* blocks, std::size_t n, float* out);

}  // namespace quorvel::formats
