// q6_k: super-blocks of 256 values in 212 bytes (6.625 bits per value):
// sixteen sub-blocks of 16 values, each with a signed 8-bit scale, under one
// f32 super-scale. Value i = d * scales[i / 16] * (code_i - 32).
// The low four bits of code i are in ql (byte i / 2, low nibble for even i,
// high nibble for odd i); the high two bits in qh (byte i / 4, bits
// 2 * (i % 4) .. 2 * (i % 4) + 1). Memory only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::formats {

struct BlockQ6_K {
  std::uint8_t ql[128];
  std::uint8_t qh[64];
  std::int8_t scales[16];
  float d;
};
static_assert(sizeof(BlockQ6_K) == 212);
inline constexpr std::size_t kQ6_KBlockValues = 256;

void quantize_row_q6_k(const bf16* x, std::size_t n, BlockQ6_K* out);
void dequantize_row_q6_k(const BlockQ6_K* blocks, std::size_t n, float* out);

}  // namespace quorvel::formats
