#include "host/memory_bandwidth.h"

#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "host/memory_read_loops.h"
#include "host/parallel_timing.h"

namespace quorvel::host {
namespace {

constexpr std::align_val_t kCacheLine{64};

struct AlignedDeleter {
  void operator()(std::byte* p) const { ::operator delete(p, kCacheLine); }
};

}  // namespace

ReadBandwidth measure_read_bandwidth(unsigned threads, std::uint64_t bytes) {
  const MemoryReadLoop loop = widest_read_loop();
  const std::uint64_t share = bytes / threads / kReadStep * kReadStep;
  std::unique_ptr<std::byte, AlignedDeleter> buffer(static_cast<std::byte*>(::operator new(share * threads, kCacheLine)));
  std::memset(buffer.get(), 1, share * threads);  // fault every page in first

  std::vector<std::uint64_t> sums(threads);
  const double seconds = shortest_parallel_run(threads, 7, [&](unsigned t) {
    sums[t] = loop.read(buffer.get() + t * share, share);
  });
  volatile std::uint64_t keep = 0;
  for (auto s : sums) keep = keep + s;
  return {loop.loads, static_cast<double>(share * threads) / seconds / 1e9};
}

}  // namespace quorvel::host
