// The activation quantizer (formats/activation_i8.h) on NEON lanes, shared
// by quantize_rows_i8 and the norm-and-quantize kernel.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::kernels::arm {

// Quantizes one row of n values (n a multiple of 8) and returns its scale
// amax / 127, with the codes and the scale of formats::quantize_row_i8.
float quantize_row_i8(const bf16* x, std::size_t n, std::int8_t* q);

}  // namespace quorvel::kernels::arm
