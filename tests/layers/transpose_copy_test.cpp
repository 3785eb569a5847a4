// The value cache's transposing copy against a naive transpose, for sizes
// that cut tiles in every way, serially, over the pool and inside a job.
#include "layers/transpose_copy.h"

#include <gtest/gtest.h>

#include <vector>

#include "layer_test_support.h"

namespace quorvel::layers {
namespace {

using quorvel::testing::same_bits;

struct Shape {
  std::uint64_t tokens;
  std::uint64_t dims;
};

// The destination is a wider table: the copy starts at column 3 of rows
// `tokens + 7` long, so any write outside the target shows up.
class TransposeCopyTest : public ::testing::TestWithParam<Shape> {
 protected:
  void SetUp() override {
    std::mt19937 rng(static_cast<std::uint32_t>(GetParam().tokens * 1000 + GetParam().dims));
    src = quorvel::testing::random_bf16(rng, GetParam().tokens * GetParam().dims);
    stride = GetParam().tokens + 7;
    expected.assign(GetParam().dims * stride, bf16{0x7E7E});
    for (std::uint64_t t = 0; t < GetParam().tokens; ++t) {
      for (std::uint64_t d = 0; d < GetParam().dims; ++d) expected[d * stride + 3 + t] = src[t * GetParam().dims + d];
    }
  }
  std::vector<bf16> fresh() const { return std::vector<bf16>(expected.size(), bf16{0x7E7E}); }
  TransposeCopy copy_into(std::vector<bf16>& dst) const {
    return {src.data(), GetParam().tokens, GetParam().dims, dst.data() + 3, stride};
  }

  std::vector<bf16> src;
  std::vector<bf16> expected;
  std::uint64_t stride = 0;
};

// The serial tile loop, the dispatched copy (over the pool when it splits)
// and the copy inside a job (inline) all equal the naive transpose.
TEST_P(TransposeCopyTest, EveryPathEqualsNaiveTranspose) {
  std::vector<bf16> serial = fresh(), dispatched = fresh(), in_job = fresh();
  transpose_dimension_tiles(copy_into(serial), 0, dimension_tiles(GetParam().dims));
  transpose_copy(copy_into(dispatched));
  quorvel::testing::run_inside_job([&] { transpose_copy(copy_into(in_job)); });
  EXPECT_TRUE(same_bits(serial, expected));
  EXPECT_TRUE(same_bits(dispatched, expected));
  EXPECT_TRUE(same_bits(in_job, expected));
}

INSTANTIATE_TEST_SUITE_P(OddSizes, TransposeCopyTest,
                         ::testing::Values(Shape{1, 1}, Shape{2, 31}, Shape{16, 32}, Shape{17, 33}, Shape{5, 97},
                                           Shape{37, 130}, Shape{33, 200}, Shape{129, 64}));

TEST(TransposeCopySplitTest, SplitsOnlyLargeCopiesWithSeveralDimensionTiles) {
  EXPECT_TRUE(transpose_copy_splits(37, 130));
  EXPECT_TRUE(transpose_copy_splits(129, 64));
  EXPECT_TRUE(transpose_copy_splits(128, 33));  // 4224 values, two tiles
  EXPECT_FALSE(transpose_copy_splits(127, 32));
  EXPECT_FALSE(transpose_copy_splits(4096, 32));  // one dimension tile
  EXPECT_FALSE(transpose_copy_splits(17, 33));    // too small
  EXPECT_EQ(dimension_tiles(130), 5u);
}

}  // namespace
}  // namespace quorvel::layers
