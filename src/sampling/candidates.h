// The vocabulary scan of stochastic sampling: temperature, repetition
// penalty and the per-range top-k selection.
#pragma once

#include <cstdint>

#include "sampling/sampler.h"

namespace quorvel {

struct CandidateScan {
  float inv_temperature;
  float repetition_penalty;
  const std::int64_t* window;  // the penalty window: window_len history ids, oldest first
  std::uint64_t window_len;
  std::uint64_t k;  // candidates kept per range; at most workspace.max_top_k
};

// Multiplies every logit by inv_temperature, then penalises the window's
// ids once per occurrence (the penalty compounds). Each scanned range keeps
// its min(len - 1, k) largest logits as (token id, scaled logit) pairs in
// its own candidate segment; the segments are then moved together, in
// worker order, to the start of workspace.candidates. Returns how many
// pairs that list holds, unsorted.
std::uint64_t collect_candidates(float* logits, std::uint64_t vocab_size, const SamplingWorkspace& workspace,
                                 const CandidateScan& scan);

}  // namespace quorvel
