#include "sampling/greedy.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "runtime/thread_pool.h"
#include "sampling/vocab_scan.h"

namespace quorvel {

std::uint64_t greedy_token(const float* logits, std::uint64_t vocab_size) {
  const std::uint64_t workers = thread_count();
  float best_value[kMaxThreads];
  std::uint64_t best_index[kMaxThreads];
  std::fill_n(best_value, workers, -std::numeric_limits<float>::infinity());
  std::fill_n(best_index, workers, std::uint64_t{0});

  // Strict greater-than keeps the first of equal maxima and never takes NaN.
  auto scan = [&](std::uint64_t first, std::uint64_t count, std::uint64_t slot) {
    float value = best_value[slot];
    std::uint64_t index = best_index[slot];
    for (std::uint64_t i = first; i < first + count; ++i) {
      if (logits[i] > value) {
        value = logits[i];
        index = i;
      }
    }
    best_value[slot] = value;
    best_index[slot] = index;
  };
  scan_vocabulary(vocab_size, scan);

  // Ranges lie in share order, so the same strict test across slots keeps
  // the lowest index among equal maxima.
  std::uint64_t winner = 0;
  for (std::uint64_t w = 1; w < workers; ++w) {
    if (best_value[w] > best_value[winner]) winner = w;
  }
  return best_index[winner];
}

}  // namespace quorvel
