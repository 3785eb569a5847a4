// A conversation sent turn by turn with the Llama 3 tokenizer: whatever happened to a reply (an end
// token, another end token, a stop string inside a token, a restarted engine), the ids that reach
// the engine's cache are the whole conversation as the chat template lays it out, and each turn
// sends no more than the cache lacks.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "host/quorvel/command_error.h"
#include "host/quorvel/conversation.h"

namespace quorvel::cli {
namespace {

using text::ChatFormat;
using text::ChatMessage;
using text::TokenId;

constexpr TokenId kEndOfTurn = 128009;   // <|eot_id|>
constexpr TokenId kEndOfText = 128001;   // <|end_of_text|>

const text::Tokenizer& llama3() {
  static const text::Tokenizer tokenizer(QUORVEL_LLAMA3_TOKENIZER);
  return tokenizer;
}

std::vector<TokenId> ids(const std::string& text) { return llama3().encode(text, false); }

std::vector<TokenId> with_end(std::vector<TokenId> reply, TokenId end) {
  reply.push_back(end);
  return reply;
}

// Plays the engine: a cache of ids that each request overwrites from its kv_position on.
class FakeEngine {
 public:
  // Writes the turn, then "generates" `reply`; returns the position line the engine would print.
  std::uint64_t answer(const TurnRequest& turn, const std::vector<TokenId>& reply) {
    EXPECT_LE(turn.kv_position, cache.size());
    cache.resize(turn.kv_position);
    cache.insert(cache.end(), turn.tokens.begin(), turn.tokens.end());
    cache.insert(cache.end(), reply.begin(), reply.end());
    return cache.size();
  }
  // Answers the turn with `text` and `end`, all of it kept; returns the reply's ids.
  std::vector<TokenId> reply(Conversation& conversation, const TurnRequest& turn, const std::string& text, TokenId end) {
    const std::vector<TokenId> generated = with_end(ids(text), end);
    conversation.add_reply(generated, answer(turn, generated), true, text.size());
    return generated;
  }
  std::vector<TokenId> cache;
};

// The whole conversation as the template renders it, the assistant's turn opened.
std::vector<TokenId> rendered(const ChatFormat& format, const std::vector<ChatMessage>& messages) {
  return llama3().encode(format.render(messages));
}

TEST(Conversation, EachTurnSendsOnlyWhatTheCacheLacksAndTheCacheHoldsTheRenderedConversation) {
  const ChatFormat format = ChatFormat::named("llama3");
  Conversation conversation(llama3(), format, 4096, std::nullopt, "Be brief.");
  FakeEngine engine;
  const TurnRequest first = conversation.add_user("What is 2+2?", 64);
  EXPECT_EQ(first.kv_position, 0u);
  const std::vector<TokenId> reply = engine.reply(conversation, first, "4.", kEndOfTurn);

  const TurnRequest second = conversation.add_user("And times 3?", 64);
  EXPECT_EQ(second.kv_position, engine.cache.size());
  const std::vector<ChatMessage> messages{
      {"system", "Be brief."}, {"user", "What is 2+2?"}, {"assistant", "4."}, {"user", "And times 3?"}};
  engine.answer(second, {});
  EXPECT_EQ(engine.cache, rendered(format, messages));
  EXPECT_EQ(second.tokens.size(), engine.cache.size() - first.tokens.size() - reply.size());
}

TEST(Conversation, AReplyEndedByAnotherEndTokenIsClosedByTheEndOfTurnToken) {
  const ChatFormat format = ChatFormat::named("llama3");
  Conversation conversation(llama3(), format, 4096, std::nullopt, "");
  FakeEngine engine;
  const TurnRequest first = conversation.add_user("Hi", 64);
  engine.reply(conversation, first, "Hello", kEndOfText);
  const TurnRequest second = conversation.add_user("Bye", 64);
  // The end-of-text id in the cache is rewritten: the turn starts one position earlier.
  EXPECT_EQ(second.kv_position, engine.cache.size() - 1);
  EXPECT_EQ(second.tokens.front(), kEndOfTurn);
  engine.answer(second, {});
  EXPECT_EQ(engine.cache, rendered(format, {{"user", "Hi"}, {"assistant", "Hello"}, {"user", "Bye"}}));
}

TEST(Conversation, AStopStringInsideATokenRewindsTheCacheToTheAcceptedText) {
  const ChatFormat format = ChatFormat::named("llama3");
  Conversation conversation(llama3(), format, 4096, std::nullopt, "");
  FakeEngine engine;
  const TurnRequest first = conversation.add_user("Count", 64);
  // " one two three" where the stop string "wo" begins inside " two": " t" is kept.
  const std::vector<TokenId> generated = ids(" one two three");
  ASSERT_EQ(llama3().token_bytes(generated[1]), " two");
  const std::uint64_t position = engine.answer(first, generated);  // drained: no end id yet
  conversation.add_reply(with_end(generated, kEndOfTurn), position, true, 6);
  EXPECT_EQ(conversation.messages().back().content, " one t");

  const TurnRequest second = conversation.add_user("Again", 64);
  EXPECT_EQ(second.kv_position, first.tokens.size() + 1);  // " one" stays cached
  engine.answer(second, {});
  std::vector<TokenId> expected = first.tokens;
  for (const std::vector<TokenId>& part : {ids(" one"), ids(" t"), std::vector<TokenId>{kEndOfTurn}}) {
    expected.insert(expected.end(), part.begin(), part.end());
  }
  const std::vector<TokenId> rest = llama3().encode(format.next_turn("Again"));
  expected.insert(expected.end(), rest.begin(), rest.end());
  EXPECT_EQ(engine.cache, expected);
}

TEST(Conversation, AfterARestartOfTheEngineEverythingIsSentAgain) {
  const ChatFormat format = ChatFormat::named("chatml");
  const text::Tokenizer& tokenizer = llama3();  // the format's tokens are plain text here; only ids matter
  Conversation conversation(tokenizer, format, 4096, std::nullopt, "");
  const TurnRequest first = conversation.add_user("Hi", 64);
  conversation.add_reply(ids("Hel"), 0, false, 3);
  const TurnRequest second = conversation.add_user("Go on", 64);
  EXPECT_EQ(second.kv_position, 0u);
  EXPECT_EQ(std::vector<TokenId>(second.tokens.begin(), second.tokens.begin() + first.tokens.size()), first.tokens);
  EXPECT_EQ(conversation.messages()[1].content, "Hel");
}

TEST(Conversation, ATurnThatDoesNotFitDropsTheOldestTurnsButKeepsTheSystemTurn) {
  const ChatFormat format = ChatFormat::named("llama3");
  const std::string system = "You answer in one word.";
  const std::string long_message(40, 'x');
  const std::size_t one_turn = rendered(format, {{"system", system}, {"user", long_message}}).size();
  Conversation conversation(llama3(), format, one_turn + 12, std::nullopt, system);
  FakeEngine engine;
  TurnRequest turn = conversation.add_user(long_message, 8);
  engine.reply(conversation, turn, "Yes", kEndOfTurn);

  turn = conversation.add_user(long_message + "?", 8);
  EXPECT_EQ(turn.dropped_turns, 1u);
  EXPECT_EQ(conversation.turns(), 1u);
  // The system turn is still cached: only what follows it is read again.
  const std::size_t system_ids = rendered(format, {{"system", system}}).size() - 4;
  EXPECT_GE(turn.kv_position, system_ids);
  engine.answer(turn, {});
  EXPECT_EQ(engine.cache, rendered(format, {{"system", system}, {"user", long_message + "?"}}));

  // A message that cannot fit even alone is refused and leaves the conversation as it was.
  EXPECT_THROW(conversation.add_user(std::string(one_turn * 8, 'y'), 8), CommandError);
  EXPECT_EQ(conversation.turns(), 1u);
}

TEST(Conversation, ResetStartsFromTheSystemTurnAndReusesItsCachedIds) {
  const ChatFormat format = ChatFormat::named("llama3");
  Conversation conversation(llama3(), format, 4096, std::nullopt, "Be kind.");
  FakeEngine engine;
  const TurnRequest first = conversation.add_user("One", 64);
  engine.reply(conversation, first, "Two", kEndOfTurn);
  conversation.reset();
  const TurnRequest again = conversation.add_user("Three", 64);
  EXPECT_GT(again.kv_position, 0u);
  engine.answer(again, {});
  EXPECT_EQ(engine.cache, rendered(format, {{"system", "Be kind."}, {"user", "Three"}}));
}

TEST(Conversation, PlainTextBeginsWithTheBeginOfTextTokenOnce) {
  Conversation conversation(llama3(), ChatFormat::named("completion"), 4096, 128000, "");
  FakeEngine engine;
  const TurnRequest first = conversation.add_user("Once upon", 8);
  EXPECT_EQ(first.tokens.front(), 128000);
  engine.reply(conversation, first, " a time", kEndOfText);
  const TurnRequest second = conversation.add_user(" there", 8);
  engine.answer(second, {});
  EXPECT_EQ(std::count(engine.cache.begin(), engine.cache.end(), 128000), 1);
  EXPECT_EQ(llama3().decode(engine.cache), "<|begin_of_text|>Once upon a time there");
}

}  // namespace
}  // namespace quorvel::cli
