// Sizes from files and the config: exact results, or an overflow that later
// arithmetic cannot turn back into a small number.
#include "runtime/checked_size.h"

#include <gtest/gtest.h>

#include "runtime/aligned_buffer.h"

namespace quorvel {
namespace {

constexpr std::uint64_t kHalf = std::uint64_t{1} << 32;

TEST(CheckedSize, ExactWhereTheResultFits) {
  EXPECT_EQ(size_mul(3, 5, 7), 105u);
  EXPECT_EQ(size_mul(kHalf - 1, kHalf), kSizeOverflow - (kHalf - 1));
  EXPECT_EQ(size_add(kSizeOverflow - 2, 1), kSizeOverflow - 1);
  EXPECT_EQ(size_ceil_div(129, 128), 2u);
  EXPECT_EQ(size_ceil_div(128, 128), 1u);
  EXPECT_EQ(size_round_up(32001, 32), 32032u);
  EXPECT_EQ(size_round_up(32000, 32), 32000u);
  EXPECT_EQ(size_round_up(0, 32), 0u);
}

TEST(CheckedSize, OverflowStaysAnOverflowThroughLaterSteps) {
  EXPECT_EQ(size_mul(kHalf, kHalf), kSizeOverflow);
  EXPECT_EQ(size_add(kSizeOverflow - 1, 2), kSizeOverflow);
  // Rounding the largest values up used to wrap to zero: (v + 31) & ~31.
  EXPECT_EQ(size_round_up(kSizeOverflow - 30, 32), kSizeOverflow);
  const std::uint64_t wrapped = size_mul(kHalf, kHalf);
  EXPECT_EQ(size_ceil_div(wrapped, 32), kSizeOverflow);
  EXPECT_EQ(size_add(size_mul(wrapped, 1), 0), kSizeOverflow);
  EXPECT_EQ(size_mul(wrapped, 0), 0u);  // nothing of an unknown huge count is still nothing
}

TEST(CheckedSize, AnOverflowedCountCannotBeAllocated) {
  EXPECT_THROW(allocate_aligned_elements<std::uint16_t>(kSizeOverflow / 2 + 1), std::bad_alloc);
  EXPECT_THROW(allocate_aligned<std::uint8_t>(size_mul(kHalf, kHalf)), std::bad_alloc);
}

}  // namespace
}  // namespace quorvel
