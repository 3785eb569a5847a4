// The weight products of the portable set (ternary, q1_0_128, q1.58, q8_0)
// against products computed here from the documented layouts: bit for bit in
// the defined order, and within rounding of the exact value.
#include <gtest/gtest.h>

#include <bit>
#include <string>
#include <vector>

#include "kernel_test_inputs.h"
#include "product_test_inputs.h"
#include "runtime/formats/q8_0.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::test {
namespace {

using kernels::KernelBase;
using kernels::PortableKernels;

const PortableKernels kKernels;
constexpr std::uint16_t kSentinel = 0x5A5A;

void expect_bf16_product(bf16 out, const RowProduct& ref, const std::string& where) {
  EXPECT_EQ(out.bits, narrow_nearest_even(ref.defined).bits) << where;
  const double slack = ref.bound + bf16_half_ulp(std::fabs(ref.exact) + ref.bound);
  EXPECT_NEAR(widen(out), ref.exact, slack) << where;
}

void expect_f32_product(float out, const RowProduct& ref, const std::string& where) {
  EXPECT_EQ(std::bit_cast<std::uint32_t>(out), std::bit_cast<std::uint32_t>(ref.defined)) << where;
  EXPECT_NEAR(out, ref.exact, ref.bound) << where;
}

// ---- q1_0_128, q1.58, q8_0 ------------------------------------------------

using Gemv = void (KernelBase::*)(const void*, const std::int8_t*, float, bf16*, size_t, size_t) const;
using GemvF32 = void (KernelBase::*)(const void*, const std::int8_t*, float, float*, size_t, size_t) const;
using Gemm = void (KernelBase::*)(const void*, const std::int8_t*, const float*, bf16*, size_t, size_t, size_t,
                                  size_t) const;

struct BlockProductCase {
  const BlockLayout* layout;
  Gemv gemv;
  Gemm gemm;
  GemvF32 gemv_f32;  // null for q8_0, whose f32 twin reads the unembedding layout
  std::vector<std::size_t> ks;
};

void PrintTo(const BlockProductCase& c, std::ostream* os) { *os << c.layout->name; }

class BlockProductTest : public testing::TestWithParam<BlockProductCase> {};

constexpr std::size_t kMaxRows = 9;  // covers every last-group size of the row groupings

// Every row count 1..9 (groups of 4 with a last group of 1..3 for q1; the
// q8_0 table's 2, 4 and 8), each row against the reference.
TEST_P(BlockProductTest, SingleTokenRowsMatchDefinition) {
  const BlockProductCase& c = GetParam();
  for (std::size_t k : c.ks) {
    const auto w = random_block_rows(*c.layout, kMaxRows, k, static_cast<std::uint32_t>(k));
    const auto x = KernelInputs(static_cast<std::uint32_t>(k) + 1).i8_row(k);
    const float x_scale = 0.0173f;
    for (std::size_t rows = 1; rows <= kMaxRows; ++rows) {
      std::vector<bf16> out(rows + 1, bf16{kSentinel});
      std::vector<float> out_f32(rows + 1, -7.0f);
      (kKernels.*c.gemv)(w.data(), x.data(), x_scale, out.data(), rows, k);
      if (c.gemv_f32) (kKernels.*c.gemv_f32)(w.data(), x.data(), x_scale, out_f32.data(), rows, k);
      for (std::size_t r = 0; r < rows; ++r) {
        const auto ref = reference_row_product(*c.layout, w.data() + r * c.layout->row_bytes(k), x.data(), x_scale, k);
        const std::string where =
            "k=" + std::to_string(k) + " rows=" + std::to_string(rows) + " r=" + std::to_string(r);
        expect_bf16_product(out[r], ref, where);
        if (c.gemv_f32) expect_f32_product(out_f32[r], ref, where);
      }
      EXPECT_EQ(out[rows].bits, kSentinel);
      EXPECT_EQ(out_f32[rows], -7.0f);
    }
  }
}

TEST_P(BlockProductTest, SeveralTokensEqualSingleTokenCallsBitForBit) {
  const BlockProductCase& c = GetParam();
  const std::size_t k = c.ks.back();
  const std::size_t rows = 7, tokens = 3, stride = rows + 2;
  const auto w = random_block_rows(*c.layout, rows, k, 99);
  const auto x = KernelInputs(98).i8_row(tokens * k);
  const std::vector<float> scales{0.011f, 0.5f, 3.0e-4f};
  std::vector<bf16> batched(tokens * stride, bf16{kSentinel});
  (kKernels.*c.gemm)(w.data(), x.data(), scales.data(), batched.data(), stride, tokens, rows, k);
  for (std::size_t t = 0; t < tokens; ++t) {
    std::vector<bf16> single(rows);
    (kKernels.*c.gemv)(w.data(), x.data() + t * k, scales[t], single.data(), rows, k);
    for (std::size_t r = 0; r < rows; ++r) EXPECT_EQ(batched[t * stride + r].bits, single[r].bits) << t << " " << r;
    for (std::size_t r = rows; r < stride; ++r) EXPECT_EQ(batched[t * stride + r].bits, kSentinel);
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, BlockProductTest,
                         testing::Values(BlockProductCase{&kQ1_0Layout,
                                                          &KernelBase::gemv_q1_0,
                                                          &KernelBase::gemm_q1_0,
                                                          &KernelBase::gemv_q1_0_f32,
                                                          {128, 4096 + 128}},
                                         BlockProductCase{&kQ1_58Layout,
                                                          &KernelBase::gemv_q1_58,
                                                          &KernelBase::gemm_q1_58,
                                                          &KernelBase::gemv_q1_58_f32,
                                                          {128, 4096 + 128}},
                                         // Tails of 4 and 1 values, then the row-grouping boundaries.
                                         BlockProductCase{&kQ8_0Layout,
                                                          &KernelBase::gemv_q8_0,
                                                          &KernelBase::gemm_q8_0,
                                                          nullptr,
                                                          {32, 100, 2560, 2561, 4096, 8192}}),
                         [](const testing::TestParamInfo<BlockProductCase>& param_info) {
                           return std::string(param_info.param.layout->name);
                         });

TEST(Q8_0Grouping, RowsPerGroupFollowTheTuningTable) {
  EXPECT_EQ(formats::q8_0_gemv_rows_per_group(2560), 2u);
  EXPECT_EQ(formats::q8_0_gemv_rows_per_group(2561), 4u);
  EXPECT_EQ(formats::q8_0_gemv_rows_per_group(4095), 4u);
  EXPECT_EQ(formats::q8_0_gemv_rows_per_group(4096), 8u);
  EXPECT_EQ(formats::q8_0_gemv_rows_per_group(8191), 8u);
  EXPECT_EQ(formats::q8_0_gemv_rows_per_group(8192), 2u);
}

// A true value beyond the bf16 range becomes infinity: nearest-even, no clamp.
TEST(Q8_0Product, OverflowStoresInfinity) {
  std::vector<std::uint8_t> w(kQ8_0Layout.bytes, 0);
  kQ8_0Layout.set_scale(w.data(), 3.4e36f);
  w[4] = 100;
  std::vector<std::int8_t> x(32, 0);
  x[0] = 1;
  bf16 out[2];
  kKernels.gemv_q8_0(w.data(), x.data(), 1.0f, &out[0], 1, 32);
  kKernels.gemv_q8_0(w.data(), x.data(), -1.0f, &out[1], 1, 32);
  EXPECT_EQ(out[0].bits, 0x7F80);
  EXPECT_EQ(out[1].bits, 0xFF80);
}

// ---- ternary -------------------------------------------------------------

constexpr float kTernaryXScale = 0.0123f;
constexpr double kGamma = 0.731;

// Random code bytes: codes 0..3, the unused code 3 reading as +2.
std::vector<std::uint8_t> random_ternary_rows(std::size_t rows, std::size_t k, std::uint32_t seed) {
  std::mt19937 engine(seed);
  std::vector<std::uint8_t> w(rows * k / 4);
  for (std::uint8_t& b : w) b = static_cast<std::uint8_t>(engine());
  return w;
}

std::int32_t activation_sum(const std::int8_t* x, std::size_t k) {
  std::int32_t sum = 0;
  for (std::size_t i = 0; i < k; ++i) sum += x[i];
  return sum;
}

// The definition, with the signed weight sum formed here directly.
RowProduct ternary_reference(const std::uint8_t* row, const std::int8_t* x, std::size_t k, float x_scale,
                             double gamma) {
  std::int64_t sum = 0;
  for (std::size_t i = 0; i < k; ++i) sum += (ternary_raw_code(row + i / 128 * 32, i % 128) - 1) * x[i];
  const double exact = static_cast<double>(sum) * gamma * x_scale;
  const auto defined = static_cast<float>(static_cast<double>(sum) * (gamma * static_cast<double>(x_scale)));
  return {defined, exact, std::fabs(exact) * 4 * kUnitRoundoff};
}

bf16 gemv_ternary_row(const std::vector<std::uint8_t>& w, const std::vector<std::int8_t>& x, float x_scale,
                      double gamma) {
  std::vector<bf16> out(4);
  const std::size_t k = x.size();
  kKernels.gemv_ternary(w.data(), x.data(), activation_sum(x.data(), k), out.data(), 4, k, x_scale, gamma);
  return out[0];
}

// One group, one whole 2048-weight chunk, and two chunks plus a group.
TEST(TernaryProduct, SingleTokenRowsMatchDefinition) {
  for (std::size_t k : {128u, 2048u, 4096u + 128u}) {
    const std::size_t rows = 8;
    const auto w = random_ternary_rows(rows, k, static_cast<std::uint32_t>(k));
    const auto x = KernelInputs(static_cast<std::uint32_t>(k)).i8_row(k);
    std::vector<bf16> out(rows + 1, bf16{kSentinel});
    kKernels.gemv_ternary(w.data(), x.data(), activation_sum(x.data(), k), out.data(), rows, k, kTernaryXScale, kGamma);
    for (std::size_t r = 0; r < rows; ++r) {
      expect_bf16_product(out[r], ternary_reference(w.data() + r * k / 4, x.data(), k, kTernaryXScale, kGamma),
                          "k=" + std::to_string(k) + " r=" + std::to_string(r));
    }
    EXPECT_EQ(out[rows].bits, kSentinel);
  }
}

TEST(TernaryProduct, SeveralTokensEqualSingleTokenCallsBitForBit) {
  const std::size_t k = 4096 + 128, rows = 8, tokens = 3, stride = rows + 5;
  const auto w = random_ternary_rows(rows, k, 5);
  const auto x = KernelInputs(6).i8_row(tokens * k);
  const std::vector<float> scales{0.011f, 0.5f, 3.0e-4f};
  std::vector<bf16> batched(tokens * stride, bf16{kSentinel});
  kKernels.gemm_ternary(kGamma, w.data(), x.data(), scales.data(), batched.data(), stride, tokens, rows, k);
  for (std::size_t t = 0; t < tokens; ++t) {
    const std::int8_t* xt = x.data() + t * k;
    std::vector<bf16> single(rows);
    kKernels.gemv_ternary(w.data(), xt, activation_sum(xt, k), single.data(), rows, k, scales[t], kGamma);
    for (std::size_t r = 0; r < rows; ++r) EXPECT_EQ(batched[t * stride + r].bits, single[r].bits) << t << " " << r;
    for (std::size_t r = rows; r < stride; ++r) EXPECT_EQ(batched[t * stride + r].bits, kSentinel);
  }
}

// Byte 0x9C holds codes 2, 1, 3, 0 from the top: weights +1, 0, +2, -1 at
// positions 0, 32, 64, 96 of the group.
TEST(TernaryProduct, CodesSitAtTheirDocumentedBitPositions) {
  std::vector<std::uint8_t> w(4 * 32, 0x55);  // code 1 (weight 0) everywhere
  w[0] = 0x9C;
  std::vector<std::int8_t> x(128, 0);
  x[0] = 1, x[32] = 10, x[64] = 100, x[96] = -7;
  EXPECT_EQ(widen(gemv_ternary_row(w, x, 1.0f, 1.0)), 1.0f + 0.0f + 200.0f + 7.0f);
}

TEST(TernaryProduct, AllZeroWeightsGiveExactlyZero) {
  const std::size_t k = 4096 + 128;
  const std::vector<std::uint8_t> w(4 * k / 4, 0x55);
  EXPECT_EQ(gemv_ternary_row(w, KernelInputs(3).i8_row(k), 0.37f, 1.9).bits, 0x0000);
}

// 2048 products of 2 * 127 in one chunk: more than a 16-bit lane could hold
// without the chunking, and exact here.
TEST(TernaryProduct, FullChunkOfLargestProductsIsExact) {
  const std::size_t k = 2048;
  const std::vector<std::uint8_t> w(4 * k / 4, 0xAA);  // code 2 (weight +1) everywhere
  const std::vector<std::int8_t> x(k, 127);
  const double expected = static_cast<double>(2 * 127 * 2048 - 127 * 2048) * (kGamma * double{kTernaryXScale});
  EXPECT_EQ(gemv_ternary_row(w, x, kTernaryXScale, kGamma).bits,
            narrow_nearest_even(static_cast<float>(expected)).bits);
}

TEST(TernaryProduct, OverflowStoresInfinity) {
  const std::vector<std::uint8_t> w(4 * 32, 0xAA);
  const std::vector<std::int8_t> x(128, 100);
  EXPECT_EQ(gemv_ternary_row(w, x, 1.0f, 3.4e38 / 12800.0).bits, 0x7F80);
  EXPECT_EQ(gemv_ternary_row(w, x, -1.0f, 3.4e38 / 12800.0).bits, 0xFF80);
}

}  // namespace
}  // namespace quorvel::test
