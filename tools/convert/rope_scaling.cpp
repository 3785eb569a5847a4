#include "tools/convert/rope_scaling.h"

#include <cmath>
#include <numbers>
#include <sstream>

#include "tools/lib/rope_cache_writer.h"

namespace quorvel::convert {
namespace {

double llama3_frequency(double frequency, const RopeScaling& s) {
  const double wavelength = 2.0 * std::numbers::pi / frequency;
  const double short_limit = s.original_context / s.high_freq_factor;
  const double long_limit = s.original_context / s.low_freq_factor;
  if (wavelength < short_limit) return frequency;
  if (wavelength > long_limit) return frequency / s.factor;
  const double blend = (s.original_context / wavelength - s.low_freq_factor) / (s.high_freq_factor - s.low_freq_factor);
  return (1.0 - blend) * frequency / s.factor + blend * frequency;
}

}  // namespace

bool known_rope_scaling(const std::string& type) { return type == "linear" || type == "llama3"; }

std::vector<double> scaled_rope_frequencies(std::uint64_t head_dim, double theta,
                                            const std::optional<RopeScaling>& scaling,
                                            std::span<const float> divisors) {
  std::vector<double> frequencies = tools::rope_pair_frequencies(head_dim, theta);
  for (std::size_t k = 0; k < frequencies.size(); ++k) {
    if (scaling && scaling->type == "linear") frequencies[k] /= scaling->factor;
    if (scaling && scaling->type == "llama3") frequencies[k] = llama3_frequency(frequencies[k], *scaling);
    if (!divisors.empty()) frequencies[k] /= static_cast<double>(divisors[k]);
  }
  return frequencies;
}

std::string describe_rope_scaling(const RopeScaling& scaling) {
  std::ostringstream text;
  text << "rope scaling '" << scaling.type << "' with factor " << scaling.factor;
  if (scaling.type == "llama3") {
    text << " (low " << scaling.low_freq_factor << ", high " << scaling.high_freq_factor << ", original context "
         << scaling.original_context << ")";
  }
  text << " baked into rope.cache";
  return text.str();
}

}  // namespace quorvel::convert
