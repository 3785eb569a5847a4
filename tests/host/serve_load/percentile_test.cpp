// Percentiles interpolate between the nearest ranks of the sorted values.
#include "host/serve_load/percentile.h"

#include <gtest/gtest.h>

namespace quorvel::serve_load {
namespace {

TEST(Percentile, NoValuesHaveNoPercentile) { EXPECT_FALSE(percentile({}, 50).has_value()); }

TEST(Percentile, OneValueIsEveryPercentile) {
  EXPECT_DOUBLE_EQ(*percentile({7.5}, 0), 7.5);
  EXPECT_DOUBLE_EQ(*percentile({7.5}, 95), 7.5);
}

TEST(Percentile, InterpolatesBetweenNearestRanks) {
  const std::vector<double> one_to_ten{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  EXPECT_DOUBLE_EQ(*percentile(one_to_ten, 50), 5.5);
  EXPECT_DOUBLE_EQ(*percentile(one_to_ten, 95), 9.55);
  EXPECT_DOUBLE_EQ(*percentile(one_to_ten, 10), 1.9);
}

TEST(Percentile, EndsAreTheSmallestAndLargestValue) {
  EXPECT_DOUBLE_EQ(*percentile({3, 1, 2}, 0), 1);
  EXPECT_DOUBLE_EQ(*percentile({3, 1, 2}, 100), 3);
}

TEST(Percentile, OrderOfTheValuesDoesNotMatter) {
  EXPECT_DOUBLE_EQ(*percentile({9, 1, 5, 3, 7}, 50), 5);
  EXPECT_DOUBLE_EQ(*percentile({9, 1, 5, 3, 7}, 75), 7);
  EXPECT_DOUBLE_EQ(*percentile({4, 1}, 50), 2.5);
}

TEST(Percentile, OutOfRangeRanksAreClamped) {
  EXPECT_DOUBLE_EQ(*percentile({2, 4}, -10), 2);
  EXPECT_DOUBLE_EQ(*percentile({2, 4}, 150), 4);
}

}  // namespace
}  // namespace quorvel::serve_load
