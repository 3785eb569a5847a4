// Buffers and call helpers shared by the sampler's tests.
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/thread_pool.h"
#include "sampling/sampler.h"

namespace quorvel::testing {

// The workspace the model's scratch set would hand over: one candidate
// segment of 256 pairs per pool thread, one index per token.
struct WorkspaceBuffers {
  static constexpr std::uint64_t kMaxTopK = 256;

  explicit WorkspaceBuffers(std::uint64_t vocab_size) : candidates(thread_count() * kMaxTopK), indices(vocab_size) {}

  SamplingWorkspace view() { return SamplingWorkspace{candidates.data(), indices.data(), kMaxTopK}; }

  std::vector<Candidate> candidates;
  std::vector<std::uint64_t> indices;
};

// Runs `body` from inside a one-item pool job: the calling thread then has a
// non-zero depth, so the sampler must scan the whole vocabulary inline.
template <typename Body>
void run_inside_pool_job(Body& body) {
  auto job = [&body](std::uint64_t, std::uint64_t) { body(); };
  parallel_for(1, 0, job);
}

}  // namespace quorvel::testing
