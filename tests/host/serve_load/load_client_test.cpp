// One simulated client against a stand-in server: all its requests, chats carried on with the
// replies it got.
#include "host/serve_load/load_client.h"

#include <gtest/gtest.h>

#include "fake_chat_server.h"

namespace quorvel::serve_load {
namespace {

LoadOptions options_for(const FakeChatServer& server, int requests) {
  LoadOptions options;
  options.url = server.url();
  options.api_key = "secret";
  options.requests = requests;
  options.ranges = {.max_tokens = {4, 8}, .prompt_words = {3, 20}};
  options.timeout = std::chrono::seconds(10);
  return options;
}

TEST(LoadClient, SendsEveryRequestOfItsMix) {
  FakeChatServer server;
  const std::vector<RequestResult> results = run_client(options_for(server, 12), 0);
  ASSERT_EQ(results.size(), 12u);
  for (const RequestResult& result : results) EXPECT_EQ(result.outcome, "200") << result.error;
  EXPECT_EQ(server.bodies().size(), 12u);
}

TEST(LoadClient, AContinuedChatSendsBackTheReplyItGot) {
  FakeChatServer server;
  run_client(options_for(server, 30), 1);
  const std::vector<nlohmann::json> bodies = server.bodies();
  int continued = 0;
  for (std::size_t i = 1; i < bodies.size(); ++i) {
    if (!bodies[i].contains("messages") || bodies[i]["messages"].size() < 3) continue;
    ++continued;
    const nlohmann::json& messages = bodies[i]["messages"];
    const nlohmann::json& reply = messages[messages.size() - 2];
    EXPECT_EQ(reply["role"], "assistant");
    EXPECT_EQ(reply["content"], "reply " + std::to_string(i)) << i;  // request i's reply: requests count from 1
    EXPECT_EQ(messages, [&] {
      nlohmann::json previous = bodies[i - 1]["messages"];
      previous.push_back(reply);
      previous.push_back(messages.back());
      return previous;
    }()) << i;
  }
  EXPECT_GT(continued, 0);
}

}  // namespace
}  // namespace quorvel::serve_load
