#include "host/serve_load/stream_tally.h"

namespace quorvel::serve_load {

namespace {

constexpr std::size_t kQuotedBodyLength = 200;

// The new text of a chat chunk (choices[0].delta.content) or a completion chunk (choices[0].text).
std::string content_of(const nlohmann::json& chunk) {
  const auto choices = chunk.find("choices");
  if (choices == chunk.end() || !choices->is_array() || choices->empty() || !(*choices)[0].is_object()) return "";
  const nlohmann::json& choice = (*choices)[0];
  const auto delta = choice.find("delta");
  const nlohmann::json* holder = delta != choice.end() && delta->is_object() ? &*delta : &choice;
  const auto text = holder->find(delta != choice.end() ? "content" : "text");
  return text != holder->end() && text->is_string() ? text->get<std::string>() : "";
}

}  // namespace

void StreamTally::add_event(const std::string& data, double seconds) {
  if (data == "[DONE]") {
    done_ = true;
    return;
  }
  const nlohmann::json chunk = nlohmann::json::parse(data, nullptr, false);
  if (!chunk.is_object()) {
    malformed_ = true;
    if (error_.empty()) error_ = "not a JSON object: " + data.substr(0, kQuotedBodyLength);
    return;
  }
  add_chunk(chunk, seconds);
}

void StreamTally::add_chunk(const nlohmann::json& chunk, double seconds) {
  if (chunk.contains("error")) {
    server_error_ = true;
    error_ = error_message_of(chunk.dump());
    return;
  }
  if (const std::optional<TokenUsage> usage = token_usage_of(chunk)) usage_ = usage;
  const std::string content = content_of(chunk);
  if (content.empty()) return;
  if (!first_token_seconds_) first_token_seconds_ = seconds;
  text_ += content;
  ++content_chunks_;
}

TokenUsage StreamTally::usage() const {
  if (usage_) return *usage_;
  TokenUsage counted;
  counted.completion_tokens = content_chunks_;
  return counted;
}

std::string StreamTally::outcome() const {
  if (server_error_) return "500";
  if (malformed_) return "malformed stream event";
  return done_ ? "200" : "stream ended before [DONE]";
}

std::string error_message_of(const std::string& body) {
  const nlohmann::json parsed = nlohmann::json::parse(body, nullptr, false);
  const auto error = parsed.find("error");
  if (error != parsed.end() && error->is_object()) {
    const auto message = error->find("message");
    if (message != error->end() && message->is_string()) return message->get<std::string>();
  }
  return body.substr(0, kQuotedBodyLength);
}

}  // namespace quorvel::serve_load
