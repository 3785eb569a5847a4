// The token counts a response reports in its "usage" object.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>

namespace quorvel::serve_load {

struct TokenUsage {
  int prompt_tokens = 0;
  int cached_tokens = 0;  // of the prompt, read from the server's cache (prompt_tokens_details)
  int completion_tokens = 0;
};

// The usage of a response or stream chunk; nothing when it has none with an integer
// completion_tokens. Counts the server does not give are 0.
std::optional<TokenUsage> token_usage_of(const nlohmann::json& response);

}  // namespace quorvel::serve_load
