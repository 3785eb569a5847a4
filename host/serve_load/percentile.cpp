#include "host/serve_load/percentile.h"

#include <algorithm>
#include <cmath>

namespace quorvel::serve_load {

std::optional<double> percentile(std::vector<double> values, double p) {
  if (values.empty()) return std::nullopt;
  std::sort(values.begin(), values.end());
  const double rank = std::clamp(p, 0.0, 100.0) / 100.0 * static_cast<double>(values.size() - 1);
  const auto below = static_cast<std::size_t>(std::floor(rank));
  const std::size_t above = std::min(below + 1, values.size() - 1);
  const double fraction = rank - static_cast<double>(below);
  return values[below] + (values[above] - values[below]) * fraction;
}

}  // namespace quorvel::serve_load
