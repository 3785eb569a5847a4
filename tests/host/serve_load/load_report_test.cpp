// The load summary: outcomes counted, times of the successful requests, and what is acceptable.
#include "host/serve_load/load_report.h"

#include <gtest/gtest.h>

#include <sstream>

namespace quorvel::serve_load {
namespace {

RequestResult result(const std::string& outcome, bool streamed, double first_token, double total, int tokens) {
  RequestResult r;
  r.outcome = outcome;
  r.streamed = streamed;
  r.first_token_seconds = first_token;
  r.total_seconds = total;
  r.usage.completion_tokens = tokens;
  r.usage.prompt_tokens = 2 * tokens;
  r.usage.cached_tokens = tokens / 2;
  if (outcome != "200") r.error = "went wrong";
  return r;
}

const std::vector<RequestResult> kResults{result("200", true, 0.1, 1.0, 10), result("200", false, 2.0, 2.0, 20),
                                          result("200", true, 0.3, 3.0, 30), result("500", true, 9.0, 9.0, 5),
                                          result("503", false, 0.01, 0.01, 0)};

TEST(LoadSummary, CountsOutcomesAndFailures) {
  const LoadSummary summary = summarize(kResults, 10.0);
  EXPECT_EQ(summary.requests, 5);
  EXPECT_EQ(summary.failed, 2);
  EXPECT_EQ(summary.outcomes, (std::map<std::string, int>{{"200", 3}, {"500", 1}, {"503", 1}}));
  EXPECT_EQ(summary.first_errors, (std::vector<std::string>{"500: went wrong", "503: went wrong"}));
}

TEST(LoadSummary, TimesAndTokensAreThoseOfTheRequestsThatSucceeded) {
  const LoadSummary summary = summarize(kResults, 10.0);
  EXPECT_DOUBLE_EQ(*summary.streamed_first_token.p50, 0.2);
  EXPECT_DOUBLE_EQ(*summary.first_token.p50, 0.3);
  EXPECT_DOUBLE_EQ(*summary.latency.p50, 2.0);
  EXPECT_DOUBLE_EQ(*summary.latency.p95, 2.9);
  EXPECT_EQ(summary.completion_tokens, 60);
  EXPECT_EQ(summary.prompt_tokens, 120);
  EXPECT_EQ(summary.cached_tokens, 30);
}

TEST(LoadSummary, PrintsStatusesPercentilesAndTokensPerSecond) {
  std::ostringstream out;
  print_summary(summarize(kResults, 10.0), out);
  const std::string text = out.str();
  EXPECT_NE(text.find("requests:              5 (200 × 3, 500 × 1, 503 × 1)"), std::string::npos) << text;
  EXPECT_NE(text.find("failed:                2"), std::string::npos) << text;
  EXPECT_NE(text.find("streamed 200 ms / "), std::string::npos) << text;
  EXPECT_NE(text.find("latency p50 / p95:     2000 ms / 2900 ms"), std::string::npos) << text;
  EXPECT_NE(text.find("60 in 10.0 s = 6.0 tokens/s"), std::string::npos) << text;
  EXPECT_NE(text.find("prompt tokens:         120, 30 of them cached (25.0%)"), std::string::npos) << text;
  EXPECT_NE(text.find("failure:               500: went wrong"), std::string::npos) << text;
}

TEST(LoadSummary, NoSuccessfulRequestPrintsDashes) {
  std::ostringstream out;
  print_summary(summarize({result("500", true, 1, 1, 0)}, 0), out);
  EXPECT_NE(out.str().find("latency p50 / p95:     - / -"), std::string::npos) << out.str();
}

TEST(Acceptable, EverySuccessIsAcceptable) { EXPECT_TRUE(acceptable(summarize({kResults[0], kResults[1]}, 1), false)); }

TEST(Acceptable, ServerErrorsOnlyWhenExpected) {
  const LoadSummary with_500 = summarize({kResults[0], kResults[3]}, 1);
  EXPECT_FALSE(acceptable(with_500, false));
  EXPECT_TRUE(acceptable(with_500, true));
}

TEST(Acceptable, OtherFailuresNever) {
  EXPECT_FALSE(acceptable(summarize(kResults, 1), true));
  EXPECT_FALSE(acceptable(summarize({kResults[0], result("stream ended before [DONE]", true, 1, 1, 0)}, 1), true));
}

}  // namespace
}  // namespace quorvel::serve_load
