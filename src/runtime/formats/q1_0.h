// "q1_0_128": one sign bit per weight, one bf16 scale per 128 weights,
// 18 bytes a block (1.125 bits per weight). Weight 8k + j is bit 7 - j of
// byte k (most significant bit first); a set bit is +d, a clear bit -d.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::formats {

struct BlockQ1_0 {
  std::uint8_t signs[16];
  bf16 d;
};
static_assert(sizeof(BlockQ1_0) == 18);
inline constexpr std::size_t kQ1_0BlockValues = 128;

// Row v holds the eight weights of sign byte v as +1 / -1, most significant bit first.
const std::array<std::array<std::int8_t, 8>, 256>& q1_0_sign_table();

// Expands n weights (rounded up to whole blocks) to bf16 with the saturating rule.
void dequantize_q1_0(const BlockQ1_0* blocks, std::size_t n, bf16* out);

}  // namespace quorvel::formats
