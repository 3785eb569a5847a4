// Request bodies, and the chat a client carries on with the replies it gets.
#include "host/serve_load/chat_history.h"

#include <gtest/gtest.h>

namespace quorvel::serve_load {
namespace {

using nlohmann::json;

RequestPlan chat(const std::string& text, bool continues) {
  RequestPlan plan;
  plan.endpoint = Endpoint::kChat;
  plan.continues = continues;
  plan.text = text;
  return plan;
}

json turn(const char* role, const char* content) { return {{"role", role}, {"content", content}}; }

TEST(ChatHistory, AContinuationSendsTheReplyBackBeforeTheNewTurn) {
  ChatHistory history;
  history.add_user_turn(chat("first", false));
  history.set_reply("answer one");
  history.add_user_turn(chat("second", true));
  EXPECT_EQ(history.messages(),
            json::array({turn("user", "first"), turn("assistant", "answer one"), turn("user", "second")}));
}

TEST(ChatHistory, ANewChatForgetsTheOldOne) {
  ChatHistory history;
  history.add_user_turn(chat("first", false));
  history.set_reply("answer one");
  history.add_user_turn(chat("other", false));
  EXPECT_EQ(history.messages(), json::array({turn("user", "other")}));
}

TEST(ChatHistory, AChatWhoseLastRequestFailedStartsOver) {
  ChatHistory history;
  history.add_user_turn(chat("first", false));
  history.set_reply(std::nullopt);
  history.add_user_turn(chat("second", true));
  EXPECT_EQ(history.messages(), json::array({turn("user", "second")}));
}

TEST(RequestBody, AChatSendsTheMessagesAndAStreamAsksForUsage) {
  ChatHistory history;
  RequestPlan plan = chat("hello there", false);
  plan.stream = true;
  plan.max_tokens = 12;
  history.add_user_turn(plan);
  const json body = request_body(plan, history);
  EXPECT_EQ(body["messages"], json::array({turn("user", "hello there")}));
  EXPECT_EQ(body["max_tokens"], 12);
  EXPECT_EQ(body["stream"], true);
  EXPECT_EQ(body["stream_options"]["include_usage"], true);
  EXPECT_FALSE(body.contains("prompt"));
  EXPECT_DOUBLE_EQ(body["temperature"].get<double>(), 0.7);
}

TEST(RequestBody, ACompletionSendsThePromptAndNoStreamOptions) {
  RequestPlan plan;
  plan.endpoint = Endpoint::kCompletion;
  plan.text = "once upon";
  plan.max_tokens = 4;
  const json body = request_body(plan, ChatHistory{});
  EXPECT_EQ(body["prompt"], "once upon");
  EXPECT_EQ(body["stream"], false);
  EXPECT_FALSE(body.contains("messages"));
  EXPECT_FALSE(body.contains("stream_options"));
}

}  // namespace
}  // namespace quorvel::serve_load
