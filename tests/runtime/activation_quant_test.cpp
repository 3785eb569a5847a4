// The activation quantizer (bf16 rows to int8 codes and a row scale), its
// fused use after the RMS norm, and the int8-to-bf16 expansion.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "runtime/bf16.h"
#include "runtime/formats/activation_i8.h"
#include "runtime/kernel_test_inputs.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {
namespace {

using test::bf16_half_ulp;
using test::KernelInputs;

const PortableKernels kPortable;

std::vector<bf16> row_of(std::initializer_list<float> values) {
  std::vector<bf16> row;
  for (float v : values) row.push_back(narrow_saturate(v));
  return row;
}

TEST(ActivationQuantizer, ZeroAndTinyRowsUseTheAmaxFloor) {
  for (std::size_t n : {1u, 7u, 64u}) {
    const std::vector<bf16> zeros(n, bf16{0});
    std::vector<std::int8_t> q(n, 99);
    EXPECT_EQ(formats::quantize_row_i8(zeros.data(), n, q.data()), 1e-5f / 127.0f);
    for (const std::int8_t code : q) ASSERT_EQ(code, 0);
  }
  // Values below the floor are coded against amax = 1e-5: 1e-6 is 12.7 codes.
  const std::vector<bf16> tiny = row_of({1e-6f, -1e-6f});
  std::vector<std::int8_t> q(2);
  EXPECT_EQ(formats::quantize_row_i8(tiny.data(), 2, q.data()), 1e-5f / 127.0f);
  const double expected = widen(tiny[0]) * 127.0 / 1e-5;
  EXPECT_LE(std::fabs(q[0] - expected), 0.5);
  EXPECT_EQ(q[1], -q[0]);
}

// With amax = 127 the multiplier 127 / amax is exactly 1, so each value's
// code is the value rounded half to even.
TEST(ActivationQuantizer, HalfwayValuesRoundToEven) {
  const std::vector<bf16> row = row_of({127.0f, 2.5f, 3.5f, -2.5f, 0.5f, 1.5f, -0.5f});
  std::vector<std::int8_t> q(row.size());
  EXPECT_EQ(formats::quantize_row_i8(row.data(), row.size(), q.data()), 1.0f);
  const std::vector<std::int8_t> ties_to_even = {127, 2, 4, -2, 0, 2, 0};
  EXPECT_EQ(q, ties_to_even);
}

// Against the rule in double: scale = amax / 127 (one float division), the
// largest magnitude codes to +-127, and every code is within half a step of
// x * 127 / amax (plus the two float roundings of 127 / amax and x * inv).
TEST(ActivationQuantizer, RowsAtOddSizesFollowTheRule) {
  KernelInputs inputs(31);
  for (std::size_t dim : {1u, 5u, 33u, 130u}) {
    const std::size_t rows = 3;
    std::vector<bf16> x;
    for (std::size_t row = 0; row < rows; ++row) {
      const std::vector<bf16> part = inputs.bf16_row(dim, 0.01f * std::pow(40.0f, static_cast<float>(row)));
      x.insert(x.end(), part.begin(), part.end());
    }
    std::vector<std::int8_t> q(rows * dim);
    std::vector<float> scales(rows);
    kPortable.quantize_rows_i8(x.data(), q.data(), scales.data(), rows, dim);
    for (std::size_t row = 0; row < rows; ++row) {
      double amax = 1e-5f;  // the floor
      for (std::size_t i = 0; i < dim; ++i) {
        amax = std::max(amax, std::fabs(static_cast<double>(widen(x[row * dim + i]))));
      }
      ASSERT_EQ(scales[row], static_cast<float>(amax) / 127.0f) << "dim " << dim << " row " << row;
      for (std::size_t i = 0; i < dim; ++i) {
        const double value = widen(x[row * dim + i]);
        const std::int8_t code = q[row * dim + i];
        if (std::fabs(value) == amax) {
          ASSERT_EQ(std::abs(code), 127);
        }
        ASSERT_LE(std::fabs(code - value * 127.0 / amax), 0.5 + 127.0 * test::gamma_n(2)) << i;
      }
    }
  }
}

// Quantizing the narrowed bf16 row, not the f32 values before narrowing.
TEST(ActivationQuantizer, NormAndQuantizeEqualsNormThenQuantize) {
  KernelInputs inputs(32);
  for (std::size_t dim : {64u, 260u}) {
    const std::size_t rows = 4;
    const std::vector<bf16> original = inputs.bf16_row(rows * dim, 3.0f);
    const std::vector<bf16> weight = inputs.bf16_row(dim, 1.5f);
    std::vector<bf16> fused = original, separate = original;
    std::vector<std::int8_t> fused_q(rows * dim), separate_q(rows * dim);
    std::vector<float> fused_scales(rows), separate_scales(rows);
    kPortable.rms_norm_quantize_i8(fused.data(), weight.data(), fused_q.data(), fused_scales.data(), rows, dim,
                                   1e-6f);
    kPortable.rms_norm_bf16(separate.data(), weight.data(), rows, dim, 1e-6f);
    kPortable.quantize_rows_i8(separate.data(), separate_q.data(), separate_scales.data(), rows, dim);
    for (std::size_t i = 0; i < fused.size(); ++i) ASSERT_EQ(fused[i].bits, separate[i].bits) << i;
    EXPECT_EQ(fused_q, separate_q);
    EXPECT_EQ(fused_scales, separate_scales);
  }
}

// ---- dequantize_i8_bf16 -------------------------------------------------

// A code (8 bits) times a float scale (24 bits) is exact in double, so the
// expected result is exact; after a quantize round trip every value comes
// back within half a code step and the narrowing; overflow saturates.
TEST(DequantizeI8, ExpandsCodesExactlyInvertsTheQuantizerAndSaturates) {
  KernelInputs inputs(33);
  for (std::size_t n : {1u, 7u, 33u}) {
    const std::vector<bf16> x = inputs.bf16_row(n, 6.0f);
    std::vector<std::int8_t> q(n);
    const float scale = formats::quantize_row_i8(x.data(), n, q.data());
    std::vector<bf16> out(n);
    kPortable.dequantize_i8_bf16(q.data(), out.data(), n, scale);
    for (std::size_t i = 0; i < n; ++i) {
      const double exact = static_cast<double>(q[i]) * scale;
      ASSERT_EQ(out[i].bits, narrow_saturate(static_cast<float>(exact)).bits);
      ASSERT_NEAR(widen(out[i]), widen(x[i]), scale * (0.5 + test::gamma_n(4) * 127) + bf16_half_ulp(exact));
    }
  }
  const std::vector<std::int8_t> extremes = {127, -127};
  std::vector<bf16> out(2);
  kPortable.dequantize_i8_bf16(extremes.data(), out.data(), 2, 3.0e38f);
  EXPECT_EQ(out[0].bits, 0x7F7F);  // saturated, not infinity
  EXPECT_EQ(out[1].bits, 0xFF7F);
}

}  // namespace
}  // namespace quorvel::kernels
