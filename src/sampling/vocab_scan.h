// How the sampler spreads a pass over the vocabulary across the worker pool.
#pragma once

#include <cstdint>

#include "runtime/thread_pool.h"

namespace quorvel {

// Calls scan(first, count, slot) so that the calls cover [0, vocab_size)
// once. Normally this is one static-split pool job, and `slot` is the worker
// index of the thread running the share: in static mode every thread runs at
// most one share, so each share owns its slot of the caller's per-worker
// arrays. Inside a pool job nothing may be dispatched, and the whole
// vocabulary is scanned on this thread with slot 0. `scan` may be called
// with count 0 (a one-thread pool passes (0, 0) straight through).
template <typename Scan>
void scan_vocabulary(std::uint64_t vocab_size, Scan& scan) {
  if (current_depth() != 0) {
    scan(std::uint64_t{0}, vocab_size, std::uint64_t{0});
    return;
  }
  auto share = [&scan](std::uint64_t first, std::uint64_t count) { scan(first, count, worker_index()); };
  parallel_for(vocab_size, 0, share);
}

}  // namespace quorvel
