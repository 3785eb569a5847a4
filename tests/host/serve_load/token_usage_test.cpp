// Token counts read from a response's usage, whatever of it the server sends.
#include "host/serve_load/token_usage.h"

#include <gtest/gtest.h>

namespace quorvel::serve_load {
namespace {

using nlohmann::json;

TEST(TokenUsage, ReadsPromptCachedAndCompletionTokens) {
  const auto usage = token_usage_of(json::parse(
      R"({"usage":{"prompt_tokens":35,"completion_tokens":12,"total_tokens":47,"prompt_tokens_details":{"cached_tokens":30}}})"));
  ASSERT_TRUE(usage.has_value());
  EXPECT_EQ(usage->prompt_tokens, 35);
  EXPECT_EQ(usage->cached_tokens, 30);
  EXPECT_EQ(usage->completion_tokens, 12);
}

TEST(TokenUsage, CountsTheServerLeavesOutAreZero) {
  const auto usage = token_usage_of(json::parse(R"({"usage":{"completion_tokens":4,"prompt_tokens_details":null}})"));
  ASSERT_TRUE(usage.has_value());
  EXPECT_EQ(usage->prompt_tokens, 0);
  EXPECT_EQ(usage->cached_tokens, 0);
  EXPECT_EQ(usage->completion_tokens, 4);
}

TEST(TokenUsage, NoUsageWithoutAnIntegerCompletionCount) {
  for (const char* body : {R"({"choices":[]})", R"({"usage":null})", R"({"usage":{"prompt_tokens":3}})",
                           R"({"usage":{"completion_tokens":2.5}})", R"([1,2])", R"("usage")"}) {
    EXPECT_FALSE(token_usage_of(json::parse(body)).has_value()) << body;
  }
}

}  // namespace
}  // namespace quorvel::serve_load
