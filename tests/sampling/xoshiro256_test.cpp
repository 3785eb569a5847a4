#include "sampling/xoshiro256.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <thread>

namespace quorvel {
namespace {

// From the state {1, 2, 3, 4}: rotl(1 + 4, 23) + 1, then after one step
// s0 = 7, s3 = 6 << 45, and rotl(7 + (6 << 45), 23) + 7 = 96 + (7 << 23) + 7.
TEST(Xoshiro256Test, MatchesTheReferenceOutputs) {
  Xoshiro256pp generator{{1, 2, 3, 4}};
  EXPECT_EQ(generator.next(), 41943041u);
  EXPECT_EQ(generator.next(), 58720359u);
  EXPECT_EQ(generator.next(), 3588806011781223u);
}

// The four words are the first four outputs of the standard SplitMix64
// stream started at the seed.
TEST(Xoshiro256Test, SeedsThroughSplitMix64) {
  const Xoshiro256pp generator = Xoshiro256pp::from_seed(0);
  EXPECT_EQ(generator.s[0], 0xE220A8397B1DCDAFu);
  EXPECT_EQ(generator.s[1], 0x6E789E6AA1B965F4u);
  EXPECT_EQ(generator.s[2], 0x06C45D188009454Fu);
  EXPECT_EQ(generator.s[3], 0xF88BB8A8724C81ECu);
}

TEST(Xoshiro256Test, ThreadGeneratorIsSeededFromItsOwnAddress) {
  Xoshiro256pp first_use{};
  std::uint64_t address = 0;
  std::thread fresh([&] {
    const Xoshiro256pp& generator = thread_generator();
    address = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(&generator));
    first_use = generator;
  });
  fresh.join();
  EXPECT_TRUE(first_use == Xoshiro256pp::from_seed(address ^ 0x123456789ABCDEF0u));
  EXPECT_NE(address, static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(&thread_generator())));
}

TEST(Xoshiro256Test, UnitFloatUsesTheTop24BitsAndStaysBelowOne) {
  EXPECT_EQ(unit_float(0), 0.0f);
  EXPECT_EQ(unit_float((std::uint64_t{1} << 40) - 1), 0.0f);
  EXPECT_EQ(unit_float(std::uint64_t{1} << 40), 0x1p-24f);
  EXPECT_EQ(unit_float(~std::uint64_t{0}), 1.0f - 0x1p-24f);
}

}  // namespace
}  // namespace quorvel
