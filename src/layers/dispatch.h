// The calling pattern every layer follows for its parallel steps: a thread
// that is already running a share of a pool job does the whole range itself,
// because the pool cannot take a nested dispatch; any other caller hands the
// range to the pool.
#pragma once

#include <cstdint>

#include "runtime/thread_pool.h"

namespace quorvel::layers {

// body(first, count) over [0, n): inline inside a job, else one pool job
// with one contiguous block per thread.
template <typename Body>
void run_static(std::uint64_t n, Body& body) {
  if (current_depth() != 0) {
    body(0, n);
    return;
  }
  parallel_for(n, 0, body);
}

// body(first, count) over [0, n): inline inside a job, else one pool job
// handing out blocks of `chunk` items first come, first served.
template <typename Body>
void run_dynamic(std::uint64_t n, std::uint64_t chunk, Body& body) {
  if (current_depth() != 0) {
    body(0, n);
    return;
  }
  parallel_for(n, chunk, body);
}

}  // namespace quorvel::layers
