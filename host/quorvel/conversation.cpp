#include "host/quorvel/conversation.h"

#include <algorithm>

#include "host/quorvel/command_error.h"
#include "host/text/utf8.h"

namespace quorvel::cli {
namespace {

using text::TokenId;

std::size_t common_prefix(const std::vector<TokenId>& a, const std::vector<TokenId>& b) {
  const auto [end_a, end_b] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  return static_cast<std::size_t>(end_a - a.begin());
}

// Removes the oldest user turn and the replies that follow it; false when only the newest is left.
bool drop_oldest_turn(std::vector<text::ChatMessage>& messages) {
  const auto is_user = [](const text::ChatMessage& m) { return m.role == "user"; };
  const auto first = std::find_if(messages.begin(), messages.end(), is_user);
  const auto next = std::find_if(first + 1, messages.end(), is_user);
  if (next == messages.end()) return false;
  messages.erase(first, next);
  return true;
}

}  // namespace

Conversation::Conversation(const text::Tokenizer& tokenizer, text::ChatFormat format, std::uint64_t context,
                           std::optional<TokenId> begin_of_text, const std::string& system_prompt)
    : tokenizer_(tokenizer), format_(format), context_(context), begin_of_text_(begin_of_text) {
  if (!system_prompt.empty()) messages_.push_back({"system", system_prompt});
  if (const auto end = format_.end_of_turn()) {
    const std::vector<TokenId> ids = tokenizer_.encode(*end);
    if (ids.size() == 1) end_of_turn_ = ids.front();
  }
}

std::vector<TokenId> Conversation::opening_ids(const std::vector<text::ChatMessage>& messages) const {
  std::vector<TokenId> ids;
  if (begin_of_text_) ids.push_back(*begin_of_text_);
  const std::vector<TokenId> rendered = tokenizer_.encode(format_.render(messages));
  ids.insert(ids.end(), rendered.begin(), rendered.end());
  return ids;
}

TurnRequest Conversation::add_user(const std::string& text, std::uint64_t reply_room) {
  reply_room = std::max<std::uint64_t>(reply_room, 1);
  std::vector<text::ChatMessage> messages = messages_;
  messages.push_back({"user", text});
  std::vector<TokenId> history = history_;
  if (history.empty()) {
    history = opening_ids(messages);
  } else {
    const std::vector<TokenId> turn = tokenizer_.encode(format_.next_turn(text));
    history.insert(history.end(), turn.begin(), turn.end());
  }
  TurnRequest request;
  while (history.size() + reply_room > context_) {
    if (!drop_oldest_turn(messages)) {
      throw CommandError("the message needs " + std::to_string(history.size()) + " positions and its reply " +
                         std::to_string(reply_room) + " more; the context has " + std::to_string(context_));
    }
    ++request.dropped_turns;
    history = opening_ids(messages);
  }
  messages_ = std::move(messages);
  history_ = std::move(history);
  const std::size_t start = std::min(common_prefix(cached_, history_), history_.size() - 1);
  request.kv_position = start;
  request.tokens.assign(history_.begin() + static_cast<std::ptrdiff_t>(start), history_.end());
  return request;
}

void Conversation::add_reply(const std::vector<TokenId>& answer, std::uint64_t position, bool complete,
                             std::size_t accepted_bytes) {
  const std::size_t start = history_.size();
  cached_ = history_;
  if (!complete) {
    cached_.clear();
  } else if (position < start) {
    cached_.resize(position);
  } else {
    cached_.insert(cached_.end(), answer.begin(), answer.begin() + std::min(answer.size(), position - start));
  }
  std::vector<TokenId> content(answer.begin(), answer.end() - (complete && !answer.empty() ? 1 : 0));
  const std::vector<TokenId> reply = reply_ids(content, accepted_bytes);
  history_.insert(history_.end(), reply.begin(), reply.end());
  if (end_of_turn_) history_.push_back(*end_of_turn_);
  messages_.push_back({"assistant", text::with_replacements(tokenizer_.decode(reply))});
}

// The reply's whole tokens that lie before the accepted end, then the text of the token that the end
// cuts, encoded again.
std::vector<TokenId> Conversation::reply_ids(const std::vector<TokenId>& content, std::size_t accepted_bytes) const {
  std::size_t bytes = 0, whole = 0;
  while (whole < content.size() && bytes + tokenizer_.token_bytes(content[whole]).size() <= accepted_bytes) {
    bytes += tokenizer_.token_bytes(content[whole++]).size();
  }
  std::vector<TokenId> ids(content.begin(), content.begin() + static_cast<std::ptrdiff_t>(whole));
  if (whole == content.size() || bytes == accepted_bytes) return ids;
  const std::string cut = tokenizer_.token_bytes(content[whole]).substr(0, accepted_bytes - bytes);
  if (text::first_invalid_utf8_byte(cut)) return ids;
  const std::vector<TokenId> rest = tokenizer_.encode(cut, false);
  ids.insert(ids.end(), rest.begin(), rest.end());
  return ids;
}

void Conversation::reset() {
  std::erase_if(messages_, [](const text::ChatMessage& m) { return m.role != "system"; });
  history_.clear();
}

std::size_t Conversation::turns() const {
  return static_cast<std::size_t>(
      std::count_if(messages_.begin(), messages_.end(), [](const text::ChatMessage& m) { return m.role == "user"; }));
}

}  // namespace quorvel::cli
