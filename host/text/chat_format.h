// Chat formats: how a model family lays a conversation out as text, rendered
// with code instead of the publishers' Jinja templates. A conversation is
// sent to the engine once in full and then turn by turn: after a reply that
// ended with the family's end-of-turn token, only the text that closes that
// turn and opens the next goes out, so the cached prefix is never recomputed.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/text/tokenizer.h"

namespace quorvel::text {

class Rendering;

struct ChatMessage {
  std::string role;  // "system", "user" or "assistant"
  std::string content;
};

enum class ChatFamily {
  LLAMA3,      // header tokens around each role, content trimmed
  BITNET,      // "User: ", "Assistant: " on the Llama 3 tokenizer
  CHATML,      // Qwen3 and its 1-bit derivatives: <|im_start|>role ... <|im_end|>, with think blocks
  COMPLETION,  // no markup: the text is the prompt
};

class ChatFormat {
 public:
  // `thinking` (ChatML only): off opens the assistant's turn with an empty
  // think block, as the template does for enable_thinking=false.
  explicit ChatFormat(ChatFamily family, bool thinking = true) : family_(family), thinking_(thinking) {}

  // "llama3", "bitnet", "chatml" (or "qwen3"), "completion"; throws
  // std::invalid_argument listing them for any other name.
  static ChatFormat named(std::string_view name, bool thinking = true);

  // The family whose markers a Jinja chat template holds, or nullopt.
  static std::optional<ChatFamily> recognise(std::string_view chat_template);

  ChatFamily family() const { return family_; }
  const char* name() const;

  // The whole conversation as the family's template renders it; with
  // `add_generation_prompt` the assistant's turn is opened at the end. The
  // messages' own text is kept apart from the markup, so that special-token
  // text typed by a user is encoded as plain text.
  std::vector<TextPart> render(std::span<const ChatMessage> messages, bool add_generation_prompt = true) const;

  // What follows an assistant reply that ended with its end-of-turn token:
  // the rest of that turn, the user's next turn, and the assistant's opening.
  std::vector<TextPart> next_turn(std::string_view user_text) const;

  // The special tokens a reply ends at, the end-of-turn token first.
  std::vector<std::string> stop_tokens() const;
  // The token that closes an assistant turn (none for plain completion).
  std::optional<std::string> end_of_turn() const;

 private:
  void render_chatml(Rendering& out, std::span<const ChatMessage> messages) const;
  void generation_prompt(Rendering& out) const;

  ChatFamily family_;
  bool thinking_;
};

}  // namespace quorvel::text
