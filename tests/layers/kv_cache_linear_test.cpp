// The key and value projections' caches: capacity checks, layouts, and
// rewinding the position.
#include "layers/kv_cache_linear.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "layer_test_support.h"

namespace quorvel::layers {
namespace {

using quorvel::testing::binary_stream;
using quorvel::testing::ByteWriter;
using quorvel::testing::random_codes;
using quorvel::testing::random_scales;
using quorvel::testing::same_bits;

constexpr std::uint64_t kIn = 64;
constexpr std::uint64_t kOut = 48;
constexpr std::uint64_t kMaxContext = 8;

class KvCacheTest : public ::testing::Test {
 protected:
  KvCacheTest() {
    ByteWriter w;
    quorvel::testing::write_bf16(w, quorvel::testing::random_bf16(rng, kIn * kOut));
    payload = w.bytes();
  }
  template <typename Layer>
  Layer load(std::uint64_t max_context = kMaxContext, std::uint64_t out = kOut) {
    auto stream = binary_stream(payload);
    return Layer(stream, kIn, out, 1, false, max_context, QuantFormat::NONE);
  }
  struct Batch {
    std::vector<std::int8_t> codes;
    std::vector<float> scales;
    std::vector<bf16> projected;  // what the plain linear layer writes
  };
  Batch batch(std::uint64_t n, std::uint64_t out = kOut) {
    Batch b{random_codes(rng, n * kIn), random_scales(rng, n), std::vector<bf16>(n * out)};
    auto stream = binary_stream(payload);
    AutoQ8_0Linear plain(stream, kIn, out, 1, false, QuantFormat::NONE);
    plain.forward(b.codes.data(), b.scales.data(), n, b.projected.data(), nullptr);
    return b;
  }
  template <typename Layer>
  bf16* append(Layer& layer, const Batch& b, std::vector<bf16>& out) {
    out.assign(b.projected.size(), bf16{0});
    return layer.forward(b.codes.data(), b.scales.data(), b.scales.size(), out.data(), nullptr);
  }
  static std::vector<bf16> snapshot(const bf16* cache, std::uint64_t out = kOut, std::uint64_t max = kMaxContext) {
    return std::vector<bf16>(cache, cache + out * max);
  }

  std::mt19937 rng{99};
  std::string payload;
};

bf16 key_at(const KQ8_0Linear& layer, std::uint64_t p, std::uint64_t d) { return layer.cache()[p * kOut + d]; }
bf16 value_at(const VQ8_0Linear& layer, std::uint64_t p, std::uint64_t d) {
  return layer.cache()[d * layer.max_context() + p];
}

// Keys are rows per position, values columns per position; single tokens
// and batches (the transposing copy) land in the same places.
TEST_F(KvCacheTest, AppendsKeysAsRowsAndValuesAsColumns) {
  auto key = load<KQ8_0Linear>();
  auto value = load<VQ8_0Linear>();
  std::vector<Batch> batches{batch(1), batch(5), batch(1)};
  std::vector<bf16> out;
  std::uint64_t position = 0;
  for (const Batch& b : batches) {
    EXPECT_EQ(append(key, b, out), key.cache());
    EXPECT_EQ(append(value, b, out), value.cache());
    EXPECT_TRUE(same_bits(out, b.projected));
    for (std::uint64_t t = 0; t < b.scales.size(); ++t, ++position) {
      for (std::uint64_t d = 0; d < kOut; ++d) {
        ASSERT_EQ(key_at(key, position, d).bits, b.projected[t * kOut + d].bits);
        ASSERT_EQ(value_at(value, position, d).bits, b.projected[t * kOut + d].bits);
      }
    }
  }
  EXPECT_EQ(key.cache_pos(), 7u);
  EXPECT_EQ(value.cache_pos(), 7u);
}

// A batch large enough for the parallel transposing copy.
TEST_F(KvCacheTest, LargeValueBatchLandsInColumns) {
  constexpr std::uint64_t n = 40, out = 128, max = 64;
  ASSERT_TRUE(transpose_copy_splits(n, out));
  ByteWriter w;
  quorvel::testing::write_bf16(w, quorvel::testing::random_bf16(rng, kIn * out));
  payload = w.bytes();
  auto value = load<VQ8_0Linear>(max, out);
  value.set_cache_pos(11);
  const Batch b = batch(n, out);
  std::vector<bf16> rows;
  append(value, b, rows);
  for (std::uint64_t t = 0; t < n; ++t) {
    for (std::uint64_t d = 0; d < out; ++d) {
      ASSERT_EQ(value.cache()[d * max + 11 + t].bits, b.projected[t * out + d].bits) << t << " " << d;
    }
  }
}

TEST_F(KvCacheTest, FillsToCapacityThenRefusesTheNextToken) {
  auto key = load<KQ8_0Linear>();
  auto value = load<VQ8_0Linear>();
  std::vector<bf16> out;
  key.set_cache_pos(6);
  value.set_cache_pos(6);
  const Batch two = batch(2);
  append(key, two, out);
  append(value, two, out);
  EXPECT_EQ(key.cache_pos(), 8u);
  EXPECT_EQ(value.cache_pos(), 8u);
  const Batch one = batch(1);
  quorvel::testing::expect_refused([&] { append(key, one, out); }, "Exceeded context size in KQ8_0Linear");
  quorvel::testing::expect_refused([&] { append(value, one, out); }, "Exceeded context size in VQ8_0Linear");
  EXPECT_EQ(key.cache_pos(), 8u);
  EXPECT_EQ(value.cache_pos(), 8u);
}

TEST_F(KvCacheTest, PositionBeyondCapacityRefusesEvenZeroTokens) {
  auto key = load<KQ8_0Linear>();
  auto value = load<VQ8_0Linear>();
  key.set_cache_pos(9);
  value.set_cache_pos(9);
  const Batch none = batch(0);
  std::vector<bf16> out;
  quorvel::testing::expect_refused([&] { append(key, none, out); }, "Exceeded context size in KQ8_0Linear");
  quorvel::testing::expect_refused([&] { append(value, none, out); }, "Exceeded context size in VQ8_0Linear");
  key.set_cache_pos(8);
  value.set_cache_pos(8);
  EXPECT_EQ(append(key, none, out), key.cache());
  EXPECT_EQ(append(value, none, out), value.cache());
  EXPECT_EQ(key.cache_pos(), 8u);
}

// The key is refused before projecting; the value after, with the caller's
// rows already written. Neither cache changes.
TEST_F(KvCacheTest, OverflowLeavesTheCacheButValueHasWrittenOut) {
  auto key = load<KQ8_0Linear>();
  auto value = load<VQ8_0Linear>();
  std::vector<bf16> out;
  const Batch full = batch(kMaxContext);
  append(key, full, out);
  append(value, full, out);
  const auto keys_before = snapshot(key.cache());
  const auto values_before = snapshot(value.cache());
  key.set_cache_pos(7);
  value.set_cache_pos(7);
  const Batch two = batch(2);
  EXPECT_THROW(append(key, two, out), std::runtime_error);
  EXPECT_TRUE(same_bits(out, std::vector<bf16>(out.size(), bf16{0})));
  EXPECT_THROW(append(value, two, out), std::runtime_error);
  EXPECT_TRUE(same_bits(out, two.projected));
  EXPECT_TRUE(same_bits(snapshot(key.cache()), keys_before));
  EXPECT_TRUE(same_bits(snapshot(value.cache()), values_before));
  EXPECT_EQ(key.cache_pos(), 7u);
  EXPECT_EQ(value.cache_pos(), 7u);
}

TEST_F(KvCacheTest, RewindingOverwritesOnlyThatPosition) {
  auto key = load<KQ8_0Linear>();
  auto value = load<VQ8_0Linear>();
  std::vector<bf16> out;
  const Batch first = batch(6);
  append(key, first, out);
  append(value, first, out);
  key.set_cache_pos(3);
  value.set_cache_pos(3);
  const Batch again = batch(1);
  append(key, again, out);
  append(value, again, out);
  EXPECT_EQ(key.cache_pos(), 4u);
  for (std::uint64_t d = 0; d < kOut; ++d) {
    ASSERT_EQ(key_at(key, 3, d).bits, again.projected[d].bits);
    ASSERT_EQ(value_at(value, 3, d).bits, again.projected[d].bits);
    ASSERT_EQ(key_at(key, 4, d).bits, first.projected[4 * kOut + d].bits);
    ASSERT_EQ(value_at(value, 4, d).bits, first.projected[4 * kOut + d].bits);
    ASSERT_EQ(value_at(value, 2, d).bits, first.projected[2 * kOut + d].bits);
  }
}

// Each of the eight classes reads its base's payload, then names itself
// when its cache is full.
template <typename Layer>
void expect_named_overflow(const std::string& payload, std::uint64_t in, const std::string& name) {
  auto stream = binary_stream(payload + "next");
  Layer layer(stream, in, 128, 1, false, 0, QuantFormat::NONE);
  EXPECT_EQ(static_cast<std::uint64_t>(stream.tellg()), payload.size()) << name;
  std::vector<std::int8_t> codes(in, 1);
  float scale = 0.01f;
  std::vector<bf16> out(128);
  quorvel::testing::expect_refused([&] { layer.forward(codes.data(), &scale, 1, out.data(), nullptr); },
                                   "Exceeded context size in " + name);
}

TEST(KvCacheNamesTest, EveryVariantNamesItselfOnOverflow) {
  std::mt19937 rng(3);
  const std::string bit = std::string(8, '\0') + std::string(128 * 128 / 4, '\x55');
  const std::string q1(128 * 18, '\x01');
  const std::string q1_58(128 * 34, '\x01');
  ByteWriter w;
  quorvel::testing::write_bf16(w, quorvel::testing::random_bf16(rng, 32 * 128));
  const std::string q8 = w.bytes();
  expect_named_overflow<KBitLinear>(bit, 128, "KBitLinear");
  expect_named_overflow<VBitLinear>(bit, 128, "VBitLinear");
  expect_named_overflow<KQ1Linear>(q1, 128, "KQ1Linear");
  expect_named_overflow<VQ1Linear>(q1, 128, "VQ1Linear");
  expect_named_overflow<KQ1_58Linear>(q1_58, 128, "KQ1_58Linear");
  expect_named_overflow<VQ1_58Linear>(q1_58, 128, "VQ1_58Linear");
  expect_named_overflow<KQ8_0Linear>(q8, 32, "KQ8_0Linear");
  expect_named_overflow<VQ8_0Linear>(q8, 32, "VQ8_0Linear");
}

}  // namespace
}  // namespace quorvel::layers
