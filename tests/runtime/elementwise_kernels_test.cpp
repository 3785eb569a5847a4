// The bf16 narrowing rules, the polynomial exponential, and the portable
// byte, rotary, gate and add kernels against straightforward computations.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "runtime/bf16.h"
#include "runtime/kernel_test_inputs.h"
#include "runtime/poly_exp.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {
namespace {

using test::bf16_half_ulp;
using test::KernelInputs;

const PortableKernels kPortable;

float from_f32_bits(std::uint32_t bits) { return std::bit_cast<float>(bits); }

// ---- bf16 narrowing ----------------------------------------------------

TEST(Bf16Narrowing, HalfwayGoesAwayFromZeroOrToEven) {
  const float halfway = from_f32_bits(0x3F808000u);  // 1.00390625, between 0x3F80 and 0x3F81
  EXPECT_EQ(narrow_saturate(halfway).bits, 0x3F81);
  EXPECT_EQ(narrow_nearest_even(halfway).bits, 0x3F80);
  EXPECT_EQ(narrow_saturate(-halfway).bits, 0xBF81);
  EXPECT_EQ(narrow_nearest_even(-halfway).bits, 0xBF80);
  // Halfway above an odd value: both rules go up.
  const float odd_halfway = from_f32_bits(0x3F818000u);
  EXPECT_EQ(narrow_saturate(odd_halfway).bits, 0x3F82);
  EXPECT_EQ(narrow_nearest_even(odd_halfway).bits, 0x3F82);
}

TEST(Bf16Narrowing, OverflowSaturatesOrBecomesInfinity) {
  EXPECT_EQ(narrow_saturate(3.4e38f).bits, 0x7F7F);
  EXPECT_EQ(narrow_nearest_even(3.4e38f).bits, 0x7F80);
  EXPECT_EQ(narrow_saturate(-3.4e38f).bits, 0xFF7F);
  EXPECT_EQ(narrow_nearest_even(-3.4e38f).bits, 0xFF80);
  EXPECT_EQ(narrow_saturate(std::numeric_limits<float>::infinity()).bits, 0x7F7F);
  // A NaN stays a NaN under nearest-even, made quiet.
  EXPECT_EQ(narrow_nearest_even(from_f32_bits(0x7F800001u)).bits, 0x7FC0);
}

// ---- polynomial exponential --------------------------------------------

TEST(PolyExp, StaysWithinTheCubicsErrorOverTheClampedRange) {
  const double bound = test::poly_exp_error_bound();
  for (int step = -8700; step <= 8800; ++step) {
    const float x = static_cast<float>(step) * 0.01f + 0.003f;
    if (x > kPolyExpMaxArg) break;
    const double exact = std::exp(static_cast<double>(x));
    ASSERT_LE(std::fabs(poly_exp(x) - exact), bound * exact) << "x = " << x;
  }
}

TEST(PolyExp, ClampsToMinus87And88) {
  EXPECT_EQ(poly_exp(-1000.0f), poly_exp(-87.0f));
  EXPECT_EQ(poly_exp(-std::numeric_limits<float>::infinity()), poly_exp(-87.0f));
  EXPECT_EQ(poly_exp(1000.0f), poly_exp(88.0f));
  EXPECT_TRUE(std::isnormal(poly_exp(-87.0f)));
  EXPECT_TRUE(std::isfinite(poly_exp(88.0f)));
  // At 0 the scale is 2^0 and the result is the cubic's constant term.
  EXPECT_EQ(std::bit_cast<std::uint32_t>(poly_exp(0.0f)), 0x3F7FFB19u);
  EXPECT_TRUE(std::isnan(poly_exp(std::numeric_limits<float>::quiet_NaN())));
}

// ---- copy_bytes and fill_bytes -----------------------------------------

constexpr std::size_t kGuard = 16;
constexpr unsigned char kGuardByte = 0xA5;

TEST(ByteKernels, CopyWritesExactlyNBytesAtEveryLength) {
  for (std::size_t n : {0u, 1u, 7u, 15u, 16u, 17u, 31u, 32u, 33u, 100u}) {
    std::vector<unsigned char> src(n);
    for (std::size_t i = 0; i < n; ++i) src[i] = static_cast<unsigned char>(i * 37 + 11);
    std::vector<unsigned char> dst(n + kGuard, kGuardByte);
    kPortable.copy_bytes(dst.data(), src.data(), n);
    for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(dst[i], src[i]) << "n = " << n << ", i = " << i;
    for (std::size_t i = n; i < n + kGuard; ++i) ASSERT_EQ(dst[i], kGuardByte) << "n = " << n;
  }
  kPortable.copy_bytes(nullptr, nullptr, 0);
}

TEST(ByteKernels, FillUsesTheLowByteAndStopsAtN) {
  for (std::size_t n : {0u, 1u, 9u, 15u, 16u, 17u, 48u, 61u}) {
    for (int value : {0x1234, -1, 0}) {
      std::vector<unsigned char> dst(n + kGuard, kGuardByte);
      kPortable.fill_bytes(dst.data(), value, n);
      const auto expected = static_cast<unsigned char>(value & 0xFF);
      for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(dst[i], expected) << "n = " << n;
      for (std::size_t i = n; i < n + kGuard; ++i) ASSERT_EQ(dst[i], kGuardByte) << "n = " << n;
    }
  }
  kPortable.fill_bytes(nullptr, 7, 0);
}

// ---- rope_bf16 ----------------------------------------------------------

// dim 0 or 1 rotates nothing; cos 1 and sin 0 rotate by zero.
TEST(Rope, DegenerateRotationsLeaveTheRowUnchanged) {
  KernelInputs inputs;
  const std::size_t dim = 64, rows = 3;
  const std::vector<bf16> original = inputs.bf16_row(rows * dim, 50.0f);
  const std::vector<float> cos(rows * dim, 1.0f), sin(rows * dim, 0.0f), angle(rows * dim, 0.5f);
  for (std::size_t small_dim : {0u, 1u}) {
    std::vector<bf16> x = original;
    kPortable.rope_bf16(x.data(), angle.data(), angle.data(), rows, dim, small_dim);
    for (std::size_t i = 0; i < x.size(); ++i) ASSERT_EQ(x[i].bits, original[i].bits) << "dim " << small_dim;
  }
  std::vector<bf16> x = original;
  kPortable.rope_bf16(x.data(), cos.data(), sin.data(), rows, dim, dim);
  for (std::size_t i = 0; i < x.size(); ++i) ASSERT_EQ(x[i].bits, original[i].bits) << i;
}

// Rows x_stride apart with untouched gaps between them; tables whose two
// halves differ; the result against the rotation in double. Each output is
// two products and an add (a rounding each), then the narrowing.
TEST(Rope, MatchesTheRotationInDouble) {
  KernelInputs inputs(7);
  for (std::size_t dim : {8u, 24u, 128u}) {
    const std::size_t rows = 3, stride = dim + 5, half = dim / 2;
    const std::vector<bf16> original = inputs.bf16_row(rows * stride, 4.0f);
    const std::vector<float> cos = inputs.f32_row(rows * dim, -1.0f, 1.0f);
    const std::vector<float> sin = inputs.f32_row(rows * dim, -1.0f, 1.0f);
    std::vector<bf16> x = original;
    kPortable.rope_bf16(x.data(), cos.data(), sin.data(), rows, stride, dim);
    for (std::size_t row = 0; row < rows; ++row) {
      const bf16* in = original.data() + row * stride;
      const bf16* out = x.data() + row * stride;
      const float* c = cos.data() + row * dim;
      const float* s = sin.data() + row * dim;
      for (std::size_t i = 0; i < half; ++i) {
        const double a = widen(in[i]), b = widen(in[i + half]);
        const double first = a * c[i] - b * s[i];
        const double second = b * c[i + half] + a * s[i + half];
        const double first_bound = 2 * test::gamma_n(2) * (std::fabs(a * c[i]) + std::fabs(b * s[i]));
        const double second_bound =
            2 * test::gamma_n(2) * (std::fabs(b * c[i + half]) + std::fabs(a * s[i + half]));
        ASSERT_NEAR(widen(out[i]), first, first_bound + bf16_half_ulp(first)) << "dim " << dim << " i " << i;
        ASSERT_NEAR(widen(out[i + half]), second, second_bound + bf16_half_ulp(second));
      }
      for (std::size_t i = dim; i < stride; ++i) ASSERT_EQ(out[i].bits, in[i].bits) << "gap written";
    }
  }
}

// The rounded and the fused product are told apart by cancellation: with
// a = A, b = -A, cos = (-S, S), sin = (S, S) both outputs are exactly
// A*S - round(A*S) when the cos product is rounded and the sin product fused;
// an unfused add gives 0 and the other fusion the negated residual.
TEST(Rope, RoundsTheCosProductAndFusesTheSinProduct) {
  const float a = widen(narrow_saturate(1.0078125f));
  const float s = from_f32_bits(0x3F800001u);  // 1 + 2^-23
  const double residual = static_cast<double>(a) * s - static_cast<double>(a * s);
  ASSERT_NE(residual, 0.0);
  const std::size_t dim = 8, half = 4;
  std::vector<bf16> x(dim);
  std::vector<float> cos(dim), sin(dim, s);
  for (std::size_t i = 0; i < half; ++i) {
    x[i] = narrow_saturate(a);
    x[i + half] = narrow_saturate(-a);
    cos[i] = -s;
    cos[i + half] = s;
  }
  kPortable.rope_bf16(x.data(), cos.data(), sin.data(), 1, dim, dim);
  const bf16 expected = narrow_saturate(static_cast<float>(residual));
  for (std::size_t i = 0; i < dim; ++i) EXPECT_EQ(x[i].bits, expected.bits) << i;
}

// ---- relu2_mul_bf16 -------------------------------------------------------

// r*r (16 significant bits) times up (8) fits a float exactly, so the double
// product narrowed once is the exact expected result.
TEST(Relu2Mul, MatchesTheExactProductOverRowsAndSigns) {
  KernelInputs inputs(3);
  for (std::size_t dim : {4u, 12u, 36u}) {
    const std::size_t rows = 3;
    const std::vector<bf16> gate = inputs.bf16_row(rows * dim, 20.0f);
    const std::vector<bf16> original = inputs.bf16_row(rows * dim, 3.0f);
    std::vector<bf16> up = original;
    kPortable.relu2_mul_bf16(gate.data(), up.data(), rows, dim);
    for (std::size_t i = 0; i < up.size(); ++i) {
      const double g = widen(gate[i]);
      const double r = g > 0 ? g : 0;
      const double expected = r * r * widen(original[i]);
      ASSERT_EQ(up[i].bits, narrow_saturate(static_cast<float>(expected)).bits) << i;
    }
  }
}

TEST(Relu2Mul, NegativeGateGivesSignedZeroAndOverflowSaturates) {
  const std::vector<bf16> gate = {narrow_saturate(-3.0f), narrow_saturate(-3.0f), narrow_saturate(1e20f),
                                  narrow_saturate(1e20f)};
  std::vector<bf16> up = {narrow_saturate(2.0f), narrow_saturate(-2.0f), narrow_saturate(1.0f),
                          narrow_saturate(-1.0f)};
  kPortable.relu2_mul_bf16(gate.data(), up.data(), 1, 4);
  EXPECT_EQ(up[0].bits, 0x0000);
  EXPECT_EQ(up[1].bits, 0x8000);
  EXPECT_EQ(up[2].bits, 0x7F7F);
  EXPECT_EQ(up[3].bits, 0xFF7F);
}

// ---- silu_mul_bf16 --------------------------------------------------------

// silu(g) * up against double. The exponential is off by at most the
// polynomial's bound, which 1 / (1 + e) passes on at most unchanged; the
// division, the add and the two products add four roundings.
TEST(SiluMul, MatchesSiluInDoubleWithinThePolynomialsError) {
  KernelInputs inputs(5);
  const double relative = test::poly_exp_error_bound() + test::gamma_n(4);
  const std::size_t rows = 5, dim = 20;
  const std::vector<bf16> gate = inputs.bf16_row(rows * dim, 12.0f);
  const std::vector<bf16> original = inputs.bf16_row(rows * dim, 3.0f);
  std::vector<bf16> up = original;
  kPortable.silu_mul_bf16(gate.data(), up.data(), rows, dim);
  for (std::size_t i = 0; i < up.size(); ++i) {
    const double g = widen(gate[i]);
    const double expected = g / (1.0 + std::exp(-g)) * widen(original[i]);
    ASSERT_NEAR(widen(up[i]), expected, relative * std::fabs(expected) + bf16_half_ulp(expected))
        << "gate " << g;
  }
}

TEST(SiluMul, LargeGatesClampInsteadOfOverflowing) {
  const float inf = std::numeric_limits<float>::infinity();
  const std::vector<bf16> gate = {narrow_saturate(-100.0f), narrow_saturate(100.0f), bf16{0xFF80}, bf16{0x7F80}};
  std::vector<bf16> up(4, narrow_saturate(1.5f));
  kPortable.silu_mul_bf16(gate.data(), up.data(), 1, 4);
  // -100: t clamps to 88, the weight is about -100 / 2^127: -0 or a tiny negative.
  EXPECT_FALSE(std::isnan(widen(up[0])));
  EXPECT_LE(widen(up[0]), 0.0f);
  EXPECT_GT(widen(up[0]), -1e-30f);
  // +100: t clamps to -87, 1 + e^-87 rounds to 1, so the result is 100 * 1.5.
  EXPECT_EQ(widen(up[1]), 150.0f);
  // Infinite gates saturate rather than producing NaN.
  EXPECT_EQ(up[2].bits, narrow_saturate(-inf).bits);
  EXPECT_EQ(up[3].bits, narrow_saturate(inf).bits);
}

// ---- add_bf16 -------------------------------------------------------------

// The double sum of two bf16 values is exact, so rounding it to float once
// reproduces the float add: the expected result is exact.
TEST(AddBf16, MatchesTheExactSumAtOddLengths) {
  KernelInputs inputs(11);
  for (std::size_t n : {0u, 1u, 3u, 7u, 8u, 9u, 33u}) {
    const std::vector<bf16> src = inputs.bf16_row(n, 100.0f);
    const std::vector<bf16> original = inputs.bf16_row(n, 1.0f);
    std::vector<bf16> dst = original;
    kPortable.add_bf16(src.data(), dst.data(), n);
    for (std::size_t i = 0; i < n; ++i) {
      const double sum = static_cast<double>(widen(src[i])) + widen(original[i]);
      ASSERT_EQ(dst[i].bits, narrow_saturate(static_cast<float>(sum)).bits) << "n " << n << " i " << i;
    }
  }
}

TEST(AddBf16, OverflowSaturatesAndHalfwayRoundsAway) {
  const std::vector<bf16> src = {narrow_saturate(3.0e38f), narrow_saturate(-3.0e38f), narrow_saturate(0.00390625f)};
  std::vector<bf16> dst = {narrow_saturate(3.0e38f), narrow_saturate(-3.0e38f), narrow_saturate(1.0f)};
  kPortable.add_bf16(src.data(), dst.data(), 3);
  EXPECT_EQ(dst[0].bits, 0x7F7F);
  EXPECT_EQ(dst[1].bits, 0xFF7F);
  EXPECT_EQ(dst[2].bits, 0x3F81);  // 1.00390625: the saturating rule rounds the tie up
}

}  // namespace
}  // namespace quorvel::kernels
