#include "sampling/sampler.h"

#include <algorithm>
#include <cstdint>

#include "sampling/candidates.h"
#include "sampling/greedy.h"
#include "sampling/nucleus.h"
#include "sampling/xoshiro256.h"

namespace quorvel {
namespace {

constexpr float kGreedyBelowTemperature = 1e-5f;

}  // namespace

std::uint64_t sample(float* logits, std::uint64_t vocab_size, const SamplingWorkspace& workspace,
                     const std::int64_t* history, std::uint64_t history_len, const SamplingParams& params) {
  if (params.temperature < kGreedyBelowTemperature) return greedy_token(logits, vocab_size);

  const std::uint64_t k = std::min(workspace.max_top_k, params.top_k);
  const std::uint64_t lookback = std::min(params.rep_penalty_lookback, history_len);
  const CandidateScan scan{1.0f / params.temperature, params.repetition_penalty, history + (history_len - lookback),
                           lookback, k};
  const std::uint64_t total = collect_candidates(logits, vocab_size, workspace, scan);
  const Nucleus nucleus = build_nucleus(workspace.candidates, total, k, params.top_p);
  // No candidate at all (top_k 0, or every range a single token): there is
  // nothing to draw from, so the largest scaled and penalised logit is taken,
  // and the generator is left alone.
  if (nucleus.size == 0) return greedy_token(logits, vocab_size);

  const float u = unit_float(thread_generator().next());
  return pick_from_nucleus(workspace.candidates, nucleus, u);
}

}  // namespace quorvel
