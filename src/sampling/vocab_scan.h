// How the sampler spreads a pass over the vocabulary across the worker pool.
#pragma once

#include <cstdint>

#include "runtime/thread_pool.h"

namespace quorvel {

// Calls scan(first, count, slot) so that the calls cover [0, vocab_size)
// once. Normally this is one static-split pool job, and `slot` is the index
// of the share: each share owns its slot of the caller's per-share arrays
// (one thread may run several shares in turn). Inside a pool job nothing may be dispatched, and the whole
// vocabulary is scanned on this thread with slot 0. `scan` may be called
// with count 0 (a one-thread pool passes (0, 0) straight through).
template <typename Scan>
void scan_vocabulary(std::uint64_t vocab_size, Scan& scan) {
  if (current_depth() != 0) {
    scan(std::uint64_t{0}, vocab_size, std::uint64_t{0});
    return;
  }
  auto share = [&scan](std::uint64_t first, std::uint64_t count) { scan(first, count, current_share()); };
  parallel_for(vocab_size, 0, share);
}

}  // namespace quorvel
