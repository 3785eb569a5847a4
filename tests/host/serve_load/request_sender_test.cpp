// Requests sent to a stand-in server over loopback: what each kind of answer is counted as.
#include "host/serve_load/request_sender.h"

#include <gtest/gtest.h>

#include "fake_chat_server.h"
#include "host/serve_load/chat_history.h"

namespace quorvel::serve_load {
namespace {

constexpr std::chrono::seconds kTimeout{10};

RequestPlan plan(Endpoint endpoint, bool stream, const std::string& text) {
  RequestPlan p;
  p.endpoint = endpoint;
  p.stream = stream;
  p.text = text;
  return p;
}

class RequestSenderTest : public ::testing::Test {
 protected:
  Exchange send(const RequestPlan& p, const std::string& key = "secret") {
    ChatHistory history;
    history.add_user_turn(p);
    return RequestSender(server_.url(), key, kTimeout).send(p, request_body(p, history));
  }

  FakeChatServer server_;
};

TEST_F(RequestSenderTest, AWholeChatReplyIsReadWithItsUsage) {
  const Exchange exchange = send(plan(Endpoint::kChat, false, "hi"));
  EXPECT_EQ(exchange.result.outcome, "200");
  EXPECT_EQ(exchange.reply, "reply 1");
  EXPECT_EQ(exchange.result.usage.completion_tokens, 2);
  EXPECT_EQ(exchange.result.usage.prompt_tokens, 5);
  EXPECT_EQ(exchange.result.usage.cached_tokens, 3);
  EXPECT_FALSE(exchange.result.streamed);
  EXPECT_DOUBLE_EQ(exchange.result.first_token_seconds, exchange.result.total_seconds);
}

TEST_F(RequestSenderTest, AWholeCompletionIsReadFromItsText) {
  const Exchange exchange = send(plan(Endpoint::kCompletion, false, "once"));
  EXPECT_EQ(exchange.result.outcome, "200");
  EXPECT_EQ(exchange.reply, "reply 1");
  EXPECT_EQ(server_.bodies().at(0)["prompt"], "once");
}

TEST_F(RequestSenderTest, AStreamIsTimedFromItsFirstChunk) {
  for (const Endpoint endpoint : {Endpoint::kChat, Endpoint::kCompletion}) {
    const Exchange exchange = send(plan(endpoint, true, "hi"));
    EXPECT_EQ(exchange.result.outcome, "200");
    EXPECT_TRUE(exchange.result.streamed);
    EXPECT_EQ(exchange.result.usage.completion_tokens, 2);
    EXPECT_EQ(exchange.result.usage.cached_tokens, 3);
    const double pause = std::chrono::duration<double>(FakeChatServer::kChunkPause).count();
    EXPECT_LT(exchange.result.first_token_seconds + pause * 0.9, exchange.result.total_seconds);
  }
  EXPECT_EQ(send(plan(Endpoint::kChat, true, "hi")).reply, "reply 3");
}

TEST_F(RequestSenderTest, AnErrorEventInAStreamCountsAs500) {
  const Exchange exchange = send(plan(Endpoint::kChat, true, "fail"));
  EXPECT_EQ(exchange.result.outcome, "500");
  EXPECT_EQ(exchange.result.error, "the engine stopped");
  EXPECT_FALSE(exchange.reply.has_value());
}

TEST_F(RequestSenderTest, AWhole500CarriesTheServersMessage) {
  const Exchange exchange = send(plan(Endpoint::kCompletion, false, "fail"));
  EXPECT_EQ(exchange.result.outcome, "500");
  EXPECT_EQ(exchange.result.error, "the engine stopped");
}

TEST_F(RequestSenderTest, AFullQueueIs503StreamedOrNot) {
  for (const bool stream : {false, true}) {
    const Exchange exchange = send(plan(Endpoint::kChat, stream, "busy"));
    EXPECT_EQ(exchange.result.outcome, "503") << stream;
    EXPECT_EQ(exchange.result.error, "the queue is full") << stream;
  }
}

TEST_F(RequestSenderTest, AStreamThatStopsEarlyFails) {
  const Exchange exchange = send(plan(Endpoint::kChat, true, "cut"));
  EXPECT_FALSE(exchange.result.succeeded());
  EXPECT_NE(exchange.result.outcome, "500");
  EXPECT_FALSE(exchange.reply.has_value());
}

TEST_F(RequestSenderTest, TheApiKeyIsSentAsABearerToken) {
  EXPECT_EQ(send(plan(Endpoint::kChat, false, "hi"), "wrong").result.outcome, "401");
}

TEST(RequestSender, NoServerIsNoResponse) {
  std::string url;
  { url = FakeChatServer().url(); }
  RequestPlan p = plan(Endpoint::kCompletion, true, "hi");
  const Exchange exchange = RequestSender(url, "", kTimeout).send(p, request_body(p, ChatHistory{}));
  EXPECT_TRUE(exchange.result.outcome.starts_with("no response: ")) << exchange.result.outcome;
}

}  // namespace
}  // namespace quorvel::serve_load
