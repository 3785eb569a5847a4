#include "host/int8_peak.h"

#include <cstdint>
#include <vector>

#include "host/int8_dot_loops.h"
#include "host/parallel_timing.h"

namespace quorvel::host {
namespace {

constexpr double kRunSeconds = 0.1;
constexpr std::size_t kThreadStride = 4096;  // each thread's operands on pages of their own

// Rounds that take about kRunSeconds on one thread: doubled from a few
// thousand until a run lasts 10 ms, then scaled.
std::uint64_t rounds_for_run(const Int8DotLoop& loop, const std::int8_t* x) {
  std::uint64_t rounds = 4096;
  volatile std::int64_t keep = 0;
  for (;;) {
    const double seconds = shortest_parallel_run(1, 1, [&](unsigned) { keep = loop.run(x, 3, rounds); });
    if (seconds >= 0.01) return static_cast<std::uint64_t>(static_cast<double>(rounds) * kRunSeconds / seconds);
    rounds *= 2;
  }
}

}  // namespace

Int8Peak measure_int8_peak(std::string_view kernel_set, unsigned threads) {
  const Int8DotLoop loop = int8_dot_loop_for(kernel_set);
  std::vector<std::int8_t> storage(threads * kThreadStride + 64);
  std::int8_t* base = storage.data() + (64 - reinterpret_cast<std::uintptr_t>(storage.data()) % 64) % 64;
  for (std::size_t i = 0; i < threads * kThreadStride; ++i) base[i] = static_cast<std::int8_t>(i % 7) - 3;

  const std::uint64_t rounds = rounds_for_run(loop, base);
  std::vector<std::int64_t> sums(threads);
  const double seconds = shortest_parallel_run(threads, 5, [&](unsigned t) {
    sums[t] = loop.run(base + t * kThreadStride, 3, rounds);
  });
  volatile std::int64_t keep = 0;
  for (auto s : sums) keep = keep + s;
  const double multiply_adds = static_cast<double>(rounds * loop.operand_bytes) * threads;
  return {loop.instruction, multiply_adds / seconds / 1e9};
}

}  // namespace quorvel::host
