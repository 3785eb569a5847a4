// The request mix: the same for a seed and client, within its ranges, and mixed in every way a
// server should see.
#include "host/serve_load/request_mix.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace quorvel::serve_load {
namespace {

constexpr int kPlans = 400;

std::vector<RequestPlan> plans(std::uint64_t seed, int client, MixRanges ranges = {}) {
  RequestMix mix(seed, client, ranges);
  std::vector<RequestPlan> result;
  for (int i = 0; i < kPlans; ++i) result.push_back(mix.next());
  return result;
}

int word_count(const std::string& text) { return static_cast<int>(std::count(text.begin(), text.end(), ' ')) + 1; }

bool same(const std::vector<RequestPlan>& a, const std::vector<RequestPlan>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const RequestPlan& x, const RequestPlan& y) {
    return x.endpoint == y.endpoint && x.stream == y.stream && x.continues == y.continues &&
           x.max_tokens == y.max_tokens && x.text == y.text;
  });
}

TEST(RequestMix, TheSameSeedAndClientGiveTheSameRequests) { EXPECT_TRUE(same(plans(7, 3), plans(7, 3))); }

TEST(RequestMix, OtherSeedsAndClientsGiveOtherRequests) {
  EXPECT_FALSE(same(plans(7, 3), plans(8, 3)));
  EXPECT_FALSE(same(plans(7, 3), plans(7, 4)));
  EXPECT_FALSE(same(plans(7, 0), plans(7ull << 32, 0)));
}

TEST(RequestMix, StaysWithinItsRanges) {
  const MixRanges ranges{.max_tokens = {10, 20}, .prompt_words = {5, 50}};
  for (const RequestPlan& plan : plans(1, 0, ranges)) {
    EXPECT_GE(plan.max_tokens, 10);
    EXPECT_LE(plan.max_tokens, 20);
    EXPECT_GE(word_count(plan.text), 5);
    EXPECT_LE(word_count(plan.text), plan.continues ? RequestMix::kMaxFollowUpWords : 50);
  }
}

TEST(RequestMix, MixesEndpointsStreamingAndLengths) {
  const std::vector<RequestPlan> mix = plans(1, 0);
  const auto count = [&mix](auto predicate) { return std::count_if(mix.begin(), mix.end(), predicate); };
  EXPECT_GT(count([](const RequestPlan& p) { return p.endpoint == Endpoint::kCompletion; }), kPlans / 5);
  EXPECT_GT(count([](const RequestPlan& p) { return p.endpoint == Endpoint::kChat; }), kPlans / 3);
  EXPECT_GT(count([](const RequestPlan& p) { return p.stream; }), kPlans / 3);
  EXPECT_GT(count([](const RequestPlan& p) { return !p.stream; }), kPlans / 3);
  EXPECT_GT(count([](const RequestPlan& p) { return p.continues; }), kPlans / 10);
  EXPECT_GT(count([](const RequestPlan& p) { return word_count(p.text) <= 10; }), kPlans / 5);
  EXPECT_GT(count([](const RequestPlan& p) { return word_count(p.text) >= 100; }), kPlans / 10);
  std::set<int> max_tokens;
  for (const RequestPlan& plan : mix) max_tokens.insert(plan.max_tokens);
  EXPECT_GT(max_tokens.size(), 50u);
}

TEST(RequestMix, OnlyAChatIsContinuedAndOnlyForAFewTurns) {
  const std::vector<RequestPlan> mix = plans(2, 1);
  EXPECT_FALSE(mix.front().continues);
  int turns = 1;
  for (std::size_t i = 1; i < mix.size(); ++i) {
    if (!mix[i].continues) {
      turns = 1;
      continue;
    }
    EXPECT_EQ(mix[i].endpoint, Endpoint::kChat);
    EXPECT_EQ(mix[i - 1].endpoint, Endpoint::kChat) << i;
    EXPECT_LE(++turns, RequestMix::kMaxTurns) << i;
  }
}

}  // namespace
}  // namespace quorvel::serve_load
