// Measures this machine's memory read bandwidth the way the kernels read
// weights, so that the engine's decode speed can be put against what the
// memory can deliver in the same run.
#pragma once

#include <cstdint>

namespace quorvel::host {

struct ReadBandwidth {
  const char* loads;  // the loads used (see memory_read_loops.h)
  double gb_per_s;    // 1e9 bytes per second
};

// `threads` threads each stream their own contiguous part of a buffer far
// larger than the caches, with the widest vector loads this processor has;
// pages are faulted in first; the best of seven runs.
ReadBandwidth measure_read_bandwidth(unsigned threads, std::uint64_t bytes = std::uint64_t{1} << 30);

}  // namespace quorvel::host
