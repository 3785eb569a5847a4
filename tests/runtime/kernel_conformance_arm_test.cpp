// The 64-bit ARM kernel sets: which set the processor gets, and what the
// NEON sets need beyond the conformance suites that cover every SIMD set
// (kernel_conformance_products_test, kernel_conformance_elementwise_test):
// silu, whose reciprocal on ARM is the processor's estimate plus one Newton
// step and so is checked within a derived bound instead of bit for bit; the
// operations only the NEON sets override (int8 expansion, byte copy and
// fill); attention weights that only the exponential's clamp keeps above
// zero; and the products at the integer extremes where a 16-bit lane of the
// baseline set is closest to overflowing.
//
// A build for another processor family has no NEON set and instantiates
// nothing.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "conformance_support.h"
#include "kernel_test_inputs.h"
#include "product_test_inputs.h"

#if defined(__aarch64__)
#include <asm/hwcap.h>
#include <sys/auxv.h>

#include <bit>

#include "runtime/arm/cpu_features_arm.h"
#include "runtime/arm/neon_kernels.h"
#endif

namespace quorvel::test {
namespace {

std::vector<const kernels::KernelSet*> neon_sets() {
  std::vector<const kernels::KernelSet*> sets;
  for (const kernels::KernelSet* set : simd_kernel_sets()) {
    if (std::string(set->name).starts_with("neon")) sets.push_back(set);
  }
  return sets;
}

// Values that stress the narrowing: beyond the bf16 range (saturation),
// zeros of both signs, subnormals, and ordinary values of either sign.
std::vector<bf16> with_extremes(std::vector<bf16> row) {
  const float extremes[] = {3.0e38f, -3.0e38f, 0.0f, -0.0f, 1.0e-39f, -7.5f};
  for (std::size_t i = 0; i < row.size(); i += 5) row[i] = narrow_nearest_even(extremes[(i / 5) % std::size(extremes)]);
  return row;
}

class NeonConformance : public KernelConformanceTest {
 protected:
  std::uint32_t seed_ = 7;
};

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(NeonConformance);
INSTANTIATE_TEST_SUITE_P(Sets, NeonConformance, testing::ValuesIn(neon_sets()), kernel_set_name);

// ---- silu and the int8 expansion -----------------------------------------------

// Lengths around the vector step and its remainder.
const std::vector<std::size_t> kElementCounts = {1, 3, 4, 5, 8, 9, 64, 1027};

TEST_P(NeonConformance, DequantizeI8) {
  for (std::size_t n : kElementCounts) {
    KernelInputs inputs(seed_++);
    std::vector<std::int8_t> q = inputs.i8_row(n);
    q[0] = -128;
    q[n / 2] = 1;
    q[n - 1] = -1;
    // 1.00390625 (bits 0x3F808000) puts the codes +-1 exactly halfway
    // between two bf16 values: the saturating rule rounds them away from zero.
    for (float scale : {0.0173f, -3.0e36f, 1.0e-40f, 1.00390625f}) {
      std::vector<bf16> expected = sentinel_buffer<bf16>(n + 1), actual = expected;
      portable().dequantize_i8_bf16(q.data(), expected.data(), n, scale);
      simd().dequantize_i8_bf16(q.data(), actual.data(), n, scale);
      expect_identical(expected, actual,
                       "dequantize_i8_bf16 n=" + std::to_string(n) + " scale=" + std::to_string(scale));
    }
  }
}

// silu(g) * up with r = 1 / (1 + e^-g). The portable set divides: r is
// within u = 2^-24 of 1/d. The NEON set refines the estimate r0 (relative
// error |e| <= 2^-8) by one Newton step: r0 * (2 - d * r0) = (1/d)(1 - e^2),
// so r is within 2^-16, plus the roundings of FRECPS and of the product
// (2 * 2^-24). Both then round r * g and (r * g) * up once each. Before the
// narrowing the two f32 values therefore differ by a relative 2^-16 + 7 * 2^-24
// at most, far below bf16's spacing of 2^-8: they narrow to the same bf16 or
// to neighbours, so they may differ by at most one bf16 unit in the last
// place of the larger. (Near the clamp at g = -87, 1/d is subnormal and the
// estimate loses a few of its 8 bits; e^2 stays below 2^-12, still inside.)
TEST_P(NeonConformance, SiluMulWithinOneBf16UnitOfThePortableSet) {
  KernelInputs inputs(seed_++);
  std::vector<bf16> gate = inputs.bf16_row(4096, 12.0f);
  for (float extreme : {-100.0f, 100.0f, -87.5f, 88.5f, 0.0f, -0.0f}) gate.push_back(narrow_nearest_even(extreme));
  const std::vector<bf16> up = with_extremes(inputs.bf16_row(gate.size(), 50.0f));
  std::vector<bf16> expected = up, actual = up;
  portable().silu_mul_bf16(gate.data(), expected.data(), 1, gate.size());
  simd().silu_mul_bf16(gate.data(), actual.data(), 1, gate.size());
  // 1 where the two results are within one unit (a NaN never is), so that
  // the first element outside the bound is reported by its index.
  std::vector<std::uint8_t> within(gate.size());
  for (std::size_t i = 0; i < gate.size(); ++i) {
    const double e = widen(expected[i]), a = widen(actual[i]);
    within[i] = std::fabs(e - a) <= 2 * bf16_half_ulp(std::max(std::fabs(e), std::fabs(a)));
  }
  expect_identical(std::vector<std::uint8_t>(gate.size(), 1), within, "silu_mul_bf16 within one bf16 unit");
  // Two values a relative delta apart narrow differently only when a bf16
  // rounding boundary lies between them; the boundaries are at least a
  // relative 2^-8 apart, so over varied values an element differs with a
  // probability of at most delta * 2^8 (about 1 in 250). Four times that
  // count still fails a reciprocal left without its Newton step (error 2^-8,
  // which moves about one element in six).
  const double delta = std::ldexp(1.0, -16) + 7 * kUnitRoundoff;
  std::size_t differing = 0;
  for (std::size_t i = 0; i < gate.size(); ++i) differing += expected[i].bits != actual[i].bits;
  EXPECT_LE(static_cast<double>(differing), 4 * delta * 256 * static_cast<double>(gate.size()));
}

// ---- byte kernels ------------------------------------------------------------------

TEST_P(NeonConformance, CopyAndFillBytes) {
  for (std::size_t n : {0, 1, 15, 16, 17, 33, 100}) {
    KernelInputs inputs(seed_++);
    std::vector<std::int8_t> src = inputs.i8_row(n + 3);
    std::vector<std::int8_t> expected = sentinel_buffer<std::int8_t>(n + 6), actual = expected;
    portable().copy_bytes(expected.data() + 1, src.data() + 3, n);
    simd().copy_bytes(actual.data() + 1, src.data() + 3, n);
    expect_identical(expected, actual, "copy_bytes n=" + std::to_string(n));
    portable().fill_bytes(expected.data() + 2, 0x1C7, n);
    simd().fill_bytes(actual.data() + 2, 0x1C7, n);
    expect_identical(expected, actual, "fill_bytes n=" + std::to_string(n));
  }
}

// ---- attention ---------------------------------------------------------------

// One position far above all others (score +90, the rest -90) whose value
// row is 0, while every other value is near the bf16 maximum: the output is
// then made of the weights far below the maximum alone. In whole groups of
// four they are the polynomial's clamp exp(-87), in the leftover positions of
// a block the library's exp(-181) = 0, so a group or tail taken the wrong way
// shows. The maximum sits in the first block (the second block's correction
// is exp(0)) or in the second one (the first block is rescaled to nothing).
TEST_P(NeonConformance, AttentionWeightsFarBelowTheMaximum) {
  const std::size_t kv_len = 70, head_dim = 8;
  for (std::size_t top : {0, 66}) {
    std::vector<bf16> q(head_dim, bf16{0}), k(kv_len * head_dim, bf16{0}), v(head_dim * kv_len);
    q[0] = narrow_nearest_even(16.0f);
    for (std::size_t p = 0; p < kv_len; ++p) {
      k[p * head_dim] = narrow_nearest_even(p == top ? 16.0f : -16.0f);  // score +-256 / sqrt(8) = +-90.5
      for (std::size_t d = 0; d < head_dim; ++d) v[d * kv_len + p] = narrow_nearest_even(p == top ? 0.0f : 3.0e38f);
    }
    std::vector<bf16> expected = sentinel_buffer<bf16>(head_dim), actual = expected;
    std::vector<float> work(64 + head_dim);
    portable().attention_bf16(q.data(), head_dim, k.data(), head_dim, v.data(), kv_len, expected.data(), head_dim, 1,
                              kv_len, head_dim, work.data());
    simd().attention_bf16(q.data(), head_dim, k.data(), head_dim, v.data(), kv_len, actual.data(), head_dim, 1, kv_len,
                          head_dim, work.data());
    expect_identical(expected, actual, "attention_bf16 maximum at " + std::to_string(top));
  }
}

// ---- shapes outside the vector paths ------------------------------------------

// Shapes that the layers never pass but that the NEON sets must still get
// right without reading past a buffer: they take a scalar tail or hand the
// call to the portable set. q1 rows whose length is not a whole number of
// blocks (the last block summed over its existing values only); ternary row
// counts that are not a multiple of four; rotary halves that are not a
// multiple of four; attention heads whose size is not.
TEST_P(NeonConformance, Q1RowsEndingInAPartialBlock) {
  using Gemv = void (kernels::KernelBase::*)(const void*, const std::int8_t*, float, bf16*, size_t, size_t) const;
  const std::pair<const BlockLayout*, Gemv> products[] = {{&kQ1_0Layout, &kernels::KernelBase::gemv_q1_0},
                                                          {&kQ1_58Layout, &kernels::KernelBase::gemv_q1_58}};
  for (const auto& [layout, gemv] : products) {
    for (std::size_t k : {40, 128 + 1, 3 * 128 + 100}) {
      const std::vector<std::uint8_t> w = random_block_rows(*layout, 6, k, seed_++);
      const std::vector<std::int8_t> x = KernelInputs(seed_++).i8_row(k);
      std::vector<bf16> expected = sentinel_buffer<bf16>(7), actual = expected;
      (portable().*gemv)(w.data(), x.data(), 0.02f, expected.data(), 6, k);
      (simd().*gemv)(w.data(), x.data(), 0.02f, actual.data(), 6, k);
      expect_identical(expected, actual, std::string(layout->name) + " k=" + std::to_string(k));
    }
  }
}

TEST_P(NeonConformance, TernaryRowCountsOutsideTheGroupsOfFour) {
  const std::size_t k = 256;
  for (std::size_t rows : {1, 2, 3, 5, 7}) {
    std::mt19937 engine(seed_++);
    std::vector<std::uint8_t> w(rows * k / 4);
    for (std::uint8_t& b : w) b = static_cast<std::uint8_t>(engine());
    const std::vector<std::int8_t> x = KernelInputs(seed_++).i8_row(2 * k);
    const std::vector<float> scales = {0.01f, 0.03f};
    std::vector<bf16> expected = sentinel_buffer<bf16>(2 * rows + 1), actual = expected;
    portable().gemv_ternary(w.data(), x.data(), 17, expected.data(), rows, k, 0.01f, 0.9);
    simd().gemv_ternary(w.data(), x.data(), 17, actual.data(), rows, k, 0.01f, 0.9);
    expect_identical(expected, actual, "gemv_ternary rows=" + std::to_string(rows));
    portable().gemm_ternary(0.9, w.data(), x.data(), scales.data(), expected.data(), rows, 2, rows, k);
    simd().gemm_ternary(0.9, w.data(), x.data(), scales.data(), actual.data(), rows, 2, rows, k);
    expect_identical(expected, actual, "gemm_ternary rows=" + std::to_string(rows));
  }
}

TEST_P(NeonConformance, RopeAndAttentionOutsideTheVectorWidths) {
  for (std::size_t dim : {2, 6, 12, 20}) {
    KernelInputs inputs(seed_++);
    const std::vector<float> cos = inputs.f32_row(2 * dim, -1.0f, 1.0f), sin = inputs.f32_row(2 * dim, -1.0f, 1.0f);
    std::vector<bf16> expected = inputs.bf16_row(2 * dim + 3, 4.0f), actual = expected;
    portable().rope_bf16(expected.data(), cos.data(), sin.data(), 2, dim + 3, dim);
    simd().rope_bf16(actual.data(), cos.data(), sin.data(), 2, dim + 3, dim);
    expect_identical(expected, actual, "rope_bf16 dim=" + std::to_string(dim));
  }
  for (std::size_t head_dim : {1, 6, 10}) {
    KernelInputs inputs(seed_++);
    const std::size_t n_q = 2, kv_len = 70;
    const std::vector<bf16> q = inputs.bf16_row(n_q * head_dim, 3.0f), k = inputs.bf16_row(kv_len * head_dim, 3.0f);
    const std::vector<bf16> v = inputs.bf16_row(head_dim * kv_len, 2.0f);
    std::vector<bf16> expected = sentinel_buffer<bf16>(n_q * head_dim), actual = expected;
    std::vector<float> work(64 + head_dim);
    portable().attention_bf16(q.data(), head_dim, k.data(), head_dim, v.data(), kv_len, expected.data(), head_dim, n_q,
                              kv_len, head_dim, work.data());
    simd().attention_bf16(q.data(), head_dim, k.data(), head_dim, v.data(), kv_len, actual.data(), head_dim, n_q,
                          kv_len, head_dim, work.data());
    expect_identical(expected, actual, "attention_bf16 head_dim=" + std::to_string(head_dim));
  }
}

// ---- products at the integer extremes ----------------------------------------------------

// Every weight at one extreme against every activation at one extreme: the
// ternary 16-bit lanes reach 16 groups x 8 x 254 = 32512 in each 2048-weight
// chunk (k = 2048 is exactly one chunk, 4096 + 128 two and a part); q1_0_128
// and q8_0 also meet the activation -128, which the baseline set must handle
// without a negation that wraps.
TEST_P(NeonConformance, ProductsAtTheLargestSums) {
  const std::size_t rows = 8;
  const float kOne = 1.0f;
  const bf16 kOneBf16 = narrow_nearest_even(1.0f);
  for (std::size_t k : {2048, 4096 + 128}) {
    for (std::int8_t activation : {std::int8_t{127}, std::int8_t{-127}, std::int8_t{-128}}) {
      const std::vector<std::int8_t> x(k, activation);
      const std::string what = " k=" + std::to_string(k) + " x=" + std::to_string(activation);
      const std::int32_t x_sum = static_cast<std::int32_t>(k) * activation;

      const std::vector<std::uint8_t> plus_ones(rows * k / 4, 0xAA);  // every code 2: weight +1
      std::vector<bf16> expected(rows), actual(rows);
      portable().gemv_ternary(plus_ones.data(), x.data(), x_sum, expected.data(), rows, k, 0.01f, 0.5);
      simd().gemv_ternary(plus_ones.data(), x.data(), x_sum, actual.data(), rows, k, 0.01f, 0.5);
      expect_identical(expected, actual, "gemv_ternary" + what);

      for (std::uint8_t sign_byte : {std::uint8_t{0xFF}, std::uint8_t{0x00}}) {
        std::vector<std::uint8_t> q1_0(rows * k / 128 * 18, sign_byte);
        for (std::size_t b = 0; b < q1_0.size(); b += 18) std::memcpy(q1_0.data() + b + 16, &kOneBf16, 2);
        portable().gemv_q1_0(q1_0.data(), x.data(), 0.01f, expected.data(), rows, k);
        simd().gemv_q1_0(q1_0.data(), x.data(), 0.01f, actual.data(), rows, k);
        expect_identical(expected, actual, "gemv_q1_0 signs=" + std::to_string(sign_byte) + what);
      }

      std::vector<std::uint8_t> q8_0(rows * k / 32 * 36, 0x80);  // every code -128
      for (std::size_t b = 0; b < q8_0.size(); b += 36) std::memcpy(q8_0.data() + b, &kOne, sizeof kOne);
      portable().gemv_q8_0(q8_0.data(), x.data(), 0.01f, expected.data(), rows, k);
      simd().gemv_q8_0(q8_0.data(), x.data(), 0.01f, actual.data(), rows, k);
      expect_identical(expected, actual, "gemv_q8_0 codes=-128" + what);
    }
  }
}

// ---- which set runs ------------------------------------------------------------------------

// The registry holds the two NEON sets exactly in a 64-bit ARM build, the
// dot-product set first (preferred), the baseline set runnable everywhere.
TEST(NeonSelection, TheRegistryHoldsTheNeonSetsOnlyOn64BitArm) {
  std::vector<std::string> names;
  for (const kernels::KernelSet& set : kernels::kernel_sets()) names.push_back(set.name);
  const auto position = [&](const char* name) { return std::find(names.begin(), names.end(), name) - names.begin(); };
  const auto absent = static_cast<std::ptrdiff_t>(names.size());
#if defined(__aarch64__)
  EXPECT_LT(position("neon-dotprod"), position("neon"));
  ASSERT_LT(position("neon"), absent);
  EXPECT_TRUE(kernels::kernel_sets()[static_cast<std::size_t>(position("neon"))].supported());
#else
  EXPECT_EQ(position("neon-dotprod"), absent);
  EXPECT_EQ(position("neon"), absent);
#endif
}

#if defined(__aarch64__)

bool processor_reports_dot_product() { return (getauxval(AT_HWCAP) & HWCAP_ASIMDDP) != 0; }

// The accessor runs the dot-product set exactly when the processor reports
// the dot product. `make test-arm` also names the set that each emulated
// processor model must get (QUORVEL_EXPECT_KERNEL_SET), so that a model whose
// features the emulator did not apply cannot pass unnoticed.
TEST(NeonSelection, TheAccessorRunsTheSetThatTheProcessorReports) {
  EXPECT_STREQ(kernels::kernels().name(), processor_reports_dot_product() ? "neon-dotprod" : "neon");
  if (const char* expected = std::getenv("QUORVEL_EXPECT_KERNEL_SET")) {
    EXPECT_STREQ(kernels::kernels().name(), expected);
  }
}

TEST(NeonSelection, TheFeatureRecordIsItsTwoByteForm) {
  const kernels::CpuFeatures& features = kernels::arm::cpu_features();
  EXPECT_EQ(features.has_int8_matrix, 0);
  EXPECT_EQ(features.has_dot_product, processor_reports_dot_product() ? 1 : 0);
  EXPECT_EQ(std::bit_cast<std::uint16_t>(features), processor_reports_dot_product() ? 0x0100 : 0);
}

// The second byte is compared with 1; the first byte plays no part.
TEST(NeonSelection, OnlyADotProductByteOfOneSelectsTheDotProductSet) {
  using kernels::CpuFeatures;
  using kernels::arm::NEONKernels;
  EXPECT_STREQ(NEONKernels(CpuFeatures{0, 0}).name(), "neon");
  EXPECT_STREQ(NEONKernels(CpuFeatures{0, 1}).name(), "neon-dotprod");
  EXPECT_STREQ(NEONKernels(CpuFeatures{1, 0}).name(), "neon");
  EXPECT_STREQ(NEONKernels(CpuFeatures{0, 2}).name(), "neon");
  EXPECT_STREQ(NEONKernels().name(), processor_reports_dot_product() ? "neon-dotprod" : "neon");
}

#endif

}  // namespace
}  // namespace quorvel::test
