// Which of the two NEON product sets this processor runs. Advanced SIMD
// itself is part of 64-bit ARM and is not queried; the only question is the
// ARMv8.2 8-bit dot product. Built for plain ARMv8-A: this runs before any
// set is chosen.
#pragma once

#include <cstdint>

#include "runtime/kernel_base.h"

namespace quorvel::kernels::arm {

// The record is written as one 16-bit value: 0x0100 when the dot product is
// present (has_int8_matrix 0, has_dot_product 1), 0 otherwise.
inline constexpr std::uint16_t kDotProductFeatureBits = 0x0100;

// The processor's features, asked of the operating system on first use and
// kept for the rest of the process.
const CpuFeatures& cpu_features();

// cpu_features().has_dot_product == 1.
bool cpu_has_dot_product();

}  // namespace quorvel::kernels::arm
