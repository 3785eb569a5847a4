// The q1_0_128 layer keeps its rows plain or tiled by sixteen, as the kernel
// set prefers; forward must give the bits of the plain-row products of the
// file's weights either way, over several tiles, with the pool's split or
// inline, for one token and for several.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "layer_test_support.h"
#include "layers/auto_q1_linear.h"
#include "runtime/kernel_base.h"

namespace quorvel::layers {
namespace {

using quorvel::testing::binary_stream;
using quorvel::testing::ByteWriter;
using quorvel::testing::random_bytes;
using quorvel::testing::random_codes;
using quorvel::testing::random_scales;
using quorvel::testing::same_bits;

constexpr std::uint64_t kIn = 384;
constexpr std::uint64_t kOut = 640;  // forty tiles

// Random sign bytes and scales of either sign, block after block.
std::string q1_0_rows(std::mt19937& rng) {
  ByteWriter w;
  std::uniform_real_distribution<float> scale(-0.05f, 0.05f);
  for (std::uint64_t b = 0; b < kOut * kIn / 128; ++b) {
    quorvel::testing::write_bytes(w, random_bytes(rng, 16));
    w.u16(narrow_nearest_even(scale(rng)).bits);
  }
  return w.bytes();
}

TEST(AutoQ1LinearTest, ForwardGivesThePlainRowProductsOfTheFile) {
  std::mt19937 rng(41);
  const std::string rows = q1_0_rows(rng);
  auto stream = binary_stream(rows);
  AutoQ1Linear layer(stream, kIn, kOut, 1, false, QuantFormat::NONE);
  const auto& kernel_set = kernels::kernels();
  EXPECT_EQ(layer.tiles() != nullptr, kernel_set.tiles_q1_0_rows()) << kernel_set.name();
  for (std::uint64_t n : {1u, 9u}) {
    SCOPED_TRACE(n);
    const std::vector<std::int8_t> codes = random_codes(rng, n * kIn);
    const std::vector<float> scales = random_scales(rng, n);
    std::vector<bf16> expected(n * kOut), pooled(n * kOut), inline_rows(n * kOut);
    kernel_set.gemm_q1_0(rows.data(), codes.data(), scales.data(), expected.data(), kOut, n, kOut, kIn);
    layer.forward(codes.data(), scales.data(), n, pooled.data(), nullptr);
    quorvel::testing::run_inside_job(
        [&] { layer.forward(codes.data(), scales.data(), n, inline_rows.data(), nullptr); });
    EXPECT_TRUE(same_bits(pooled, expected));
    EXPECT_TRUE(same_bits(inline_rows, expected));
  }
}

// The pool hands out shares of whole units; where the rows are tiled, a
// unit is whole tiles, and a share starting at any tile gives its rows.
struct ShareView : AutoQ1Linear {
  using AutoQ1Linear::AutoQ1Linear;
  using AutoQ1Linear::multiply_rows;
  using AutoQ1Linear::rows_per_unit;
};

TEST(AutoQ1LinearTest, SharesOfWholeUnitsGiveTheirRows) {
  std::mt19937 rng(43);
  const std::string rows = q1_0_rows(rng);
  auto stream = binary_stream(rows);
  const ShareView layer(stream, kIn, kOut, 1, false, QuantFormat::NONE);
  if (layer.tiles()) {
    EXPECT_EQ(layer.rows_per_unit() % formats::Q1_0TileBlock::kRows, 0u);
  }
  const std::vector<std::int8_t> codes = random_codes(rng, kIn);
  const float scale = random_scales(rng, 1)[0];
  std::vector<bf16> expected(kOut);
  kernels::kernels().gemv_q1_0(rows.data(), codes.data(), scale, expected.data(), kOut, kIn);
  const std::uint64_t unit = layer.rows_per_unit();
  for (std::uint64_t first : {std::uint64_t{0}, unit, 3 * unit, kOut - 2 * unit}) {
    std::vector<bf16> share(2 * unit);
    layer.multiply_rows({codes.data(), scale, 0}, first, 2 * unit, share.data());
    EXPECT_TRUE(same_bits(share, std::vector<bf16>(expected.begin() + first, expected.begin() + first + 2 * unit)))
        << "rows from " << first;
  }
}

}  // namespace
}  // namespace quorvel::layers
