// Reproducible random kernel inputs. Each test builds its own KernelInputs
// with a fixed seed, so a failure replays with the same values.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "runtime/bf16.h"

namespace quorvel::test {

class KernelInputs {
 public:
  explicit KernelInputs(std::uint32_t seed = 20240611u) : engine_(seed) {}

  // n bf16 values, uniform in [-magnitude, magnitude] before narrowing.
  std::vector<bf16> bf16_row(std::size_t n, float magnitude = 1.0f) { return bf16_range(n, -magnitude, magnitude); }

  // n bf16 values, uniform in [lo, hi] before narrowing.
  std::vector<bf16> bf16_range(std::size_t n, float lo, float hi) {
    const std::vector<float> values = f32_row(n, lo, hi);
    std::vector<bf16> row(n);
    for (std::size_t i = 0; i < n; ++i) row[i] = narrow_nearest_even(values[i]);
    return row;
  }

  // n int8 codes, uniform in [-127, 127] (the activation quantizer's range).
  std::vector<std::int8_t> i8_row(std::size_t n) {
    std::uniform_int_distribution<int> dist(-127, 127);
    std::vector<std::int8_t> row(n);
    for (std::int8_t& v : row) v = static_cast<std::int8_t>(dist(engine_));
    return row;
  }

  // n f32 values, uniform in [lo, hi].
  std::vector<float> f32_row(std::size_t n, float lo, float hi) {
    std::uniform_real_distribution<float> dist(lo, hi);
    std::vector<float> row(n);
    for (float& v : row) v = dist(engine_);
    return row;
  }

 private:
  std::mt19937 engine_;
};

// Half a bf16 unit in the last place at magnitude |v|: the most that the
// final narrowing of a kernel may move a value (8 significant bits; never
// below half the spacing of the smallest bf16 values, 2^-134).
inline double bf16_half_ulp(double v) {
  if (v == 0) return std::ldexp(1.0, -134);
  int exponent = 0;
  std::frexp(std::fabs(v), &exponent);  // |v| = m * 2^exponent, m in [0.5, 1)
  return std::ldexp(1.0, std::max(exponent - 9, -134));
}

// The float unit roundoff 2^-24, and gamma_n = n u / (1 - n u), the classic
// bound on the relative error of n rounded float operations in sequence.
inline constexpr double kUnitRoundoff = 1.0 / 16777216.0;
inline double gamma_n(double n) { return n * kUnitRoundoff / (1.0 - n * kUnitRoundoff); }

// Largest relative error of the cubic in poly_exp against 2^f over its range
// f in [-0.5, 0.5], evaluated in double, plus the float steps: t = x * log2 e
// is off by at most half an ulp at |t| < 128 (64 u) plus the constant's own
// rounding (128 u), which scales e^x by up to (192 u) ln 2; the evaluation
// and the scaling add a few roundings more.
inline double poly_exp_error_bound() {
  const double c3 = std::bit_cast<float>(0x3D64AD4Cu);
  const double c2 = std::bit_cast<float>(0x3E75EAD4u);
  const double c1 = std::bit_cast<float>(0x3F318008u);
  const double c0 = std::bit_cast<float>(0x3F7FFB19u);
  double worst = 0;
  for (int step = -5000; step <= 5000; ++step) {
    const double f = step / 10000.0;
    const double p = c0 + f * (c1 + f * (c2 + f * c3));
    worst = std::max(worst, std::fabs(p - std::exp2(f)) / std::exp2(f));
  }
  const double argument_rounding = 192.0 * kUnitRoundoff * std::log(2.0);
  return worst + argument_rounding + gamma_n(6);
}

}  // namespace quorvel::test
