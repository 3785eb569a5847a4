#include "host/memory_read_loops.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

namespace quorvel::host {
namespace {

constexpr std::align_val_t kCacheLine{64};

struct Aligned {
  explicit Aligned(std::size_t bytes) : data(static_cast<std::byte*>(::operator new(bytes, kCacheLine))) {}
  ~Aligned() { ::operator delete(data, kCacheLine); }
  std::byte* data;
};

// Every 32-bit lane of the buffer holds its own index, so that the sum is
// the sum of 0 .. lanes-1 only when every lane is read exactly once.
void expect_reads_every_lane(const MemoryReadLoop& loop) {
  const std::size_t bytes = 3 * kReadStep;
  Aligned buffer(bytes);
  const std::size_t lanes = bytes / 4;
  for (std::uint32_t i = 0; i < lanes; ++i) std::memcpy(buffer.data + 4 * i, &i, 4);
  EXPECT_EQ(loop.read(buffer.data, bytes), lanes * (lanes - 1) / 2) << loop.loads;
  EXPECT_EQ(loop.read(buffer.data, kReadStep), (kReadStep / 4) * (kReadStep / 4 - 1) / 2) << loop.loads;
}

TEST(MemoryReadLoops, GenericLoopReadsEveryLane) { expect_reads_every_lane(generic_read_loop()); }

#if defined(__x86_64__)
TEST(MemoryReadLoops, Avx2LoopReadsEveryLane) {
  if (!__builtin_cpu_supports("avx2")) {
    GTEST_SKIP() << "no AVX2";
  }
  expect_reads_every_lane(avx2_read_loop());
}

TEST(MemoryReadLoops, Avx512LoopReadsEveryLane) {
  if (!__builtin_cpu_supports("avx512f")) {
    GTEST_SKIP() << "no AVX-512";
  }
  expect_reads_every_lane(avx512_read_loop());
}
#endif

TEST(MemoryReadLoops, WidestLoopIsOneOfTheLoops) {
  const MemoryReadLoop widest = widest_read_loop();
  expect_reads_every_lane(widest);
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512f")) {
    EXPECT_STREQ(widest.loads, avx512_read_loop().loads);
  }
#endif
}

}  // namespace
}  // namespace quorvel::host
