// "q1.58": ternary codes with one bf16 scale per 128 weights, 34 bytes a block
// (2.125 bits per weight). The codes are laid out exactly as one group of the
// per-matrix ternary format; weight value = d * (c - 1).
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::formats {

struct BlockQ1_58 {
  std::uint8_t codes[32];
  bf16 d;
};
static_assert(sizeof(BlockQ1_58) == 34);
inline constexpr std::size_t kQ1_58BlockValues = 128;

// Expands n weights (rounded up to whole blocks) to bf16 with the saturating rule.
void dequantize_q1_58(const BlockQ1_58* blocks, std::size_t n, bf16* out);

}  // namespace quorvel::formats
