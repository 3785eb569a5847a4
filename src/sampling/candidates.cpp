#include "sampling/candidates.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>

#include "runtime/thread_pool.h"
#include "sampling/logit_order.h"
#include "sampling/vocab_scan.h"

namespace quorvel {
namespace {

// Ids outside [first, first + count) belong to another range or to no token
// at all (negative, or at or above the vocabulary size): they are skipped.
// The unsigned offset test covers all of them: an id below `first`, and a
// negative id (2^63 or more once unsigned), wrap around past any range.
void penalise_range(float* logits, std::uint64_t first, std::uint64_t count, const CandidateScan& scan) {
  if (scan.window_len == 0 || scan.repetition_penalty == 1.0f) return;
  for (std::uint64_t j = 0; j < scan.window_len; ++j) {
    const auto token = static_cast<std::uint64_t>(scan.window[j]);
    if (token - first >= count) continue;
    float& logit = logits[token];
    logit = logit > 0.0f ? logit / scan.repetition_penalty : logit * scan.repetition_penalty;
  }
}

// Keeps the range's min(count - 1, k) largest logits, so a range's smallest
// logit is never a candidate. Returns how many pairs it wrote to `segment`.
std::uint64_t select_range(const float* logits, std::uint64_t first, std::uint64_t count, std::uint64_t* indices,
                           std::uint64_t k, Candidate* segment) {
  const float* range = logits + first;
  std::uint64_t* local = indices + first;
  std::iota(local, local + count, std::uint64_t{0});
  const std::uint64_t kept = std::min(count - 1, k);
  if (kept == 0) return 0;
  std::nth_element(local, local + kept, local + count,
                   [range](std::uint64_t a, std::uint64_t b) { return ranks_before(range[a], range[b]); });
  for (std::uint64_t j = 0; j < kept; ++j) segment[j] = Candidate{first + local[j], range[local[j]]};
  return kept;
}

// Moves segments 1, 2, ... down behind segment 0; a destination never lies
// after its source, but the two may overlap.
std::uint64_t gather_segments(const SamplingWorkspace& workspace, const std::uint64_t* counts,
                              std::uint64_t workers) {
  std::uint64_t total = counts[0];
  for (std::uint64_t w = 1; w < workers; ++w) {
    std::memmove(workspace.candidates + total, workspace.candidates + w * workspace.max_top_k,
                 counts[w] * sizeof(Candidate));
    total += counts[w];
  }
  return total;
}

}  // namespace

std::uint64_t collect_candidates(float* logits, std::uint64_t vocab_size, const SamplingWorkspace& workspace,
                                 const CandidateScan& scan) {
  const std::uint64_t workers = thread_count();
  std::uint64_t counts[kMaxThreads];
  std::fill_n(counts, workers, std::uint64_t{0});

  auto scan_range = [&](std::uint64_t first, std::uint64_t count, std::uint64_t slot) {
    if (count == 0) return;
    for (std::uint64_t i = first; i < first + count; ++i) logits[i] *= scan.inv_temperature;
    penalise_range(logits, first, count, scan);
    counts[slot] = select_range(logits, first, count, workspace.indices, scan.k,
                                workspace.candidates + slot * workspace.max_top_k);
  };
  scan_vocabulary(vocab_size, scan_range);
  return gather_segments(workspace, counts, workers);
}

}  // namespace quorvel
