// Rounding rules shared by the quantizers of the in-memory block formats
// (q8_0, q4_0, q5_0, q6_k), so that each rule is written once.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::formats {

// rint(v) (ties to even) clamped into [lo, hi]. The clamp happens in float
// before the conversion, so infinities and NaN give a code in range instead
// of an undefined conversion (NaN gives hi).
int rint_clamped(float v, int lo, int hi);

// The value of largest magnitude among the n values, with its sign; 0 when
// all are zero. Ties keep the first.
float sign_carrying_max(const bf16* x, std::size_t n);

// Symmetric quantization with the sign-carrying maximum m: d = m / -half, so
// m itself maps exactly onto the most negative code, and the values get the
// unsigned codes rint(x / d) + half clamped to [0, 2 * half - 1] (value =
// d * (code - half)). Using the sign of m buys one extra level on the side
// where the largest magnitude lies. Writes `count` codes; those at and beyond
// n (the missing tail of a row) are `half`, the code of zero. Returns d
// (0 for an all-zero block, whose codes are all `half`).
float quantize_offset_codes(const bf16* x, std::size_t n, int half, std::uint8_t* codes, std::size_t count);

}  // namespace quorvel::formats
