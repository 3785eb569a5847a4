// Many draws from fixed logits must follow the softmax of the top k, cut to
// the top-p nucleus and scaled by its mass.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <vector>

#include "sampling/sampler.h"
#include "sampling/sampling_test_support.h"

namespace quorvel {
namespace {

constexpr int kDraws = 200000;

// The probability of each token given that the draw lands in the nucleus:
// p_i / mass inside it, 0 outside. Computed in double from the logits as
// the sampler scales them.
std::vector<double> nucleus_probabilities(const std::vector<float>& logits, float temperature, std::uint64_t top_k,
                                          double top_p) {
  const float inv_t = 1.0f / temperature;
  std::vector<std::uint64_t> order(logits.size());
  std::iota(order.begin(), order.end(), std::uint64_t{0});
  std::sort(order.begin(), order.end(), [&](auto a, auto b) { return logits[a] > logits[b]; });
  order.resize(top_k);

  std::vector<double> weight(logits.size(), 0.0);
  double sum = 0.0;
  const double max_scaled = logits[order[0]] * inv_t;
  for (std::uint64_t id : order) {
    weight[id] = std::exp(double{logits[id] * inv_t} - max_scaled);
    sum += weight[id];
  }
  double cumulative = 0.0;
  std::size_t kept = 0;
  while (kept < order.size() && cumulative <= top_p) cumulative += weight[order[kept++]] / sum;
  for (std::size_t j = kept; j < order.size(); ++j) weight[order[j]] = 0.0;
  for (double& w : weight) w /= cumulative * sum;
  return weight;
}

TEST(SamplerDistributionTest, FrequenciesFollowTheScaledNucleus) {
  // No logit that matters is the smallest of a range, whatever the split.
  const std::vector<float> logits = {2.0f, 1.0f, 0.5f, -3.0f, 1.5f, 0.2f, -2.0f, 0.8f};
  SamplingParams params;
  params.temperature = 0.8f;
  params.top_k = 5;
  params.top_p = 0.8f;
  params.repetition_penalty = 1.0f;
  const std::vector<double> expected = nucleus_probabilities(logits, params.temperature, params.top_k, params.top_p);
  // The nucleus is tokens 0, 4 and 1 (cumulative 0.455, 0.698, 0.829); the
  // chi-square bound below assumes its two degrees of freedom.
  ASSERT_EQ(std::count_if(expected.begin(), expected.end(), [](double p) { return p > 0.0; }), 3);

  testing::WorkspaceBuffers buffers(logits.size());
  std::vector<int> counts(logits.size(), 0);
  // Drawn inside one pool job, so that no draw pays for a dispatch.
  auto draw_all = [&] {
    for (int i = 0; i < kDraws; ++i) {
      std::vector<float> scratch = logits;
      ++counts[sample(scratch.data(), scratch.size(), buffers.view(), nullptr, 0, params)];
    }
  };
  testing::run_inside_pool_job(draw_all);

  double chi_square = 0.0;
  for (std::size_t id = 0; id < logits.size(); ++id) {
    if (expected[id] == 0.0) {
      EXPECT_EQ(counts[id], 0) << "token " << id << " lies outside the nucleus";
      continue;
    }
    const double mean = expected[id] * kDraws;
    chi_square += (counts[id] - mean) * (counts[id] - mean) / mean;
  }
  // With two degrees of freedom P(X > x) = exp(-x / 2): this bound fails a
  // correct sampler once in a million runs, while a nucleus one pair off or
  // a draw not scaled by the mass moves thousands of draws.
  EXPECT_LT(chi_square, -2.0 * std::log(1e-6));
}

}  // namespace
}  // namespace quorvel
