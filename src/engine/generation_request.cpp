#include "engine/generation_request.h"

#include <cmath>
#include <string>

#include "engine/init_config_parser.h"

namespace quorvel {

GenerationRequest parse_request(const KeyValueBlock& block, std::ostream& warnings) {
  GenerationRequest request;
  for (const auto& [key, value] : block) {
    if (key == "kv_position") {
      request.kv_position = std::stoull(value);
    } else if (key == "temperature") {
      request.temperature = std::stof(value);
    } else if (key == "top_k") {
      request.top_k = std::stoull(value);
    } else if (key == "top_p") {
      request.top_p = std::stof(value);
    } else if (key == "repetition_penalty") {
      request.repetition_penalty = std::stof(value);
    } else if (key == "rep_penalty_lookback") {
      request.rep_penalty_lookback = std::stoull(value);
    } else if (key == "max_tokens") {
      request.max_tokens = std::stoull(value);
    } else if (key == "tokens") {
      request.tokens = parse_token_list(value);
    } else {
      warnings << "Warning: unknown request key '" << key << "'" << std::endl;
    }
  }
  return request;
}

namespace {

// Negative values and NaN become 0.
float non_negative(float v) { return (v >= 0.0f) ? v : 0.0f; }

}  // namespace

SamplingParams clamp_sampling(const GenerationRequest& request) {
  SamplingParams params;
  params.temperature = non_negative(request.temperature);
  params.top_k = request.top_k == 0 ? 1 : (request.top_k >= 256 ? 256 : request.top_k);
  params.top_p = request.top_p;
  if (params.top_p > 1.0f) params.top_p = 1.0f;
  if (params.top_p < 1e-6f) params.top_p = 1e-6f;
  params.repetition_penalty = non_negative(request.repetition_penalty);
  params.rep_penalty_lookback = request.rep_penalty_lookback;
  params.max_tokens = request.max_tokens;
  return params;
}

}  // namespace quorvel
