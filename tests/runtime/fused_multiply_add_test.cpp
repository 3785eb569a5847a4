#include "runtime/fused_multiply_add.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace quorvel {
namespace {

// The processor's fused multiply-add where this test can reach it; elsewhere
// the C library's, which rounds once on the platforms that take that path.
#if defined(__x86_64__)
__attribute__((target("fma"))) float reference_fma(float a, float b, float c) {
  return _mm_cvtss_f32(_mm_fmadd_ss(_mm_set_ss(a), _mm_set_ss(b), _mm_set_ss(c)));
}
bool reference_available() { return __builtin_cpu_supports("fma"); }
#else
float reference_fma(float a, float b, float c) { return std::fma(a, b, c); }
bool reference_available() { return true; }
#endif

struct Operands {
  float a, b, c;
};

// Random operands over many magnitudes, and sums that cancel almost to zero,
// where a second rounding shows most.
std::vector<Operands> random_operands() {
  std::mt19937 engine(20261124);
  std::uniform_real_distribution<float> mantissa(-2.0f, 2.0f);
  std::uniform_int_distribution<int> exponent(-140, 120);
  std::vector<Operands> operands;
  for (int i = 0; i < 200000; ++i) {
    const float a = std::ldexp(mantissa(engine), exponent(engine) / 2);
    const float b = std::ldexp(mantissa(engine), exponent(engine) / 2);
    operands.push_back({a, b, std::ldexp(mantissa(engine), exponent(engine))});
    operands.push_back({a, b, -(a * b) * (1.0f + std::ldexp(mantissa(engine), -20))});
  }
  return operands;
}

std::uint32_t bits(float x) { return std::bit_cast<std::uint32_t>(x); }

TEST(FusedMultiplyAdd, RoundsOnceAsTheProcessorsInstructionDoes) {
  if (!reference_available()) GTEST_SKIP() << "this processor has no fused multiply-add to compare with";
  const float inf = std::numeric_limits<float>::infinity();
  const float max = std::numeric_limits<float>::max();
  const float tiny = std::numeric_limits<float>::denorm_min();
  std::vector<Operands> operands = random_operands();
  const std::vector<Operands> edges = {
      {0.0f, 1.0f, -0.0f}, {-0.0f, 1.0f, -0.0f}, {1.0f, 1.0f, -1.0f}, {tiny, 0.5f, 0.0f}, {tiny, 1.5f, tiny},
      {1e-20f, 1e-20f, 0.0f}, {max, 2.0f, -max}, {max, 1.0f, max}, {inf, 0.0f, 1.0f}, {inf, 1.0f, -inf},
      {1.0f, 1.0f, inf}, {std::nanf(""), 1.0f, 1.0f}};
  operands.insert(operands.end(), edges.begin(), edges.end());
  int differences = 0;
  for (const Operands& o : operands) {
    const float expected = reference_fma(o.a, o.b, o.c);
    const float by_double = fused_multiply_add_by_double(o.a, o.b, o.c);
    const float chosen = fused_multiply_add(o.a, o.b, o.c);
    const bool same = std::isnan(expected) ? std::isnan(by_double) && std::isnan(chosen)
                                           : bits(by_double) == bits(expected) && bits(chosen) == bits(expected);
    if (!same && ++differences <= 5) {
      ADD_FAILURE() << std::hexfloat << o.a << " * " << o.b << " + " << o.c << ": expected " << expected
                    << ", by double " << by_double << ", chosen " << chosen;
    }
  }
  EXPECT_EQ(differences, 0);
}

// (1 + 2^-12)^2 = 1 + 2^-11 + 2^-24 lies exactly halfway between two floats;
// a tiny addend decides the direction, which a double sum alone forgets.
TEST(FusedMultiplyAdd, ATinyAddendDecidesAHalfwayProduct) {
  const float a = 1.0f + std::ldexp(1.0f, -12);
  const float tiny = std::ldexp(1.0f, -80);
  EXPECT_EQ(fused_multiply_add_by_double(a, a, tiny), 1.0f + std::ldexp(1.0f, -11) + std::ldexp(1.0f, -23));
  EXPECT_EQ(fused_multiply_add_by_double(a, a, -tiny), 1.0f + std::ldexp(1.0f, -11));
  EXPECT_EQ(fused_multiply_add_by_double(-a, a, tiny), -(1.0f + std::ldexp(1.0f, -11)));
}

}  // namespace
}  // namespace quorvel
