// A streamed reply's events: text, first token time, token count and how the stream ended.
#include "host/serve_load/stream_tally.h"

#include <gtest/gtest.h>

namespace quorvel::serve_load {
namespace {

std::string chat_chunk(const std::string& content) {
  return R"({"object":"chat.completion.chunk","choices":[{"index":0,"delta":{"content":")" + content +
         R"("},"finish_reason":null}]})";
}

TEST(StreamTally, AChatStreamEndedByDoneSucceeds) {
  StreamTally tally;
  tally.add_event(R"({"choices":[{"index":0,"delta":{"role":"assistant"}}]})", 0.010);
  tally.add_event(chat_chunk("Hel"), 0.045);
  tally.add_event(chat_chunk("lo"), 0.060);
  tally.add_event(R"({"choices":[{"index":0,"delta":{},"finish_reason":"length"}]})", 0.061);
  tally.add_event("[DONE]", 0.062);
  EXPECT_EQ(tally.outcome(), "200");
  EXPECT_EQ(tally.text(), "Hello");
  EXPECT_DOUBLE_EQ(*tally.first_token_seconds(), 0.045);  // not the role-only chunk
  EXPECT_EQ(tally.usage().completion_tokens, 2);
  EXPECT_EQ(tally.usage().prompt_tokens, 0);
}

TEST(StreamTally, CompletionChunksCarryTheirTextInChoices) {
  StreamTally tally;
  tally.add_event(R"({"choices":[{"index":0,"text":""}]})", 0.1);
  tally.add_event(R"({"choices":[{"index":0,"text":" once"}]})", 0.2);
  tally.add_event("[DONE]", 0.3);
  EXPECT_EQ(tally.text(), " once");
  EXPECT_DOUBLE_EQ(*tally.first_token_seconds(), 0.2);
}

TEST(StreamTally, TheUsageChunkGivesTheTokenCount) {
  StreamTally tally;
  tally.add_event(chat_chunk("ab"), 0.1);
  tally.add_event(R"({"choices":[],"usage":{"prompt_tokens":9,"completion_tokens":3,"total_tokens":12,)"
                  R"("prompt_tokens_details":{"cached_tokens":4}}})",
                  0.2);
  tally.add_event(R"({"choices":[],"usage":null})", 0.2);
  tally.add_event("[DONE]", 0.3);
  EXPECT_EQ(tally.usage().completion_tokens, 3);
  EXPECT_EQ(tally.usage().prompt_tokens, 9);
  EXPECT_EQ(tally.usage().cached_tokens, 4);
}

TEST(StreamTally, AnErrorEventCountsAsAServerError) {
  StreamTally tally;
  tally.add_event(chat_chunk("x"), 0.1);
  tally.add_event(R"({"error":{"message":"the engine stopped","type":"server_error","code":500}})", 0.2);
  EXPECT_EQ(tally.outcome(), "500");
  EXPECT_EQ(tally.error(), "the engine stopped");
}

TEST(StreamTally, AStreamWithoutDoneIsIncomplete) {
  StreamTally tally;
  EXPECT_EQ(tally.outcome(), "stream ended before [DONE]");
  tally.add_event(chat_chunk("x"), 0.1);
  EXPECT_EQ(tally.outcome(), "stream ended before [DONE]");
}

TEST(StreamTally, AnEventThatIsNotAJsonObjectIsMalformed) {
  StreamTally tally;
  tally.add_event("{not json", 0.1);
  tally.add_event("[DONE]", 0.2);
  EXPECT_EQ(tally.outcome(), "malformed stream event");
  EXPECT_NE(tally.error().find("{not json"), std::string::npos);
}

TEST(StreamTally, OddlyShapedChunksAreToleratedAndCountNothing) {
  StreamTally tally;
  for (const char* chunk : {R"({"choices":"none"})", R"({"choices":[7]})", R"({"choices":[{"delta":{"content":5}}]})",
                            R"({"usage":{"completion_tokens":"many"}})"}) {
    tally.add_event(chunk, 0.1);
  }
  tally.add_event("[DONE]", 0.2);
  EXPECT_EQ(tally.outcome(), "200");
  EXPECT_EQ(tally.usage().completion_tokens, 0);
  EXPECT_FALSE(tally.first_token_seconds().has_value());
}

TEST(ErrorMessageOf, TakesTheMessageOfAnErrorBodyElseTheBodyItself) {
  EXPECT_EQ(error_message_of(R"({"error":{"message":"queue full","type":"overloaded","code":503}})"), "queue full");
  EXPECT_EQ(error_message_of("Bad Gateway"), "Bad Gateway");
  EXPECT_EQ(error_message_of(std::string(500, 'x')), std::string(200, 'x'));
  EXPECT_EQ(error_message_of(R"({"error":"flat"})"), R"({"error":"flat"})");
}

}  // namespace
}  // namespace quorvel::serve_load
