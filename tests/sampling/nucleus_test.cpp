#include "sampling/nucleus.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace quorvel {
namespace {

// Logits whose softmax is 0.5, 0.25, 0.125, 0.125 (up to rounding), given
// out of order and with a NaN that must sort last.
std::vector<Candidate> halving_candidates() {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  return {{12, std::log(0.125f)}, {20, nan}, {10, std::log(0.5f)}, {13, std::log(0.125f)}, {11, std::log(0.25f)}};
}

TEST(NucleusTest, SortsAndTurnsTheTopKIntoProbabilities) {
  std::vector<Candidate> list = halving_candidates();
  const Nucleus nucleus = build_nucleus(list.data(), list.size(), 4, 1.0f);
  EXPECT_EQ(nucleus.size, 4u);
  EXPECT_NEAR(nucleus.mass, 1.0f, 1e-6f);
  const float expected[] = {0.5f, 0.25f, 0.125f, 0.125f};
  for (std::size_t i = 0; i < 4; ++i) EXPECT_NEAR(list[i].value, expected[i], 1e-6f) << i;
  EXPECT_EQ(list[0].id, 10u);
  EXPECT_EQ(list[1].id, 11u);
  EXPECT_EQ(list[4].id, 20u);
}

TEST(NucleusTest, SoftmaxCoversOnlyTheFirstK) {
  std::vector<Candidate> list = halving_candidates();
  const Nucleus nucleus = build_nucleus(list.data(), list.size(), 2, 1.0f);
  EXPECT_EQ(nucleus.size, 2u);
  EXPECT_NEAR(list[0].value, 2.0f / 3.0f, 1e-6f);
  EXPECT_NEAR(list[1].value, 1.0f / 3.0f, 1e-6f);
  EXPECT_EQ(list[2].value, std::log(0.125f));
}

// The nucleus ends at the first pair whose running sum exceeds top_p, that
// pair included; its mass is not renormalised.
TEST(NucleusTest, TopPCutsAfterTheFirstPairBeyondIt) {
  const struct {
    float top_p;
    std::uint64_t size;
    float mass;
  } cases[] = {{1e-6f, 1, 0.5f}, {0.4f, 1, 0.5f}, {0.7f, 2, 0.75f}, {0.8f, 3, 0.875f}, {0.9f, 4, 1.0f}};
  for (const auto& c : cases) {
    std::vector<Candidate> list = halving_candidates();
    const Nucleus nucleus = build_nucleus(list.data(), list.size(), 4, c.top_p);
    EXPECT_EQ(nucleus.size, c.size) << c.top_p;
    EXPECT_NEAR(nucleus.mass, c.mass, 1e-6f) << c.top_p;
  }
}

TEST(NucleusTest, NothingToChooseFromGivesAnEmptyNucleus) {
  std::vector<Candidate> list = halving_candidates();
  EXPECT_EQ(build_nucleus(list.data(), 0, 4, 1.0f).size, 0u);
  EXPECT_EQ(build_nucleus(list.data(), list.size(), 0, 1.0f).size, 0u);
}

// The draw lands on the first pair whose running sum reaches mass * u.
TEST(NucleusTest, PicksTheFirstPairReachingTheScaledDraw) {
  const std::vector<Candidate> list = {{7, 0.5f}, {8, 0.25f}, {9, 0.25f}};
  const Nucleus whole{3, 1.0f};
  EXPECT_EQ(pick_from_nucleus(list.data(), whole, 0.0f), 7u);
  EXPECT_EQ(pick_from_nucleus(list.data(), whole, 0.5f), 7u);
  EXPECT_EQ(pick_from_nucleus(list.data(), whole, 0.5f + 0x1p-24f), 8u);
  EXPECT_EQ(pick_from_nucleus(list.data(), whole, 0.75f + 0x1p-24f), 9u);
  // A two-pair nucleus of mass 0.75: the draw is scaled into it.
  EXPECT_EQ(pick_from_nucleus(list.data(), Nucleus{2, 0.75f}, 0.6f), 7u);
  EXPECT_EQ(pick_from_nucleus(list.data(), Nucleus{2, 0.75f}, 0.7f), 8u);
  // A mass above the pairs' sum (rounding) still ends inside the nucleus.
  EXPECT_EQ(pick_from_nucleus(list.data(), Nucleus{2, 0.8f}, 1.0f - 0x1p-24f), 8u);
}

}  // namespace
}  // namespace quorvel
