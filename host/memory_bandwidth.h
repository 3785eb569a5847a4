// Measures this machine's memory read bandwidth, so that the engine's decode
// speed can be put against what the memory can deliver in the same run.
#pragma once

#include <cstdint>

namespace quorvel::host {

// Read bandwidth in GB/s (1e9 bytes) with `threads` threads each streaming
// its own part of a buffer far larger than the caches; the best of a few runs.
double measure_read_bandwidth(unsigned threads, std::uint64_t bytes = std::uint64_t{1} << 30);

}  // namespace quorvel::host
