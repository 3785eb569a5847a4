// q8_0: 32 int8 codes with one f32 scale, 36 bytes a block (9 bits per value).
// Value = d * q. A row of n values has ceil(n / 32) blocks; the last block of a
// row whose length is not a multiple of 32 holds codes only for the values
// that exist (its other code bytes are never read).
//
// Quantizer, per block: amax = largest |x| starting from 0; d = amax / 127
// when amax > 0, else d = 0 and the code bytes are left as they were;
// otherwise codes = rint(x * (1 / d)) clamped to [-127, 127]. (Unlike the
// activation quantizer: no 1e-5 floor, and the multiplier is 1 / d.)
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"
#include "runtime/checked_size.h"

namespace quorvel::formats {

struct BlockQ8_0 {
  static constexpr std::size_t kValues = 32;
  float d;
  std::int8_t q[32];
};
static_assert(sizeof(BlockQ8_0) == 36);
inline constexpr std::size_t kQ8_0BlockValues = BlockQ8_0::kValues;

inline std::size_t q8_0_blocks_per_row(std::size_t n) { return size_ceil_div(n, BlockQ8_0::kValues); }

// Quantizes one row of n values into ceil(n / 32) blocks. A block whose
// largest magnitude is 0 stores d = 0 and leaves its code bytes untouched.
void quantize_row_q8_0(const bf16* x, std::size_t n, BlockQ8_0* out);
// Expands one row of n values to f32: d * (float)q.
void dequantize_row_q8_0(const BlockQ8_0* blocks, std::size_t n, float* out);

// Value i of a block, exactly as the dequantizer computes it.
inline float block_value(const BlockQ8_0& b, std::size_t i) { return b.d * static_cast<float>(b.q[i]); }

inline float block_scale(const BlockQ8_0& b) { return b.d; }

// Exact S_b = sum over the first n (<= 32) values of q_i * x_i.
std::int32_t block_sum(const BlockQ8_0& b, const std::int8_t* x, std::size_t n);

// How many rows the single-token q8_0 product computes together for an input
// length k: the tuning table of the portable and the NEON baseline sets
// (k < 2561: 2, 2561..4095: 4, 4096..8191: 8, 8192 and above: 2). Rows are
// independent, so the grouping never changes a result; the x86 sets take
// the 8 or 16 rows that fill their registers instead.
std::size_t q8_0_gemv_rows_per_group(std::size_t k);
inline constexpr std::size_t kQ8_0MaxRowsPerGroup = 8;

}  // namespace quorvel::formats
