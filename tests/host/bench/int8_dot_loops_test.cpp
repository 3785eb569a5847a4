#include "host/int8_dot_loops.h"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "runtime/kernel_sets.h"

namespace quorvel::host {
namespace {

// Operands in [-64, 63], 64-byte aligned, varied so that a loop that skips
// or repeats a vector gets another sum.
std::int8_t* fill_operands(std::vector<std::int8_t>& storage, std::size_t bytes) {
  storage.assign(bytes + 64, 0);
  std::int8_t* x = storage.data() + (64 - reinterpret_cast<std::uintptr_t>(storage.data()) % 64) % 64;
  for (std::size_t i = 0; i < bytes; ++i) x[i] = static_cast<std::int8_t>((i * 37 + 11) % 128) - 64;
  return x;
}

TEST(Int8DotLoops, EverySupportedSetsLoopMultipliesEveryOperandOncePerRound) {
  for (const auto& set : kernels::kernel_sets()) {
    if (!set.supported()) continue;
    const Int8DotLoop loop = int8_dot_loop_for(set.name);
    std::vector<std::int8_t> storage;
    const std::int8_t* x = fill_operands(storage, loop.operand_bytes);
    const std::int64_t operand_sum = std::accumulate(x, x + loop.operand_bytes, std::int64_t{0});
    ASSERT_NE(operand_sum, 0);
    EXPECT_EQ(loop.run(x, 5, 3), 3 * 5 * operand_sum) << set.name;
    EXPECT_EQ(loop.run(x, 127, 1), 127 * operand_sum) << set.name;
  }
}

TEST(Int8DotLoops, EachSetGetsTheInstructionItsProductsUse) {
#if defined(__x86_64__)
  EXPECT_STREQ(int8_dot_loop_for("avx512").instruction, "vpdpbusd zmm");
  EXPECT_STREQ(int8_dot_loop_for("avx-vnni").instruction, "vpdpbusd ymm");
  EXPECT_EQ(std::string(int8_dot_loop_for("avx2").instruction).rfind("vpmaddubsw", 0), 0u);
#endif
#if defined(__aarch64__)
  EXPECT_STREQ(int8_dot_loop_for("neon-dotprod").instruction, "sdot");
  EXPECT_STREQ(int8_dot_loop_for("neon").instruction, "smull + sadalp");
#endif
  EXPECT_STREQ(int8_dot_loop_for("portable").instruction, "plain C++ int8 multiply-add");
}

TEST(Int8DotLoops, OperandsFillWholeVectorsOfEveryAccumulator) {
  for (const auto& set : kernels::kernel_sets()) {
    const Int8DotLoop loop = int8_dot_loop_for(set.name);
    EXPECT_EQ(loop.operand_bytes % 64, 0u) << set.name;
    EXPECT_GE(loop.operand_bytes, 64u) << set.name;
  }
}

}  // namespace
}  // namespace quorvel::host
