// RMS and layer normalization of the portable set against double-precision
// computations, with error bounds derived from the float steps of each.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "runtime/bf16.h"
#include "runtime/kernel_test_inputs.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {
namespace {

using test::bf16_half_ulp;
using test::gamma_n;
using test::KernelInputs;

const PortableKernels kPortable;

// ---- rms_norm_bf16 ----------------------------------------------------

// The sum of squares has dim / 4 fused steps per lane and two merging adds
// (all terms positive, so its relative error is gamma(dim / 4 + 2)); the
// mean, eps, root and reciprocal add four roundings and the two products
// two more. A large eps shows whether it is added to the mean or the root.
TEST(RmsNorm, MatchesDoubleOverRowsAndEps) {
  KernelInputs inputs(21);
  for (std::size_t dim : {4u, 12u, 64u, 260u}) {
    for (float eps : {1e-6f, 0.25f}) {
      const std::size_t rows = 3;
      const std::vector<bf16> original = inputs.bf16_row(rows * dim, 2.0f);
      const std::vector<bf16> weight = inputs.bf16_row(dim, 1.5f);
      std::vector<bf16> x = original;
      kPortable.rms_norm_bf16(x.data(), weight.data(), rows, dim, eps);
      const double relative = gamma_n(static_cast<double>(dim) / 4 + 8);
      for (std::size_t row = 0; row < rows; ++row) {
        const bf16* in = original.data() + row * dim;
        double sum_sq = 0;
        for (std::size_t i = 0; i < dim; ++i) sum_sq += static_cast<double>(widen(in[i])) * widen(in[i]);
        const double inv = 1 / std::sqrt(static_cast<double>(eps) + sum_sq / static_cast<double>(dim));
        for (std::size_t i = 0; i < dim; ++i) {
          const double expected = widen(in[i]) * inv * widen(weight[i]);
          ASSERT_NEAR(widen(x[row * dim + i]), expected, relative * std::fabs(expected) + bf16_half_ulp(expected))
              << "dim " << dim << " eps " << eps << " row " << row << " i " << i;
        }
      }
    }
  }
}

TEST(RmsNorm, ZeroRowStaysZero) {
  KernelInputs inputs(22);
  const std::size_t dim = 128;
  std::vector<bf16> x(2 * dim, bf16{0});
  const std::vector<bf16> weight = inputs.bf16_range(dim, 0.5f, 2.0f);
  kPortable.rms_norm_bf16(x.data(), weight.data(), 2, dim, 1e-6f);
  for (const bf16 v : x) ASSERT_EQ(v.bits, 0);
}

// A single 1 in a row of four: inv is about 2, and a weight near the bf16
// maximum takes the product past the range, which saturates.
TEST(RmsNorm, OverflowingProductSaturates) {
  const bf16 zero{0};
  std::vector<bf16> x = {narrow_saturate(1.0f), zero, zero, zero, narrow_saturate(1.0f), zero, zero, zero};
  const bf16 big = narrow_saturate(3.3e38f);
  const std::vector<bf16> positive = {big, big, big, big};
  const std::vector<bf16> negative(4, narrow_saturate(-3.3e38f));
  kPortable.rms_norm_bf16(x.data(), positive.data(), 1, 4, 1e-6f);
  kPortable.rms_norm_bf16(x.data() + 4, negative.data(), 1, 4, 1e-6f);
  EXPECT_EQ(x[0].bits, 0x7F7F);
  EXPECT_EQ(x[4].bits, 0xFF7F);
  EXPECT_EQ(widen(x[1]), 0.0f);
}

// ---- layer_norm_bf16 ----------------------------------------------------

struct RowStats {
  double mean = 0;
  double variance = 0;
  double max_abs = 0;
};

RowStats stats_of(const bf16* x, std::size_t dim) {
  RowStats stats;
  for (std::size_t i = 0; i < dim; ++i) {
    stats.mean += widen(x[i]);
    stats.max_abs = std::max(stats.max_abs, std::fabs(static_cast<double>(widen(x[i]))));
  }
  stats.mean /= static_cast<double>(dim);
  for (std::size_t i = 0; i < dim; ++i) {
    const double d = widen(x[i]) - stats.mean;
    stats.variance += d * d;
  }
  stats.variance /= static_cast<double>(dim);
  return stats;
}

// Welford's running mean is off by at most about one rounding per operation
// on the way (gamma(3 dim) of the largest |x|); its M2 carries a relative
// error that grows with the condition 1 + mean^2 / variance, and the root
// halves it. The output ((x - mean) * inv) * w adds three roundings.
TEST(LayerNorm, MatchesTwoPassStatisticsInDouble) {
  KernelInputs inputs(23);
  for (std::size_t dim : {4u, 12u, 64u, 260u}) {
    for (float eps : {1e-5f, 0.25f}) {
      const std::size_t rows = 3;
      std::vector<bf16> original;
      for (std::size_t row = 0; row < rows; ++row) {
        const float offset = 3.0f * static_cast<float>(row) - 2.0f;
        const std::vector<bf16> part = inputs.bf16_range(dim, offset - 2.0f, offset + 2.0f);
        original.insert(original.end(), part.begin(), part.end());
      }
      const std::vector<bf16> weight = inputs.bf16_row(dim, 1.5f);
      std::vector<bf16> x = original;
      kPortable.layer_norm_bf16(x.data(), weight.data(), rows, dim, eps);
      const double n = static_cast<double>(dim);
      for (std::size_t row = 0; row < rows; ++row) {
        const bf16* in = original.data() + row * dim;
        const RowStats stats = stats_of(in, dim);
        const double inv = 1 / std::sqrt(static_cast<double>(eps) + stats.variance);
        const double mean_error = gamma_n(3 * n) * stats.max_abs;
        const double condition = 1 + stats.mean * stats.mean / stats.variance;
        const double inv_relative = gamma_n(4 * n) * condition / 2 + gamma_n(4);
        for (std::size_t i = 0; i < dim; ++i) {
          const double centered = widen(in[i]) - stats.mean;
          const double w = widen(weight[i]);
          const double expected = centered * inv * w;
          const double bound = std::fabs(w) * inv * (mean_error + std::fabs(centered) * inv_relative) +
                               gamma_n(3) * std::fabs(expected) + bf16_half_ulp(expected);
          ASSERT_NEAR(widen(x[row * dim + i]), expected, bound)
              << "dim " << dim << " eps " << eps << " row " << row << " i " << i;
        }
      }
    }
  }
}

// Every lane mean is the constant, and the merges keep it exactly (the
// products of a bf16 constant and a lane count are exact), so x - mean is 0.
TEST(LayerNorm, ConstantRowBecomesZeros) {
  KernelInputs inputs(24);
  for (std::size_t dim : {4u, 64u, 2048u}) {
    for (float value : {3.5f, -0.0078125f, 1000.0f, 0.0f}) {
      std::vector<bf16> x(dim, narrow_saturate(value));
      const std::vector<bf16> weight = inputs.bf16_row(dim, 2.0f);
      kPortable.layer_norm_bf16(x.data(), weight.data(), 1, dim, 1e-5f);
      for (std::size_t i = 0; i < dim; ++i) ASSERT_EQ(widen(x[i]), 0.0f) << "dim " << dim << " value " << value;
    }
  }
}

}  // namespace
}  // namespace quorvel::kernels
