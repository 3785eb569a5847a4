// The sampler on a two-thread pool, each behaviour checked both with the
// vocabulary scan dispatched over the pool and with it run inline (called
// from inside a pool job). With two threads a vocabulary of V tokens splits
// into [0, ceil(V/2)) and [ceil(V/2), V).
#include "sampling/sampler.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <span>
#include <vector>

#include "runtime/thread_pool.h"
#include "sampling/sampling_test_support.h"
#include "sampling/xoshiro256.h"

namespace quorvel {
namespace {

using testing::run_inside_pool_job;
using testing::WorkspaceBuffers;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// The pool's thread count is fixed when the pool first starts, so it is set
// here, in main, before any test dispatches.
class TwoThreadPool : public ::testing::Environment {
 public:
  void SetUp() override {
    set_thread_count(2);
    ASSERT_EQ(thread_count(), 2u) << "the pool started before the thread count was set";
  }
};
[[maybe_unused]] ::testing::Environment* const two_thread_pool =
    ::testing::AddGlobalTestEnvironment(new TwoThreadPool);

enum class Scan { kDispatched, kInline };

// Samples once; `candidates` receives the workspace's candidate buffer
// afterwards, whose front holds the sorted top-k list with probabilities.
std::uint64_t sample_with(Scan scan, std::span<float> logits, const SamplingParams& params,
                          const std::vector<std::int64_t>& history = {}, std::vector<Candidate>* candidates = nullptr) {
  WorkspaceBuffers buffers(logits.size());
  std::uint64_t token = 0;
  auto call = [&] {
    token = sample(logits.data(), logits.size(), buffers.view(), history.data(), history.size(), params);
  };
  if (scan == Scan::kInline) {
    run_inside_pool_job(call);
  } else {
    call();
  }
  if (candidates != nullptr) *candidates = buffers.candidates;
  return token;
}

SamplingParams stochastic(float temperature, std::uint64_t top_k, float top_p) {
  SamplingParams params;
  params.temperature = temperature;
  params.top_k = top_k;
  params.top_p = top_p;
  params.repetition_penalty = 1.0f;
  return params;
}

class SamplerTest : public ::testing::TestWithParam<Scan> {
 protected:
  std::uint64_t greedy(std::vector<float> logits) {
    SamplingParams params;
    params.temperature = 0.0f;
    return sample_with(GetParam(), logits, params);
  }
};

TEST_P(SamplerTest, GreedyKeepsTheLowestIndexOfEqualMaximaAndNeverTakesNaN) {
  EXPECT_EQ(greedy({1, 5, kNaN, 5, 2, 5}), 1u);
  EXPECT_EQ(greedy({0, 0, 7, 7, 0, 0}), 2u);  // equal maxima on both sides of the split
  EXPECT_EQ(greedy({kNaN, kNaN, kNaN, 1, 2, 0}), 4u);
  EXPECT_EQ(greedy({kNaN, 3, kNaN, 3}), 1u);
  EXPECT_EQ(greedy({-kInf, kNaN, -kInf}), 0u);
}

TEST_P(SamplerTest, GreedyIgnoresPenaltyAndTopKAndLeavesTheGeneratorAlone) {
  const std::vector<float> original = {1, 2, 9, 3, 8};
  std::vector<float> logits = original;
  SamplingParams params = stochastic(9e-6f, 1, 0.5f);
  params.repetition_penalty = 100.0f;
  const Xoshiro256pp before = thread_generator();
  EXPECT_EQ(sample_with(GetParam(), logits, params, {2, 2, 2}), 2u);
  EXPECT_EQ(logits, original);
  EXPECT_TRUE(thread_generator() == before);
}

TEST_P(SamplerTest, TopKOneReturnsTheLargestLogitAtAnyTemperature) {
  const std::vector<float> original = {0.5f, 1, 0.9f, 0.2f, 1.2f, 1.1f, 0, 0.3f};
  for (float temperature : {1e-5f, 0.5f, 1.0f, 1000.0f}) {
    for (int i = 0; i < 20; ++i) {
      std::vector<float> logits = original;
      ASSERT_EQ(sample_with(GetParam(), logits, stochastic(temperature, 1, 1.0f)), 4u) << temperature;
    }
  }
}

TEST_P(SamplerTest, PenaltyCompoundsPerOccurrenceAfterScalingAndSkipsForeignIds) {
  // Token 3 (positive) and token 5 (negative) each occur three times; 8 is
  // the vocabulary size, and the two guard floats behind it must stay put.
  const std::vector<std::int64_t> history = {5, 3, 3, INT64_MIN, 8, 3, 5, -1, 5};
  const std::vector<float> original = {0.25f, -2, 1, 4, 0, -1.5f, 3, -0.5f, 77, 78};
  SamplingParams params = stochastic(0.5f, 256, 1.0f);
  params.repetition_penalty = 2.0f;
  for (std::uint64_t lookback : {64u, 4u}) {
    params.rep_penalty_lookback = lookback;
    std::vector<float> logits = original;
    sample_with(GetParam(), std::span<float>(logits).first(8), params, history);
    std::vector<float> expected = {0.5f, -4, 2, 8, 0, -3, 6, -1, 77, 78};
    // The last four ids are 3, 5, -1, 5.
    expected[3] = lookback == 64 ? 1.0f : 4.0f;
    expected[5] = lookback == 64 ? -24.0f : -12.0f;
    EXPECT_EQ(logits, expected) << "lookback " << lookback;
  }
}

TEST_P(SamplerTest, UnitPenaltyOrEmptyWindowOnlyScalesByTheTemperature) {
  const std::vector<float> original = {0.3f, -1.7f, 2.9f, 0, -0.1f, 5.5f};
  const float inv_t = 1.0f / 0.7f;
  SamplingParams unit_penalty = stochastic(0.7f, 256, 1.0f);
  SamplingParams no_window = unit_penalty;
  no_window.repetition_penalty = 2.0f;
  no_window.rep_penalty_lookback = 0;
  for (const SamplingParams& params : {unit_penalty, no_window}) {
    std::vector<float> logits = original;
    sample_with(GetParam(), logits, params, {0, 1, 2, 5, 5});
    for (std::size_t i = 0; i < logits.size(); ++i) EXPECT_EQ(logits[i], original[i] * inv_t) << i;
  }
}

TEST_P(SamplerTest, TinyTopPKeepsOnlyTheMostProbable) {
  const std::vector<float> original = {1.0f, 1.02f, 1.01f, 0.99f, 1.015f, 1.0f};
  for (int i = 0; i < 100; ++i) {
    std::vector<float> logits = original;
    ASSERT_EQ(sample_with(GetParam(), logits, stochastic(1.0f, 256, 1e-6f)), 1u);
  }
}

// Every odd token is NaN; the top five are the four 36s and one 35.
TEST_P(SamplerTest, NaNLogitsRankBelowEveryNumber) {
  std::vector<float> original(300);
  for (std::size_t i = 0; i < original.size(); ++i) original[i] = i % 2 != 0 ? kNaN : static_cast<float>(i % 37);
  for (int i = 0; i < 50; ++i) {
    std::vector<float> logits = original;
    const std::uint64_t token = sample_with(GetParam(), logits, stochastic(1.0f, 5, 1.0f));
    ASSERT_LT(token, original.size());
    ASSERT_GE(original[token], 35.0f) << token;
  }
}

INSTANTIATE_TEST_SUITE_P(BothScans, SamplerTest, ::testing::Values(Scan::kDispatched, Scan::kInline),
                         [](const auto& test) { return test.param == Scan::kInline ? "Inline" : "Dispatched"; });

// Each range keeps at most len - 1 candidates: split 2 + 1, the largest
// logit sits alone in the second range and is never a candidate, while one
// inline range of three keeps it.
TEST(SamplerSplitTest, OneTokenRangeContributesNoCandidate) {
  const std::vector<float> original = {1, 0, 10};
  std::vector<float> logits = original;
  EXPECT_EQ(sample_with(Scan::kDispatched, logits, stochastic(1.0f, 1, 1.0f)), 0u);
  logits = original;
  EXPECT_EQ(sample_with(Scan::kInline, logits, stochastic(1.0f, 1, 1.0f)), 2u);
}

// Two one-token ranges leave no candidate at all; the sampler then falls
// back to the largest logit without drawing.
TEST(SamplerSplitTest, NoCandidateAtAllFallsBackToGreedyWithoutDrawing) {
  std::vector<float> logits = {1, 3};
  const Xoshiro256pp before = thread_generator();
  EXPECT_EQ(sample_with(Scan::kDispatched, logits, stochastic(1.0f, 256, 1.0f)), 1u);
  EXPECT_TRUE(thread_generator() == before);
}

TEST(SamplerSplitTest, InlineAndTwoThreadScansGiveTheSameLogitsAndCandidates) {
  std::mt19937 random(20240611);
  std::normal_distribution<float> normal(0.0f, 2.0f);
  std::uniform_int_distribution<std::int64_t> token(-5, 1004);
  std::vector<float> original(1000);
  for (float& logit : original) logit = normal(random);
  std::vector<std::int64_t> history(40);
  for (std::int64_t& id : history) id = token(random);
  history.insert(history.end(), {10, 990, 10, 990});

  SamplingParams params = stochastic(0.7f, 40, 0.95f);
  params.repetition_penalty = 1.3f;
  params.rep_penalty_lookback = 32;
  std::vector<float> dispatched_logits = original, inline_logits = original;
  std::vector<Candidate> dispatched, inlined;
  sample_with(Scan::kDispatched, dispatched_logits, params, history, &dispatched);
  sample_with(Scan::kInline, inline_logits, params, history, &inlined);
  EXPECT_EQ(dispatched_logits, inline_logits);
  for (std::size_t i = 0; i < params.top_k; ++i) {
    EXPECT_EQ(dispatched[i].id, inlined[i].id) << i;
    EXPECT_EQ(dispatched[i].value, inlined[i].value) << i;
  }

  // Whole-number logits tie often, also across the split.
  for (float& logit : original) logit = std::round(logit);
  SamplingParams greedy;
  greedy.temperature = 0.0f;
  dispatched_logits = inline_logits = original;
  EXPECT_EQ(sample_with(Scan::kDispatched, dispatched_logits, greedy),
            sample_with(Scan::kInline, inline_logits, greedy));
}

}  // namespace
}  // namespace quorvel
