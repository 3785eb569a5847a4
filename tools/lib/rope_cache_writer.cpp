#include "tools/lib/rope_cache_writer.h"

#include <cmath>
#include <span>
#include <stdexcept>
#include <vector>

#include "io/rope_header.h"
#include "tools/lib/binary_writer.h"

namespace quorvel::tools {
namespace {

// Streams one table, row by row; `wave` is std::cos or std::sin.
void write_table(BinaryWriter& out, std::span<const double> frequencies, std::uint64_t max_positions,
                 double (*wave)(double)) {
  const std::size_t half = frequencies.size();
  std::vector<float> row(2 * half);
  for (std::uint64_t p = 0; p < max_positions; ++p) {
    for (std::size_t i = 0; i < half; ++i) {
      row[i] = row[i + half] = static_cast<float>(wave(static_cast<double>(p) * frequencies[i]));
    }
    out.write_values(std::span<const float>(row));
  }
}

}  // namespace

// Computed in double so that the angles of late positions keep their
// precision until the final rounding to float.
std::vector<double> rope_pair_frequencies(std::uint64_t head_dim, double theta) {
  const std::uint64_t half = head_dim / 2;
  std::vector<double> frequencies(half);
  for (std::uint64_t i = 0; i < half; ++i) {
    frequencies[i] = std::pow(theta, -2.0 * static_cast<double>(i) / static_cast<double>(head_dim));
  }
  return frequencies;
}

std::optional<std::string> unwritable_rope_shape(std::uint64_t head_dim) {
  if (head_dim == 0 || head_dim % 2 != 0) {
    return "head_dim must be even and positive for the rotary tables, got " + std::to_string(head_dim);
  }
  return std::nullopt;
}

void write_rope_cache(const std::filesystem::path& path, std::uint64_t head_dim, std::uint64_t max_positions,
                      double theta) {
  if (const auto problem = unwritable_rope_shape(head_dim)) throw std::invalid_argument(*problem);
  write_rope_cache(path, rope_pair_frequencies(head_dim, theta), max_positions);
}

void write_rope_cache(const std::filesystem::path& path, std::span<const double> frequencies,
                      std::uint64_t max_positions) {
  BinaryWriter out(path);
  out.write_bytes("QVRC", 4);
  out.write_value(kRopeCacheVersion);
  out.write_value(std::uint32_t{0});  // reserved
  write_table(out, frequencies, max_positions, [](double angle) { return std::cos(angle); });
  write_table(out, frequencies, max_positions, [](double angle) { return std::sin(angle); });
  out.finish();
}

}  // namespace quorvel::tools
