// Turns the logits of the last position into the next token id: greedy
// decoding, or temperature, repetition penalty, top-k, top-p and a draw from
// a per-thread xoshiro256++ generator.
#pragma once

#include <cstdint>

namespace quorvel {

// The clamped sampling values of one request.
struct SamplingParams {
  float temperature = 0.6f;
  std::uint64_t top_k = 50;
  float top_p = 0.9f;
  float repetition_penalty = 1.1f;
  std::uint64_t rep_penalty_lookback = 64;
  std::uint64_t max_tokens = 0;
};

// One top-k candidate: a token id and its value (logit, later probability).
struct Candidate {
  std::uint64_t id;
  float value;
};
static_assert(sizeof(Candidate) == 16);

// Buffers owned by the model's scratch set.
struct SamplingWorkspace {
  Candidate* candidates;    // thread_count() * max_top_k pairs; worker w owns segment w
  std::uint64_t* indices;   // vocab_size entries
  std::uint64_t max_top_k;  // 256
};

// Samples a token id below vocab_size. `logits` (vocab_size floats) is
// scaled and penalised in place. `history` holds history_len ids, oldest first.
// A temperature below 1e-5 decodes greedily: the lowest index of the largest
// logit, with `logits` untouched and the generator not advanced. Otherwise
// one draw is made from this thread's generator, except when no candidate
// survives the scan (top_k 0, or only one-token ranges), where the largest
// scaled and penalised logit is returned without drawing. Runs the
// vocabulary scan on the worker pool, or inline when called from a pool job.
std::uint64_t sample(float* logits, std::uint64_t vocab_size, const SamplingWorkspace& workspace,
                     const std::int64_t* history, std::uint64_t history_len, const SamplingParams& params);

}  // namespace quorvel
