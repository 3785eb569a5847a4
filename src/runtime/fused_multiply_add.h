// a * b + c with a single rounding, the same on every platform. The kernel
// sets must agree bit for bit, and the SIMD sets fuse with the processor's
// instruction; the portable set calls the C library. glibc's fmaf rounds
// once, but MinGW-w64's x86-64 fmaf splits the operands and rounds several
// times (about a quarter of random inputs come out a unit off), so on that
// platform the portable set computes the fused result itself.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>

namespace quorvel {

// The fused result from double arithmetic alone. The product of two floats
// is exact in a double, and two-sum gives the exact rounding error of the
// double sum. The sum is then rounded to odd: when it is inexact and its
// last bit is even, it moves one unit toward the exact value. A double
// rounded to odd carries more than two bits beyond a float's 24, so its
// conversion to float rounds as the exact value would.
inline float fused_multiply_add_by_double(float a, float b, float c) {
  const double product = static_cast<double>(a) * static_cast<double>(b);
  const double sum = product + static_cast<double>(c);
  if (!std::isfinite(sum)) return static_cast<float>(sum);
  const double c_rounded = sum - product;
  const double error = (product - (sum - c_rounded)) + (static_cast<double>(c) - c_rounded);
  std::uint64_t bits = std::bit_cast<std::uint64_t>(sum);
  if (error != 0 && (bits & 1) == 0) bits += (error > 0) == (sum > 0) ? 1 : static_cast<std::uint64_t>(-1);
  return static_cast<float>(std::bit_cast<double>(bits));
}

inline float fused_multiply_add(float a, float b, float c) {
#if defined(__MINGW32__) && defined(__x86_64__)
  return fused_multiply_add_by_double(a, b, c);
#else
  return std::fma(a, b, c);
#endif
}

}  // namespace quorvel
