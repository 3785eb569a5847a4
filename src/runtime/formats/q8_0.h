// q8_0: 32 int8 codes with one f32 scale, 36 bytes a block (9 bits per value).
// Value = d * q. A row of n values has ceil(n / 32) blocks; the last block of a
// row whose length is not a multiple of 32 holds codes only for the values
// that exist (its other code bytes are never read).
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::formats {

struct BlockQ8_0 {
  float d;
  std::int8_t q[32];
};
static_assert(sizeof(BlockQ8_0) == 36);
inline constexpr std::size_t kQ8_0BlockValues = 32;

inline std::size_t q8_0_blocks_per_row(std::size_t n) { return (n + 31) / 32; }

// Quantizes one row of n values into ceil(n / 32) blocks. A block whose
// largest magnitude is 0 stores d = 0 and leaves its code bytes untouched.
void quantize_row_q8_0(const bf16* x, std::size_t n, BlockQ8_0* out);
// Expands one row of n values to f32.
void dequantize_row_q8_0(const BlockQ8_0* blocks, std::size_t n, float* out);

}  // namespace quorvel::formats
