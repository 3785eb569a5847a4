// Percentiles of measured times.
#pragma once

#include <optional>
#include <vector>

namespace quorvel::serve_load {

// The p-th percentile (p in 0..100) of values, interpolated linearly between the two nearest ranks
// (p 0 is the smallest value, p 100 the largest); nothing for no values.
std::optional<double> percentile(std::vector<double> values, double p);

}  // namespace quorvel::serve_load
