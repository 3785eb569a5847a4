// One generation request as the host sends it, and the sampling values
// derived from it.
#pragma once

#include <cstdint>
#include <ostream>
#include <vector>

#include "engine/key_value_block.h"
#include "sampling/sampler.h"

namespace quorvel {

struct GenerationRequest {
  std::uint64_t kv_position = 0;
  float temperature = 0.6f;
  std::uint64_t top_k = 50;
  float top_p = 0.9f;
  float repetition_penalty = 1.1f;
  std::uint64_t rep_penalty_lookback = 64;
  std::uint64_t max_tokens = 0;  // 0: no limit
  std::vector<std::int64_t> tokens;
};

// Applies every entry of the block to the defaults. Unknown keys are warned
// about on `warnings` and ignored; a value that does not convert throws the
// standard conversion's exception.
GenerationRequest parse_request(const KeyValueBlock& block, std::ostream& warnings);

// The request's sampling values with the engine's clamps applied.
SamplingParams clamp_sampling(const GenerationRequest& request);

}  // namespace quorvel
