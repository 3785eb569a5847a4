// Top-k softmax, top-p truncation and the draw from the truncated list.
#pragma once

#include <cstdint>

#include "sampling/sampler.h"

namespace quorvel {

// The first `size` pairs of the sorted candidate list, and the sum of
// their probabilities. The probabilities are not renormalised to 1; the
// draw is scaled by `mass` instead.
struct Nucleus {
  std::uint64_t size;
  float mass;
};

// Sorts the `total` candidates by value, largest first, replaces the values
// of the first n = min(k, total) with their softmax probabilities and cuts
// the list after the first pair at which the running probability exceeds
// top_p (all n pairs when top_p >= 1 or the sum never exceeds it). Size 0
// when there is nothing to choose from.
Nucleus build_nucleus(Candidate* list, std::uint64_t total, std::uint64_t k, float top_p);

// The id of the first pair at which the running probability reaches
// mass * u, for u in [0, 1); the last pair's id when rounding keeps the
// sum below it. Requires nucleus.size >= 1.
std::uint64_t pick_from_nucleus(const Candidate* list, const Nucleus& nucleus, float u);

}  // namespace quorvel
