#include "host/serve_load/token_usage.h"

namespace quorvel::serve_load {

namespace {

std::optional<int> count_in(const nlohmann::json& object, const char* name) {
  const auto count = object.find(name);
  if (count == object.end() || !count->is_number_integer()) return std::nullopt;
  return count->get<int>();
}

}  // namespace

std::optional<TokenUsage> token_usage_of(const nlohmann::json& response) {
  const auto usage = response.find("usage");
  if (usage == response.end()) return std::nullopt;
  const std::optional<int> completion = count_in(*usage, "completion_tokens");
  if (!completion) return std::nullopt;
  TokenUsage counts;
  counts.completion_tokens = *completion;
  counts.prompt_tokens = count_in(*usage, "prompt_tokens").value_or(0);
  const auto details = usage->find("prompt_tokens_details");
  if (details != usage->end()) counts.cached_tokens = count_in(*details, "cached_tokens").value_or(0);
  return counts;
}

}  // namespace quorvel::serve_load
