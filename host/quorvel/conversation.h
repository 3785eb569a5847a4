// A conversation as token ids, and what the engine's cache holds of it. Each turn is sent as the ids
// the cache does not already hold, with the kv_position where they start: normally just the new
// turn, after a stop string or an interrupted reply also the rewritten end of the reply, after a
// restart of the engine everything. When a turn would not fit in the context, the oldest turns are
// dropped (the system turn stays) and the rest is laid out anew.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/text/chat_format.h"
#include "host/text/tokenizer.h"

namespace quorvel::cli {

struct TurnRequest {
  std::uint64_t kv_position = 0;
  std::vector<text::TokenId> tokens;  // the ids from kv_position on; at least one
  std::size_t dropped_turns = 0;      // user turns left out to make room
};

class Conversation {
 public:
  // `begin_of_text` precedes a conversation in a format whose markup has no such token of its own.
  Conversation(const text::Tokenizer& tokenizer, text::ChatFormat format, std::uint64_t context,
               std::optional<text::TokenId> begin_of_text, const std::string& system_prompt);

  // Adds the user's message and returns what to send so that the engine's cache holds the whole
  // conversation, leaving at least `reply_room` positions free for the reply. Throws CommandError,
  // and keeps the conversation as it was, when the message does not fit even alone.
  TurnRequest add_user(const std::string& text, std::uint64_t reply_room);

  // Records the engine's answer to the last turn: `answer` is every id it printed (an end id last
  // when `complete`), `position` its position line, `accepted_bytes` how much of the reply's text is
  // kept (less than all of it after a stop string or an interrupt). Without `complete` the engine
  // was restarted and its cache is empty.
  void add_reply(const std::vector<text::TokenId>& answer, std::uint64_t position, bool complete,
                 std::size_t accepted_bytes);

  // Back to the system turn alone; the cache keeps what still matches.
  void reset();

  std::size_t size() const { return history_.size(); }           // positions the conversation takes
  std::size_t turns() const;                                       // user turns kept
  const std::vector<text::ChatMessage>& messages() const { return messages_; }

 private:
  std::vector<text::TokenId> opening_ids(const std::vector<text::ChatMessage>& messages) const;
  std::vector<text::TokenId> reply_ids(const std::vector<text::TokenId>& content, std::size_t accepted_bytes) const;

  const text::Tokenizer& tokenizer_;
  text::ChatFormat format_;
  std::uint64_t context_;
  std::optional<text::TokenId> begin_of_text_;
  std::optional<text::TokenId> end_of_turn_;
  std::vector<text::ChatMessage> messages_;
  std::vector<text::TokenId> history_;  // the conversation so far, as it is to be cached
  std::vector<text::TokenId> cached_;   // what the engine's cache holds, from position 0
};

}  // namespace quorvel::cli
