// Chat formats against the publishers' own templates: renderings of
// multi-turn conversations made once with jinja2 from the Llama 3 and Qwen3
// tokenizer_config.json files (make_chat_renderings.py), and the turn-by-turn
// text that extends a cached conversation to exactly the full rendering.
#include "host/text/chat_format.h"

#include <gtest/gtest.h>

#include <fstream>

#include <nlohmann/json.hpp>

namespace quorvel::text {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const fs::path kHere = fs::path(__FILE__).parent_path();

std::vector<ChatMessage> messages_of(const json& list) {
  std::vector<ChatMessage> messages;
  for (const json& m : list) messages.push_back({m["role"], m["content"]});
  return messages;
}

TEST(ChatFormat, RendersConversationsAsThePublishersTemplatesDo) {
  std::ifstream in(kHere / "chat_renderings.json");
  const json cases = json::parse(in)["cases"];
  ASSERT_EQ(cases.size(), 8u);
  for (const json& c : cases) {
    const ChatFormat format = ChatFormat::named(c["family"].get<std::string>(), c["thinking"].get<bool>());
    const std::vector<ChatMessage> messages = messages_of(c["messages"]);
    EXPECT_EQ(joined(format.render(messages, c["add_generation_prompt"])), c["text"].get<std::string>()) << c.dump();
  }
}

// The family's own format for BitNet: roles capitalised, the Llama 3 tokenizer's tokens.
TEST(ChatFormat, BitNetTurns) {
  const std::vector<ChatMessage> messages = {{"system", "Be brief."}, {"user", "Hi"}};
  EXPECT_EQ(joined(ChatFormat::named("bitnet").render(messages)),
            "<|begin_of_text|>System: Be brief.<|eot_id|>User: Hi<|eot_id|>Assistant: ");
  EXPECT_EQ(joined(ChatFormat::named("completion").render(messages)), "Be brief.Hi");
}

// A cached conversation grows by the reply as generated (ending in its
// end-of-turn token) and then by next_turn: together exactly what rendering
// the whole conversation again gives.
TEST(ChatFormat, TurnByTurnTextEqualsTheWholeRendering) {
  std::vector<ChatMessage> messages = {{"system", "You are terse."}, {"user", "What is 2+2?"}};
  for (const char* name : {"llama3", "bitnet", "chatml", "completion"}) {
    for (const bool thinking : {true, false}) {
      const ChatFormat format = ChatFormat::named(name, thinking);
      const std::string end = format.stop_tokens().empty() ? "" : format.stop_tokens().front();
      const std::string cached = joined(format.render(messages)) + "4." + end + joined(format.next_turn("And times 3?"));
      std::vector<ChatMessage> whole = messages;
      whole.push_back({"assistant", "4."});
      whole.push_back({"user", "And times 3?"});
      if (format.family() == ChatFamily::CHATML && !thinking) continue;  // the template drops the empty think block
      EXPECT_EQ(cached, joined(format.render(whole))) << name;
    }
  }
}

TEST(ChatFormat, IsRecognisedFromItsTemplateOrNamed) {
  EXPECT_EQ(ChatFormat::recognise("{{ '<|start_header_id|>' + message['role'] }}"), ChatFamily::LLAMA3);
  EXPECT_EQ(ChatFormat::recognise("{{- '<|im_start|>' + message.role }}"), ChatFamily::CHATML);
  EXPECT_EQ(ChatFormat::recognise("{{ 'Assistant: ' }}"), ChatFamily::BITNET);
  EXPECT_EQ(ChatFormat::recognise("{{ messages[0]['content'] }}"), std::nullopt);
  EXPECT_EQ(ChatFormat::named("qwen3").family(), ChatFamily::CHATML);
  try {
    ChatFormat::named("alpaca");
    ADD_FAILURE() << "an unknown format was accepted";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "unknown chat format 'alpaca' (known: llama3, bitnet, chatml, qwen3, completion)");
  }
}

}  // namespace
}  // namespace quorvel::text
