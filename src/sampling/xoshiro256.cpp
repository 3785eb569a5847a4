#include "sampling/xoshiro256.h"

#include <bit>
#include <cstdint>

namespace quorvel {
namespace {

constexpr std::uint64_t kGoldenGamma = 0x9E3779B97F4A7C15;
constexpr std::uint64_t kAddressSalt = 0x123456789ABCDEF0;

std::uint64_t splitmix64_finalise(std::uint64_t a) {
  a = (a ^ (a >> 30)) * 0xBF58476D1CE4E5B9;
  a = (a ^ (a >> 27)) * 0x94D049BB133111EB;
  return a ^ (a >> 31);
}

struct ThreadGenerator {
  Xoshiro256pp state;
  bool seeded;
};

thread_local ThreadGenerator t_generator{};

}  // namespace

Xoshiro256pp Xoshiro256pp::from_seed(std::uint64_t seed) {
  Xoshiro256pp generator{};
  for (std::uint64_t i = 0; i < 4; ++i) {
    generator.s[i] = splitmix64_finalise(seed + (i + 1) * kGoldenGamma);
  }
  return generator;
}

std::uint64_t Xoshiro256pp::next() {
  const std::uint64_t result = std::rotl(s[0] + s[3], 23) + s[0];
  const std::uint64_t t = s[1] << 17;
  s[2] ^= s[0];
  s[3] ^= s[1];
  s[1] ^= s[2];
  s[0] ^= s[3];
  s[2] ^= t;
  s[3] = std::rotl(s[3], 45);
  return result;
}

Xoshiro256pp& thread_generator() {
  if (!t_generator.seeded) {
    const auto address = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(&t_generator.state));
    t_generator.state = Xoshiro256pp::from_seed(address ^ kAddressSalt);
    t_generator.seeded = true;
  }
  return t_generator.state;
}

}  // namespace quorvel
