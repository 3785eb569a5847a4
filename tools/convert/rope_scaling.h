// Rotary frequency scaling, baked into the tables the converter writes:
// "linear" divides every inverse frequency by the factor; "llama3" divides
// only the long wavelengths and blends the band between.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace quorvel::convert {

struct RopeScaling {
  std::string type;  // "linear" or "llama3"
  double factor = 1.0;
  double low_freq_factor = 1.0;
  double high_freq_factor = 4.0;
  double original_context = 8192.0;
};

// Whether `type` names a scaling the tables can bake in.
bool known_rope_scaling(const std::string& type);

// The head_dim / 2 inverse frequencies theta^(-2k / head_dim), scaled, then
// divided by `divisors` (one per frequency) when given.
std::vector<double> scaled_rope_frequencies(std::uint64_t head_dim, double theta,
                                            const std::optional<RopeScaling>& scaling,
                                            std::span<const float> divisors = {});

// One line for the converter's log: what the scaling did.
std::string describe_rope_scaling(const RopeScaling& scaling);

}  // namespace quorvel::convert
