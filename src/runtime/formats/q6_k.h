// q6_k: super-blocks of 256 values in 212 bytes (6.625 bits per value):
// sixteen sub-blocks of 16 values, each with a signed 8-bit scale, under one
// f32 super-scale. Value i = (d * (float)scales[i / 16]) * (float)(code_i - 32).
// The low four bits of code i are in ql (byte i / 2, low nibble for even i,
// high nibble for odd i); the high two bits in qh (byte i / 4, bits
// 2 * (i % 4) .. 2 * (i % 4) + 1). Memory only.
//
// Quantizer, per super-block: each sub-block's ideal scale is its
// sign-carrying maximum over -32 (as q4_0 does with 8); the ideal scale of
// largest magnitude, s_max, maps exactly onto the 8-bit scale -128, so
// d = s_max / -128 and scales[s] = rint(ideal_s / d) clamped to [-128, 127].
// The codes are then rounded against the scale actually stored,
// code = rint(x / (d * scales[s])) + 32 clamped to [0, 63]. With M the
// super-block's and m_s the sub-block's largest magnitude the error is at
// most m_s / 32 + 33 * M / 4096. Codes of a row's missing tail values are 32.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::formats {

struct BlockQ6_K {
  static constexpr std::size_t kValues = 256;
  static constexpr std::size_t kSubValues = 16;
  std::uint8_t ql[128];
  std::uint8_t qh[64];
  std::int8_t scales[16];
  float d;
};
static_assert(sizeof(BlockQ6_K) == 212);
inline constexpr std::size_t kQ6_KBlockValues = BlockQ6_K::kValues;

void quantize_row_q6_k(const bf16* x, std::size_t n, BlockQ6_K* out);
void dequantize_row_q6_k(const BlockQ6_K* blocks, std::size_t n, float* out);

// Signed code (code - 32, in -32..31) of value i of a super-block.
inline int block_code(const BlockQ6_K& b, std::size_t i) {
  const unsigned low = (b.ql[i / 2] >> (4 * (i % 2))) & 0x0Fu;
  const unsigned high = (b.qh[i / 4] >> (2 * (i % 4))) & 3u;
  return static_cast<int>(low | (high << 4)) - 32;
}

// Value i of a super-block, exactly as the dequantizer computes it.
inline float block_value(const BlockQ6_K& b, std::size_t i) {
  return (b.d * static_cast<float>(b.scales[i / BlockQ6_K::kSubValues])) * static_cast<float>(block_code(b, i));
}

// The products treat a super-block as one block with scale d and the integer
// sum below (sub-block scales folded in exactly).
inline float block_scale(const BlockQ6_K& b) { return b.d; }

// Exact S_b = sum over sub-blocks of scales[s] * sum over its values
// (among the first n <= 256) of (code_i - 32) * x_i. At most
// 16 * 128 * 16 * 32 * 127 in magnitude, so int32 holds it.
std::int32_t block_sum(const BlockQ6_K& b, const std::int8_t* x, std::size_t n);

}  // namespace quorvel::formats
