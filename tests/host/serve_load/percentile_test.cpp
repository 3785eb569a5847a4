// Percentiles interpolate between the nearest ranks of the sorted values.
#include "host/serve_load/percentile.h"

#include <gtest/gtest.h>

namespace quorvel::serve_load {
namespace {

TEST(Percentile, NoValuesHaveNoPercentile) { EXPECT_FALSE(percentile({}, 50).has_value()); }

TEST(Percentile, InterpolatesBetweenNearestRanks) {
  const std::vector<double> one_to_ten{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  EXPECT_DOUBLE_EQ(*percentile(one_to_ten, 50), 5.5);
  EXPECT_DOUBLE_EQ(*percentile(one_to_ten, 95), 9.55);
  EXPECT_DOUBLE_EQ(*percentile(one_to_ten, 10), 1.9);
}

TEST(Percentile, OrderOfTheValuesDoesNotMatter) {
  EXPECT_DOUBLE_EQ(*percentile({9, 1, 5, 3, 7}, 50), 5);
  EXPECT_DOUBLE_EQ(*percentile({9, 1, 5, 3, 7}, 75), 7);
  EXPECT_DOUBLE_EQ(*percentile({4, 1}, 50), 2.5);
}

}  // namespace
}  // namespace quorvel::serve_load
