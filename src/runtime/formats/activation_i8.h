// Int8 activation rows: one f32 scale per row, codes in [-127, 127].
//
// The activation quantizer differs from the q8_0 quantizer on purpose: the
// row's largest magnitude has a floor of 1e-5, and the codes are made with
// 127 / amax (a second division), not with the reciprocal of the stored scale.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::formats {

// Quantizes one row of n values; returns the row scale amax / 127.
float quantize_row_i8(const bf16* x, std::size_t n, std::int8_t* q);

}  // namespace quorvel::formats
