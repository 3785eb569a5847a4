// Conformance of the weight and logits products of every SIMD kernel set
// with the portable set: identical output bytes over named edge sizes (one
// block, a partial tail block, many blocks, the q8_0 row-grouping boundaries,
// row counts around every pass width, 1 to 9 tokens), weights and outputs at
// unaligned sub-range pointers, random and extreme scales.
#include <cmath>
#include <limits>
#include <utility>
#include <string>
#include <vector>

#include "conformance_support.h"
#include "kernel_test_inputs.h"
#include "product_test_inputs.h"

namespace quorvel::test {
namespace {

using kernels::KernelBase;

// Outputs start this many elements into their buffer (an unaligned start,
// with sentinels before it) and are followed by as many sentinels.
constexpr std::size_t kMargin = 3;

std::string case_name(const char* op, std::size_t rows, std::size_t k, std::size_t first_row, std::size_t tokens = 1) {
  return std::string(op) + " rows=" + std::to_string(rows) + " k=" + std::to_string(k) +
         " first_row=" + std::to_string(first_row) + " tokens=" + std::to_string(tokens);
}

// Block scales that stress the float steps: infinity, values whose products
// overflow the bf16 and f32 ranges, subnormals, zeros, and one NaN scale on
// the first row. Every NaN that the sums then meet is either that one or the
// processor's default NaN (from inf * 0 or inf - inf): where two different
// NaNs meet, which one survives depends on operand order, which the compiler
// may swap in an addition, so no set can promise it.
void set_extreme_scales(const BlockLayout& layout, std::vector<std::uint8_t>& table) {
  const float extremes[] = {std::numeric_limits<float>::infinity(), 3.0e38f, -2.5e36f, 1.0e-40f, 0.0f, -0.0f};
  std::size_t i = 0;
  for (std::size_t at = layout.bytes; at < table.size(); at += 7 * layout.bytes, ++i) {
    layout.set_scale(table.data() + at, extremes[i % std::size(extremes)]);
  }
  layout.set_scale(table.data(), std::numeric_limits<float>::quiet_NaN());
}

// The activation codes of `tokens` rows of k, one byte past an aligned start.
struct Activations {
  std::vector<std::int8_t> storage;
  std::vector<float> scales;
  const std::int8_t* codes() const { return storage.data() + 1; }
};

Activations make_activations(std::size_t tokens, std::size_t k, std::uint32_t seed) {
  KernelInputs inputs(seed);
  Activations a{inputs.i8_row(tokens * k + 1), inputs.f32_row(tokens, 0.001f, 0.05f)};
  return a;
}

class ProductConformance : public KernelConformanceTest {
 protected:
  template <typename Out>
  using Gemv = void (KernelBase::*)(const void*, const std::int8_t*, float, Out*, size_t, size_t) const;
  using Gemm = void (KernelBase::*)(const void*, const std::int8_t*, const float*, bf16*, size_t, size_t, size_t,
                                    size_t) const;

  // One single-token product on rows [first_row, first_row + rows) of a
  // matrix of first_row + rows plain rows.
  template <typename Out>
  void check_gemv(const char* op, Gemv<Out> gemv, const BlockLayout& layout, std::size_t rows, std::size_t k,
                  std::size_t first_row, bool extreme_scales) {
    std::vector<std::uint8_t> table = random_block_rows(layout, first_row + rows, k, seed_++);
    if (extreme_scales) set_extreme_scales(layout, table);
    const Activations x = make_activations(1, k, seed_++);
    const std::uint8_t* w = table.data() + first_row * layout.row_bytes(k);
    std::vector<Out> expected = sentinel_buffer<Out>(rows + 2 * kMargin);
    std::vector<Out> actual = expected;
    (portable().*gemv)(w, x.codes(), x.scales[0], expected.data() + kMargin, rows, k);
    (simd().*gemv)(w, x.codes(), x.scales[0], actual.data() + kMargin, rows, k);
    expect_identical(expected, actual, case_name(op, rows, k, first_row) + (extreme_scales ? " extreme" : ""));
  }

  // One several-token product; token t's outputs are out_stride apart, with
  // sentinels between the token rows as well.
  void check_gemm(const char* op, Gemm gemm, const BlockLayout& layout, std::size_t tokens, std::size_t rows,
                  std::size_t k) {
    const std::vector<std::uint8_t> table = random_block_rows(layout, rows, k, seed_++);
    const Activations x = make_activations(tokens, k, seed_++);
    const std::size_t stride = rows + kMargin;
    std::vector<bf16> expected = sentinel_buffer<bf16>(tokens * stride + 2 * kMargin);
    std::vector<bf16> actual = expected;
    (portable().*gemm)(table.data(), x.codes(), x.scales.data(), expected.data() + kMargin, stride, tokens, rows, k);
    (simd().*gemm)(table.data(), x.codes(), x.scales.data(), actual.data() + kMargin, stride, tokens, rows, k);
    expect_identical(expected, actual, case_name(op, rows, k, 0, tokens));
  }

  template <typename Out>
  void sweep_gemv(const char* op, Gemv<Out> gemv, const BlockLayout& layout, const std::vector<std::size_t>& ks) {
    for (std::size_t k : ks) {
      for (std::size_t rows : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 15, 16, 17, 33}) {
        check_gemv(op, gemv, layout, rows, k, 0, false);
      }
      check_gemv(op, gemv, layout, 20, k, 3, false);
      check_gemv(op, gemv, layout, 37, k, 5, true);
    }
  }

  void sweep_gemm(const char* op, Gemm gemm, const BlockLayout& layout, const std::vector<std::size_t>& ks) {
    for (std::size_t k : ks) {
      for (std::size_t tokens = 0; tokens <= 9; ++tokens) {
        for (std::size_t rows : {0, 1, 3, 5, 8, 17}) check_gemm(op, gemm, layout, tokens, rows, k);
      }
    }
  }

  std::uint32_t seed_ = 1;
};

// One block, two blocks, the shapes of real layers (2048, 2560, 6912 with
// its odd block count), and 8192.
const std::vector<std::size_t> kQ1Lengths = {128, 256, 384, 2048, 2560, 6912, 8192};
// One block, a single partial block, a block plus a tail, many blocks plus a
// tail, and both sides of every q8_0 row-grouping boundary.
const std::vector<std::size_t> kQ8Lengths = {32, 20, 40, 64, 100, 1000, 2560, 2561, 4095, 4096, 8191, 8192, 8209};

TEST_P(ProductConformance, Q1_0SingleToken) {
  sweep_gemv<bf16>("gemv_q1_0", &KernelBase::gemv_q1_0, kQ1_0Layout, kQ1Lengths);
}

TEST_P(ProductConformance, Q1_0SingleTokenLogits) {
  sweep_gemv<float>("gemv_q1_0_f32", &KernelBase::gemv_q1_0_f32, kQ1_0Layout, kQ1Lengths);
}

TEST_P(ProductConformance, Q1_0SeveralTokens) {
  sweep_gemm("gemm_q1_0", &KernelBase::gemm_q1_0, kQ1_0Layout, {128, 640, 2048});
}

TEST_P(ProductConformance, Q1_58SingleToken) {
  sweep_gemv<bf16>("gemv_q1_58", &KernelBase::gemv_q1_58, kQ1_58Layout, kQ1Lengths);
}

TEST_P(ProductConformance, Q1_58SingleTokenLogits) {
  sweep_gemv<float>("gemv_q1_58_f32", &KernelBase::gemv_q1_58_f32, kQ1_58Layout, kQ1Lengths);
}

TEST_P(ProductConformance, Q1_58SeveralTokens) {
  sweep_gemm("gemm_q1_58", &KernelBase::gemm_q1_58, kQ1_58Layout, {128, 640, 2048});
}

TEST_P(ProductConformance, Q8_0SingleToken) {
  sweep_gemv<bf16>("gemv_q8_0", &KernelBase::gemv_q8_0, kQ8_0Layout, kQ8Lengths);
}

TEST_P(ProductConformance, Q8_0SeveralTokens) {
  sweep_gemm("gemm_q8_0", &KernelBase::gemm_q8_0, kQ8_0Layout, {32, 40, 100, 1024, 2561});
}

// The tiles of the several-token q8_0 product: row counts on and off the
// 8- and 16-row passes, rows in several cached chunks (k = 2561 makes rows of
// 2916 bytes), token counts past one and two groups of passes, a partial
// last block.
TEST_P(ProductConformance, Q8_0SeveralTokensTileEdges) {
  for (std::size_t k : {40, 2561}) {
    for (std::size_t tokens : {17, 33, 70}) {
      for (std::size_t rows : {7, 16, 24, 33, 100}) check_gemm("gemm_q8_0", &KernelBase::gemm_q8_0, kQ8_0Layout, tokens, rows, k);
    }
  }
}

// Rows longer than the SIMD sets prepare on the stack take the portable code
// and must still agree.
TEST_P(ProductConformance, RowsBeyondThePreparedLengthStillAgree) {
  check_gemv<bf16>("gemv_q1_0", &KernelBase::gemv_q1_0, kQ1_0Layout, 5, 16384 + 128, 0, false);
  check_gemv<bf16>("gemv_q8_0", &KernelBase::gemv_q8_0, kQ8_0Layout, 5, 16384 + 32, 0, false);
  check_gemm("gemm_q1_58", &KernelBase::gemm_q1_58, kQ1_58Layout, 5, 3, 16384 + 128);
}

// More than four tokens (passes of four, two and one) at the longest rows
// the SIMD sets prepare, over many passes of rows with a partial last pass.
TEST_P(ProductConformance, SeveralTokensAtTheLongestPreparedRows) {
  check_gemm("gemm_q8_0", &KernelBase::gemm_q8_0, kQ8_0Layout, 6, 37, 8192);
  check_gemm("gemm_q1_0", &KernelBase::gemm_q1_0, kQ1_0Layout, 5, 170, 16384);
  check_gemm("gemm_q1_58", &KernelBase::gemm_q1_58, kQ1_58Layout, 9, 90, 16384);
}

// The grouped logits tables (q8_0, q4_0, q5_0): whole groups of 32 rows, a
// range starting at a later group (as a worker's share does), partial tail
// blocks whose unused code bytes hold garbage.
TEST_P(ProductConformance, GroupedLogits) {
  const std::pair<const BlockLayout*, Gemv<float>> formats[] = {{&kQ8_0Layout, &KernelBase::gemv_q8_0_f32},
                                                                {&kQ4_0Layout, &KernelBase::gemv_q4_0_f32},
                                                                {&kQ5_0Layout, &KernelBase::gemv_q5_0_f32}};
  for (const auto& [layout, gemv] : formats) {
    for (std::size_t k : {32, 40, 100, 1024, 2560, 2561}) {
      for (std::size_t groups : {1, 2, 3}) {
        for (bool extreme : {false, true}) {
          const std::size_t rows = groups * 32;
          std::vector<std::uint8_t> table = random_block_rows(*layout, rows + 32, k, seed_++);
          if (extreme) set_extreme_scales(*layout, table);
          const Activations x = make_activations(1, k, seed_++);
          const std::uint8_t* w = table.data() + 32 * layout->row_bytes(k);  // starts at the second group
          std::vector<float> expected = sentinel_buffer<float>(rows + 2 * kMargin);
          std::vector<float> actual = expected;
          (portable().*gemv)(w, x.codes(), x.scales[0], expected.data() + kMargin, rows, k);
          (simd().*gemv)(w, x.codes(), x.scales[0], actual.data() + kMargin, rows, k);
          expect_identical(expected, actual,
                           std::string(layout->name) + case_name(" logits", rows, k, 32) + (extreme ? " extreme" : ""));
        }
      }
    }
  }
}

class TernaryConformance : public ProductConformance {
 protected:
  std::vector<std::uint8_t> random_codes(std::size_t rows, std::size_t k) {
    std::mt19937 engine(seed_++);
    std::vector<std::uint8_t> w(rows * k / 4);
    for (std::uint8_t& b : w) b = static_cast<std::uint8_t>(engine());  // code 3 included: it reads as +2
    return w;
  }

  static std::int32_t code_sum(const std::int8_t* x, std::size_t k) {
    std::int32_t sum = 0;
    for (std::size_t i = 0; i < k; ++i) sum += x[i];
    return sum;
  }

  void check_gemv(std::size_t rows, std::size_t k, std::size_t first_row, double gamma) {
    const std::vector<std::uint8_t> table = random_codes(first_row + rows, k);
    const Activations x = make_activations(1, k, seed_++);
    const std::uint8_t* w = table.data() + first_row * k / 4;
    const std::int32_t sum = code_sum(x.codes(), k);
    std::vector<bf16> expected = sentinel_buffer<bf16>(rows + 2 * kMargin);
    std::vector<bf16> actual = expected;
    portable().gemv_ternary(w, x.codes(), sum, expected.data() + kMargin, rows, k, x.scales[0], gamma);
    simd().gemv_ternary(w, x.codes(), sum, actual.data() + kMargin, rows, k, x.scales[0], gamma);
    expect_identical(expected, actual, case_name("gemv_ternary", rows, k, first_row) + " gamma=" + std::to_string(gamma));
  }

  void check_gemm(std::size_t tokens, std::size_t rows, std::size_t k) {
    const std::vector<std::uint8_t> table = random_codes(rows, k);
    const Activations x = make_activations(tokens, k, seed_++);
    const std::size_t stride = rows + kMargin;
    std::vector<bf16> expected = sentinel_buffer<bf16>(tokens * stride + 2 * kMargin);
    std::vector<bf16> actual = expected;
    portable().gemm_ternary(0.73, table.data(), x.codes(), x.scales.data(), expected.data() + kMargin, stride, tokens,
                            rows, k);
    simd().gemm_ternary(0.73, table.data(), x.codes(), x.scales.data(), actual.data() + kMargin, stride, tokens, rows,
                        k);
    expect_identical(expected, actual, case_name("gemm_ternary", rows, k, 0, tokens));
  }
};

TEST_P(TernaryConformance, SingleToken) {
  for (std::size_t k : {128, 256, 2048, 2560, 4096, 6912}) {
    for (std::size_t rows : {0, 4, 8, 12, 16, 20, 36}) check_gemv(rows, k, 0, 1.7);
    check_gemv(12, k, 3, 0.02);
  }
  // Products beyond the bf16 range become infinity; a NaN gamma stays NaN.
  check_gemv(8, 2048, 0, 1e36);
  check_gemv(8, 2048, 0, std::numeric_limits<double>::quiet_NaN());
}

TEST_P(TernaryConformance, SeveralTokens) {
  for (std::size_t k : {128, 2560}) {
    for (std::size_t tokens = 0; tokens <= 9; ++tokens) {
      for (std::size_t rows : {0, 4, 12, 20}) check_gemm(tokens, rows, k);
    }
  }
  check_gemm(5, 4, 16384 + 128);  // beyond the prepared length: the portable path
  check_gemm(7, 52, 16384);       // the longest prepared rows
}

// The int8 unembedding table: tiles of 32 x 32, whole tile rows, a range
// starting at a later tile row, the largest codes (|w| = 128 included).
TEST_P(ProductConformance, Int8Logits) {
  for (std::size_t k : {32, 64, 1024, 2560, 4096}) {
    for (std::size_t rows : {32, 64, 96}) {
      std::mt19937 engine(seed_++);
      std::vector<std::int8_t> table((rows + 32) * k);
      for (std::int8_t& v : table) v = static_cast<std::int8_t>(engine());
      KernelInputs inputs(seed_++);
      const std::vector<float> row_scales = inputs.f32_row(rows + 32, -0.01f, 0.01f);
      const Activations x = make_activations(1, k, seed_++);
      std::vector<float> expected = sentinel_buffer<float>(rows + 2 * kMargin);
      std::vector<float> actual = expected;
      const std::int8_t* w = table.data() + 32 * k;
      portable().gemv_i8_f32(w, row_scales.data() + 32, x.codes(), x.scales[0], expected.data() + kMargin, rows, k);
      simd().gemv_i8_f32(w, row_scales.data() + 32, x.codes(), x.scales[0], actual.data() + kMargin, rows, k);
      expect_identical(expected, actual, case_name("gemv_i8_f32", rows, k, 32));
    }
  }
}

// Every weight at its extreme against every activation at +-127: the
// integer sums are at their largest, where a narrow lane would overflow.
TEST_P(ProductConformance, Int8LogitsAtTheLargestSums) {
  const std::size_t k = 8192, rows = 32;
  for (std::int8_t weight : {std::int8_t{127}, std::int8_t{-128}}) {
    for (std::int8_t activation : {std::int8_t{127}, std::int8_t{-127}}) {
      const std::vector<std::int8_t> table(rows * k, weight);
      const std::vector<std::int8_t> x(k, activation);
      const std::vector<float> row_scales(rows, 1.0f);
      std::vector<float> expected(rows), actual(rows);
      portable().gemv_i8_f32(table.data(), row_scales.data(), x.data(), 1.0f, expected.data(), rows, k);
      simd().gemv_i8_f32(table.data(), row_scales.data(), x.data(), 1.0f, actual.data(), rows, k);
      expect_identical(expected, actual, "gemv_i8_f32 w=" + std::to_string(weight) + " x=" + std::to_string(activation));
    }
  }
}

INSTANTIATE_KERNEL_CONFORMANCE(ProductConformance);
INSTANTIATE_KERNEL_CONFORMANCE(TernaryConformance);

}  // namespace
}  // namespace quorvel::test
