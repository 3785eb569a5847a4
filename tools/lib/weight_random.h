// The seeded generator behind every synthetic weight. SplitMix64 is used
// rather than a standard distribution because its output, and the mapping
// to floats below, are fixed bit for bit: the same seed gives the same model
// file on every compiler and platform, so tests can pin a file by its seed.
#pragma once

#include <cstdint>

namespace quorvel::tools {

class WeightRandom {
 public:
  explicit WeightRandom(std::uint64_t seed) : state_(seed) {}

  std::uint64_t next_u64() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }

  // Uniform in [-1, 1), from the top 24 bits (a float holds them exactly).
  float uniform() { return static_cast<float>(next_u64() >> 40) * 0x1p-23f - 1.0f; }

  // A ternary code 0, 1 or 2 (weights -1, 0, +1) with equal odds.
  unsigned ternary_code() { return static_cast<unsigned>(((next_u64() >> 32) * 3) >> 32); }

 private:
  std::uint64_t state_;
};

}  // namespace quorvel::tools
