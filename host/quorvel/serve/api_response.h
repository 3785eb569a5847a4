// The bodies this server answers completions with, in the shapes OpenAI clients read: a whole
// completion, or the chunks of a stream (server-sent events).
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "host/quorvel/serve/slot.h"

namespace quorvel::serve {

// What every body of one response repeats.
struct ResponseIdentity {
  std::string id;       // "chatcmpl-..." or "cmpl-..."
  std::int64_t created;  // seconds since 1970
  std::string model;
  bool chat = true;
};

ResponseIdentity identity_for(bool chat, const std::string& model);

// {"prompt_tokens", "completion_tokens", "total_tokens", "prompt_tokens_details": {"cached_tokens"}}
nlohmann::json usage_of(const Generation& generation);

// The finish reason of a reply: "stop" (an end token or a stop string) or "length".
std::string_view finish_reason_of(const Generation& generation);

// The whole completion, for a request that did not ask for a stream.
nlohmann::json completion_body(const ResponseIdentity& identity, const Generation& generation);

// One chunk of a stream: the opening (the assistant's role, chat only), a text increment, or the
// finish reason (empty text); with usage, the usage chunk that has no choices.
nlohmann::json opening_chunk(const ResponseIdentity& identity);
nlohmann::json text_chunk(const ResponseIdentity& identity, std::string_view text);
nlohmann::json finish_chunk(const ResponseIdentity& identity, std::string_view finish_reason);
nlohmann::json usage_chunk(const ResponseIdentity& identity, const Generation& generation);

// "data: <json>\n\n": one server-sent event. Invalid UTF-8 cannot reach it (the text is decoded
// whole characters at a time), but would become U+FFFD rather than an exception.
std::string event(const nlohmann::json& data);
inline constexpr std::string_view kDoneEvent = "data: [DONE]\n\n";

// The JSON text of a body, invalid UTF-8 replaced.
std::string json_text(const nlohmann::json& body);

}  // namespace quorvel::serve
