// Rotary embedding: the two tables read from the RoPE cache stream, the
// position bound, and that rotation does not depend on how tokens or heads
// are grouped.
#include "layers/rotary_embedding.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "layer_test_support.h"
#include "runtime/kernel_base.h"

namespace quorvel::layers {
namespace {

using quorvel::testing::binary_stream;
using quorvel::testing::ByteWriter;
using quorvel::testing::same_bits;

constexpr std::uint64_t kHeadDim = 16;
constexpr std::uint64_t kMaxContext = 12;
constexpr std::uint64_t kHeads = 6;
constexpr std::uint64_t kTable = kHeadDim * kMaxContext;

// Angles that differ per position and per half of the row.
std::vector<float> angles(float (*f)(float)) {
  std::vector<float> table(kTable);
  for (std::uint64_t p = 0; p < kMaxContext; ++p) {
    for (std::uint64_t i = 0; i < kHeadDim; ++i) {
      table[p * kHeadDim + i] = f(0.37f * static_cast<float>(p) * static_cast<float>(1 + i % 8 + i / 8));
    }
  }
  return table;
}

class RotaryEmbeddingTest : public ::testing::Test {
 protected:
  RotaryEmbeddingTest() {
    ByteWriter w;
    quorvel::testing::write_f32(w, cos_table);
    quorvel::testing::write_f32(w, sin_table);
    tables = w.bytes();
  }
  RotaryEmbedding load() {
    auto stream = binary_stream(tables);
    return RotaryEmbedding(stream, kHeadDim, kMaxContext);
  }
  std::vector<bf16> rows(std::uint64_t n) { return quorvel::testing::random_bf16(rng, n * kHeads * kHeadDim); }

  std::vector<float> cos_table = angles(std::cos);
  std::vector<float> sin_table = angles(std::sin);
  std::string tables;
  std::mt19937 rng{17};
};

TEST_F(RotaryEmbeddingTest, ReadsCosThenSin) {
  auto stream = binary_stream(tables + "bytes after the sine table");
  RotaryEmbedding rope(stream, kHeadDim, kMaxContext);
  EXPECT_EQ(static_cast<std::uint64_t>(stream.tellg()), 2 * kTable * sizeof(float));
  EXPECT_EQ(std::vector<float>(rope.cos(), rope.cos() + kTable), cos_table);
  EXPECT_EQ(std::vector<float>(rope.sin(), rope.sin() + kTable), sin_table);
}

// Both reports count whole floats on each side.
TEST_F(RotaryEmbeddingTest, ShortTablesAreReportedInFloats) {
  const auto load_cut = [&](std::size_t bytes) {
    return [this, bytes] {
      auto stream = binary_stream(tables.substr(0, bytes));
      RotaryEmbedding(stream, kHeadDim, kMaxContext);
    };
  };
  quorvel::testing::expect_short_read(load_cut(4 * 50 + 3),
                                      "Could not read in cos: read_bytes (50) != 192; EOF: 1, FTELL: -1",
                                      "Failed to read RoPE cos values");
  quorvel::testing::expect_short_read(load_cut(4 * kTable + 4 * 7),
                                      "Could not read in sin: read_bytes (7) != 192; EOF: 1, FTELL: -1",
                                      "Failed to read RoPE sin values");
}

TEST_F(RotaryEmbeddingTest, PositionsPastTheTablesAreRefused) {
  const RotaryEmbedding rope = load();
  std::vector<bf16> x = rows(2);
  const std::vector<bf16> before = x;
  rope.apply(x.data(), kHeads, 0, kMaxContext);
  quorvel::testing::expect_refused([&] { rope.apply(x.data(), kHeads, 2, kMaxContext - 1); },
                                   "RoPE: exceeded max context size");
  quorvel::testing::expect_refused([&] { rope.apply(x.data(), kHeads, 0, kMaxContext + 1); },
                                   "RoPE: exceeded max context size");
  EXPECT_TRUE(same_bits(x, before));
  rope.apply(x.data(), kHeads, 1, kMaxContext - 1);
  EXPECT_FALSE(same_bits(x, before));
}

TEST_F(RotaryEmbeddingTest, BatchEqualsOneCallPerPosition) {
  const RotaryEmbedding rope = load();
  constexpr std::uint64_t n = 5, start = 4;
  std::vector<bf16> batch = rows(n);
  std::vector<bf16> singles = batch;
  rope.apply(batch.data(), kHeads, n, start);
  for (std::uint64_t t = 0; t < n; ++t) rope.apply(singles.data() + t * kHeads * kHeadDim, kHeads, 1, start + t);
  EXPECT_TRUE(same_bits(batch, singles));
}

// Heads split over the pool, inline, or one kernel call per head over the
// table rows of the start position: the same rows.
TEST_F(RotaryEmbeddingTest, HeadsMatchTheKernelWithPoolOrInline) {
  const RotaryEmbedding rope = load();
  constexpr std::uint64_t n = 3, start = 2;
  const std::vector<bf16> x = rows(n);
  std::vector<bf16> direct = x, pooled = x, inline_heads = x;
  for (std::uint64_t h = 0; h < kHeads; ++h) {
    kernels::kernels().rope_bf16(direct.data() + h * kHeadDim, cos_table.data() + start * kHeadDim,
                                 sin_table.data() + start * kHeadDim, n, kHeads * kHeadDim, kHeadDim);
  }
  rope.apply(pooled.data(), kHeads, n, start);
  quorvel::testing::run_inside_job([&] { rope.apply(inline_heads.data(), kHeads, n, start); });
  EXPECT_FALSE(same_bits(direct, x));
  EXPECT_TRUE(same_bits(pooled, direct));
  EXPECT_TRUE(same_bits(inline_heads, direct));
}

}  // namespace
}  // namespace quorvel::layers
