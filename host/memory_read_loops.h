// Loops that read a buffer the way the engine's kernels stream weights:
// whole vector registers, unrolled over eight independent accumulators, one
// contiguous stream per caller.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quorvel::host {

// Every loop reads this many bytes per iteration: eight of the widest
// registers (eight 64-byte AVX-512 loads).
inline constexpr std::size_t kReadStep = 512;

struct MemoryReadLoop {
  const char* loads;  // the loads it issues, e.g. "AVX-512 (64-byte)"
  // Adds up the bytes of `data` as 32-bit lanes; `bytes` is a multiple of
  // kReadStep and `data` is 64-byte aligned. The sum only keeps the reads.
  std::uint64_t (*read)(const std::byte* data, std::size_t bytes);
};

// The loop with the widest loads this processor runs: AVX-512, AVX2, or
// 16-byte generic vectors (SSE2 on x86-64, NEON on aarch64).
MemoryReadLoop widest_read_loop();

// Each loop on its own, for tests; only call the x86 ones where supported.
MemoryReadLoop generic_read_loop();
#if defined(__x86_64__)
MemoryReadLoop avx2_read_loop();
MemoryReadLoop avx512_read_loop();
#endif

}  // namespace quorvel::host
