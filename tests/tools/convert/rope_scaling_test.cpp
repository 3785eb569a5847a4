// Rope scaling baked into the converter's rotary tables: "linear" divides
// every frequency, "llama3" keeps the short wavelengths, divides the long
// ones and blends the band between, and GGUF per-frequency factors divide.
#include "tools/convert/rope_scaling.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

namespace quorvel::convert {
namespace {

constexpr std::uint64_t kHeadDim = 128;
constexpr double kTheta = 500000.0;

double unscaled(std::size_t k) { return std::pow(kTheta, -2.0 * static_cast<double>(k) / kHeadDim); }

TEST(RopeScaling, LinearDividesEveryFrequencyAndFactorsDivideEachOne) {
  const std::vector<double> linear =
      scaled_rope_frequencies(kHeadDim, kTheta, RopeScaling{.type = "linear", .factor = 4});
  std::vector<float> divisors(kHeadDim / 2);
  for (std::size_t k = 0; k < divisors.size(); ++k) divisors[k] = 1.0f + static_cast<float>(k);
  const std::vector<double> divided = scaled_rope_frequencies(kHeadDim, kTheta, std::nullopt, divisors);
  ASSERT_EQ(linear.size(), kHeadDim / 2);
  ASSERT_EQ(divided.size(), kHeadDim / 2);
  for (std::size_t k = 0; k < linear.size(); ++k) {
    EXPECT_NEAR(linear[k], unscaled(k) / 4.0, 1e-12 * unscaled(k)) << k;
    EXPECT_NEAR(divided[k], unscaled(k) / (1.0 + static_cast<double>(k)), 1e-12 * unscaled(k)) << k;
  }
}

// The published Llama 3.1 settings: factor 8, low 1, high 4, original 8192.
// Wavelengths under 2048 positions stay, over 8192 are divided by 8; for
// head_dim 128 and theta 500000 that is k <= 28 and k >= 35.
TEST(RopeScaling, Llama3KeepsShortWavelengthsDividesLongOnesAndBlendsBetween) {
  const RopeScaling llama3{.type = "llama3", .factor = 8, .low_freq_factor = 1, .high_freq_factor = 4,
                           .original_context = 8192};
  const std::vector<double> scaled = scaled_rope_frequencies(kHeadDim, kTheta, llama3);
  for (std::size_t k = 0; k < scaled.size(); ++k) {
    const double wavelength = 2.0 * std::numbers::pi / unscaled(k);
    if (k <= 28) {
      EXPECT_LT(wavelength, 2048.0);
      EXPECT_DOUBLE_EQ(scaled[k], unscaled(k)) << k;
    } else if (k >= 35) {
      EXPECT_GT(wavelength, 8192.0);
      EXPECT_DOUBLE_EQ(scaled[k], unscaled(k) / 8.0) << k;
    } else {
      // Between, the frequency moves from theta to theta / 8 as the wavelength grows.
      EXPECT_LT(scaled[k], unscaled(k)) << k;
      EXPECT_GT(scaled[k], unscaled(k) / 8.0) << k;
      const double smooth = (8192.0 / wavelength - 1.0) / 3.0;
      EXPECT_NEAR(scaled[k], unscaled(k) * ((1.0 - smooth) / 8.0 + smooth), 1e-12 * unscaled(k)) << k;
    }
  }
  EXPECT_EQ(describe_rope_scaling(llama3),
            "rope scaling 'llama3' with factor 8 (low 1, high 4, original context 8192) baked into rope.cache");
}

}  // namespace
}  // namespace quorvel::convert
