// Normalization layers: the width rule, the weight read, and that forward
// gives the kernel's rows however the rows are split.
#include "layers/norm.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "layer_test_support.h"

namespace quorvel::layers {
namespace {

using quorvel::testing::binary_stream;
using quorvel::testing::ByteWriter;
using quorvel::testing::same_bits;

constexpr std::uint64_t kWidth = 256;
constexpr float kEps = 1e-5f;

std::string weights_payload(std::mt19937& rng, std::uint64_t width) {
  ByteWriter w;
  quorvel::testing::write_bf16(w, quorvel::testing::random_bf16(rng, width, 0.5f, 1.5f));
  return w.bytes();
}

template <typename NormType>
class NormTest : public ::testing::Test {
 protected:
  std::unique_ptr<Norm> load(const std::string& bytes, std::uint64_t width = kWidth) {
    auto stream = binary_stream(bytes);
    return std::make_unique<NormType>(kEps, stream, width);
  }
  std::mt19937 rng{5};
};

using NormTypes = ::testing::Types<RMSNorm, LayerNorm>;
TYPED_TEST_SUITE(NormTest, NormTypes);

TYPED_TEST(NormTest, ReadsItsWeightsAndNothingMore) {
  const std::string weights = weights_payload(this->rng, 2048);
  auto stream = binary_stream(weights + "next object");
  TypeParam norm(kEps, stream, 2048);
  EXPECT_EQ(stream.tellg(), 4096);
  EXPECT_EQ(norm.layer_width(), 2048u);
  EXPECT_EQ(norm.eps(), kEps);
  EXPECT_EQ(std::memcmp(norm.weights(), weights.data(), weights.size()), 0);
}

TYPED_TEST(NormTest, WidthThatIsNotWholeGroupsIsRefusedBeforeReading) {
  auto stream = binary_stream(weights_payload(this->rng, 2050));
  quorvel::testing::expect_refused([&] { TypeParam(kEps, stream, 2050); },
                                   "Normalization layer_width must be a multiple of 128, got 2050");
  EXPECT_EQ(stream.tellg(), 0);
}

TYPED_TEST(NormTest, ShortWeightsAreReported) {
  const std::string cut = weights_payload(this->rng, kWidth).substr(0, 100);
  quorvel::testing::expect_short_read(
      [&] { this->load(cut); },
      "Could not read in Normalization Weights: read_bytes (100) != 512; EOF: 1, FTELL: -1",
      "Failed to read normalization weights");
}

TYPED_TEST(NormTest, ForwardMatchesTheKernelWithPoolOrInline) {
  auto norm = this->load(weights_payload(this->rng, kWidth));
  constexpr std::uint64_t n = 5;
  const std::vector<bf16> x = quorvel::testing::random_bf16(this->rng, n * kWidth, -4.0f, 4.0f);
  std::vector<bf16> direct = x, pooled = x, inline_rows = x;
  if (std::is_same_v<TypeParam, RMSNorm>) {
    kernels::kernels().rms_norm_bf16(direct.data(), norm->weights(), n, kWidth, kEps);
  } else {
    kernels::kernels().layer_norm_bf16(direct.data(), norm->weights(), n, kWidth, kEps);
  }
  norm->forward(pooled.data(), n);
  quorvel::testing::run_inside_job([&] { norm->forward(inline_rows.data(), n); });
  EXPECT_FALSE(same_bits(direct, x));
  EXPECT_TRUE(same_bits(pooled, direct));
  EXPECT_TRUE(same_bits(inline_rows, direct));
}

TYPED_TEST(NormTest, ZeroRowsChangeNothing) {
  auto norm = this->load(weights_payload(this->rng, kWidth));
  std::vector<bf16> x(kWidth, bf16{0x4000});
  norm->forward(x.data(), 0);
  EXPECT_TRUE(same_bits(x, std::vector<bf16>(kWidth, bf16{0x4000})));
}

}  // namespace
}  // namespace quorvel::layers
