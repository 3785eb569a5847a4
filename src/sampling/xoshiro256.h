// xoshiro256++, the sampler's random generator: one state per thread, seeded
// through SplitMix64 from the address of that state, so that no seed has to
// be passed around (sampled output is deliberately not reproducible).
#pragma once

#include <cstdint>

namespace quorvel {

struct Xoshiro256pp {
  std::uint64_t s[4];

  // s0 .. s3 are the SplitMix64 outputs of seed + i * 0x9E3779B97F4A7C15
  // for i = 1 .. 4.
  static Xoshiro256pp from_seed(std::uint64_t seed);

  // Returns rotl(s0 + s3, 23) + s0 of the current state, then steps it.
  std::uint64_t next();

  bool operator==(const Xoshiro256pp&) const = default;
};

// The top 24 bits of `x` as a float uniform in [0, 1): every value is
// exactly representable, so 1.0 can never come out.
inline float unit_float(std::uint64_t x) { return static_cast<float>(x >> 40) * 5.9604645e-8f; }

// The calling thread's generator, seeded on first use from the address of
// its state XOR 0x123456789ABCDEF0.
Xoshiro256pp& thread_generator();

}  // namespace quorvel
