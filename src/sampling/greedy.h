// Greedy decoding: the token with the largest logit.
#pragma once

#include <cstdint>

namespace quorvel {

// The lowest index among the largest of `vocab_size` logits; NaN never wins,
// and 0 comes back when no logit exceeds negative infinity. Reads `logits`
// only and leaves the random generator alone.
std::uint64_t greedy_token(const float* logits, std::uint64_t vocab_size);

}  // namespace quorvel
