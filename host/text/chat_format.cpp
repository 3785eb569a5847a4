#include "host/text/chat_format.h"

#include <stdexcept>

namespace quorvel::text {

// Appends markup (special tokens allowed) and message text (not allowed),
// joining neighbours of the same kind.
class Rendering {
 public:
  Rendering& markup(std::string_view text) { return append(text, true); }
  Rendering& words(std::string_view text) { return append(text, false); }
  std::vector<TextPart> parts() && { return std::move(parts_); }

 private:
  Rendering& append(std::string_view text, bool special_tokens) {
    if (text.empty()) return *this;
    if (parts_.empty() || parts_.back().special_tokens != special_tokens) parts_.push_back({"", special_tokens});
    parts_.back().text += text;
    return *this;
  }

  std::vector<TextPart> parts_;
};

namespace {

constexpr std::string_view kWhitespace = " \t\n\r\v\f";

std::string_view strip(std::string_view text, std::string_view characters) {
  const std::size_t first = text.find_first_not_of(characters);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(characters) - first + 1);
}

std::string_view strip_left(std::string_view text, std::string_view characters) {
  const std::size_t first = text.find_first_not_of(characters);
  return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

std::string_view strip_right(std::string_view text, std::string_view characters) {
  const std::size_t last = text.find_last_not_of(characters);
  return last == std::string_view::npos ? std::string_view() : text.substr(0, last + 1);
}

constexpr std::string_view kLlama3Bos = "<|begin_of_text|>";

void llama3_turn(Rendering& out, std::string_view role, std::string_view content) {
  out.markup("<|start_header_id|>").words(role).markup("<|end_header_id|>\n\n");
  out.words(strip(content, kWhitespace)).markup("<|eot_id|>");
}

void bitnet_turn(Rendering& out, std::string_view role, std::string_view content) {
  std::string capitalised(role);
  if (!capitalised.empty() && capitalised[0] >= 'a' && capitalised[0] <= 'z') capitalised[0] -= 'a' - 'A';
  out.words(capitalised).markup(": ").words(content).markup("<|eot_id|>");
}

void chatml_turn(Rendering& out, std::string_view role, std::string_view content) {
  out.markup("<|im_start|>").words(role).markup("\n").words(content).markup("<|im_end|>\n");
}

// An assistant message split the way the ChatML template splits it: the
// reasoning inside <think>...</think> and the answer after it.
struct Reply {
  std::string_view reasoning, answer;
};

Reply split_reply(std::string_view content) {
  const std::size_t close = content.rfind("</think>");
  if (close == std::string_view::npos) return {{}, content};
  const std::string_view before = content.substr(0, content.find("</think>"));
  const std::size_t open = before.rfind("<think>");
  const std::string_view thought = open == std::string_view::npos ? before : before.substr(open + 7);
  return {strip_left(strip_right(thought, "\n"), "\n"), strip_left(content.substr(close + 8), "\n")};
}

// The last user turn: assistant turns after it keep their reasoning.
std::size_t last_query(std::span<const ChatMessage> messages) {
  for (std::size_t i = messages.size(); i-- > 0;) {
    if (messages[i].role == "user") return i;
  }
  return messages.size() - 1;
}

}  // namespace

ChatFormat ChatFormat::named(std::string_view name, bool thinking) {
  if (name == "llama3") return ChatFormat(ChatFamily::LLAMA3, thinking);
  if (name == "bitnet") return ChatFormat(ChatFamily::BITNET, thinking);
  if (name == "chatml" || name == "qwen3") return ChatFormat(ChatFamily::CHATML, thinking);
  if (name == "completion") return ChatFormat(ChatFamily::COMPLETION, thinking);
  throw std::invalid_argument("unknown chat format '" + std::string(name) +
                              "' (known: llama3, bitnet, chatml, qwen3, completion)");
}

std::optional<ChatFamily> ChatFormat::recognise(std::string_view chat_template) {
  if (chat_template.find("<|start_header_id|>") != std::string_view::npos) return ChatFamily::LLAMA3;
  if (chat_template.find("<|im_start|>") != std::string_view::npos) return ChatFamily::CHATML;
  if (chat_template.find("'Assistant: '") != std::string_view::npos) return ChatFamily::BITNET;
  return std::nullopt;
}

const char* ChatFormat::name() const {
  constexpr const char* kNames[] = {"llama3", "bitnet", "chatml", "completion"};
  return kNames[static_cast<int>(family_)];
}

void ChatFormat::generation_prompt(Rendering& out) const {
  switch (family_) {
    case ChatFamily::LLAMA3: out.markup("<|start_header_id|>assistant<|end_header_id|>\n\n"); break;
    case ChatFamily::BITNET: out.markup("Assistant: "); break;
    case ChatFamily::CHATML:
      out.markup(thinking_ ? "<|im_start|>assistant\n" : "<|im_start|>assistant\n<think>\n\n</think>\n\n");
      break;
    case ChatFamily::COMPLETION: break;
  }
}

void ChatFormat::render_chatml(Rendering& out, std::span<const ChatMessage> messages) const {
  const std::size_t query = last_query(messages);
  for (std::size_t i = 0; i < messages.size(); ++i) {
    const ChatMessage& m = messages[i];
    if (m.role != "assistant") {
      chatml_turn(out, m.role, m.content);
      continue;
    }
    const Reply reply = split_reply(m.content);
    const bool keeps_reasoning = i > query && (i + 1 == messages.size() || !reply.reasoning.empty());
    out.markup("<|im_start|>assistant\n");
    if (keeps_reasoning) out.markup("<think>\n").words(strip(reply.reasoning, "\n")).markup("\n</think>\n\n");
    out.words(reply.answer).markup("<|im_end|>\n");
  }
}

std::vector<TextPart> ChatFormat::render(std::span<const ChatMessage> messages, bool add_generation_prompt) const {
  Rendering out;
  switch (family_) {
    case ChatFamily::LLAMA3:
      out.markup(kLlama3Bos);
      for (const ChatMessage& m : messages) llama3_turn(out, m.role, m.content);
      break;
    case ChatFamily::BITNET:
      out.markup(kLlama3Bos);
      for (const ChatMessage& m : messages) bitnet_turn(out, m.role, m.content);
      break;
    case ChatFamily::CHATML: render_chatml(out, messages); break;
    case ChatFamily::COMPLETION:
      for (const ChatMessage& m : messages) out.words(m.content);
      break;
  }
  if (add_generation_prompt) generation_prompt(out);
  return std::move(out).parts();
}

std::vector<TextPart> ChatFormat::next_turn(std::string_view user_text) const {
  Rendering out;
  switch (family_) {
    case ChatFamily::LLAMA3: llama3_turn(out, "user", user_text); break;
    case ChatFamily::BITNET: bitnet_turn(out, "user", user_text); break;
    case ChatFamily::CHATML:
      out.markup("\n");
      chatml_turn(out, "user", user_text);
      break;
    case ChatFamily::COMPLETION: out.words(user_text); break;
  }
  generation_prompt(out);
  return std::move(out).parts();
}

std::optional<std::string> ChatFormat::end_of_turn() const {
  const std::vector<std::string> stops = stop_tokens();
  if (stops.empty()) return std::nullopt;
  return stops.front();
}

std::vector<std::string> ChatFormat::stop_tokens() const {
  switch (family_) {
    case ChatFamily::LLAMA3: return {"<|eot_id|>", "<|end_of_text|>", "<|eom_id|>"};
    case ChatFamily::BITNET: return {"<|eot_id|>", "<|end_of_text|>"};
    case ChatFamily::CHATML: return {"<|im_end|>", "<|endoftext|>"};
    case ChatFamily::COMPLETION: break;
  }
  return {};
}

}  // namespace quorvel::text
