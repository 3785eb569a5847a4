// Block formats: the q1 expansions, the q8_0 quantizer's defined details,
// every dequantizer against the documented byte layout, and the
// quantize -> dequantize error of each in-memory format within its bound.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "kernel_test_inputs.h"
#include "product_test_inputs.h"
#include "runtime/formats/q1_0.h"
#include "runtime/formats/q1_58.h"
#include "runtime/formats/q8_0.h"
#include "runtime/formats/ternary.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::test {
namespace {

using kernels::KernelBase;
using kernels::PortableKernels;

const PortableKernels kKernels;
constexpr std::uint16_t kSentinel = 0x5A5A;

float from_bits(std::uint16_t bits) { return widen(bf16{bits}); }

TEST(Q1_0Format, SignTableExpandsMostSignificantBitFirst) {
  const auto& table = formats::q1_0_sign_table();
  EXPECT_EQ(table[0x80], (std::array<std::int8_t, 8>{1, -1, -1, -1, -1, -1, -1, -1}));
  EXPECT_EQ(table[0x01], (std::array<std::int8_t, 8>{-1, -1, -1, -1, -1, -1, -1, 1}));
  EXPECT_EQ(table[0xA5], (std::array<std::int8_t, 8>{1, -1, 1, -1, -1, 1, -1, 1}));
}

// All-set and all-clear sign bytes with scale 1.0 give +1.0 and -1.0; a
// count of 1 still writes one whole block and nothing beyond it.
TEST(Q1_0Format, FullAndEmptySignBytesExpandToPlusAndMinusScale) {
  std::vector<std::uint8_t> blocks(2 * kQ1_0Layout.bytes, 0x00);
  std::fill_n(blocks.begin(), 16, std::uint8_t{0xFF});
  kQ1_0Layout.set_scale(blocks.data(), 1.0f);
  kQ1_0Layout.set_scale(blocks.data() + kQ1_0Layout.bytes, 1.0f);
  std::vector<bf16> out(257, bf16{kSentinel});
  kKernels.dequantize_q1_0_bf16(blocks.data(), 1, out.data());
  EXPECT_TRUE(std::all_of(out.begin(), out.begin() + 128, [](bf16 v) { return v.bits == 0x3F80; }));
  EXPECT_EQ(out[128].bits, kSentinel);
  kKernels.dequantize_q1_0_bf16(blocks.data(), 129, out.data());
  EXPECT_TRUE(std::all_of(out.begin() + 128, out.begin() + 256, [](bf16 v) { return v.bits == 0xBF80; }));
  EXPECT_EQ(out[256].bits, kSentinel);
}

// Byte 0x9C (codes 2, 1, 3, 0 from the top) gives +1, 0, +2, -1 at 0, 32,
// 64, 96; with the largest bf16 scale, 2 * d overflows the float range and
// the saturating rule clamps it to the largest finite bf16.
TEST(Q1_58Format, CodesDecodeAndNarrowSaturating) {
  std::vector<std::uint8_t> block(kQ1_58Layout.bytes, 0x55);
  block[0] = 0x9C;
  kQ1_58Layout.set_scale(block.data(), 1.0f);
  std::vector<bf16> out(128);
  kKernels.dequantize_q1_58_bf16(block.data(), 128, out.data());
  EXPECT_EQ(widen(out[0]), 1.0f);
  EXPECT_EQ(widen(out[32]), 0.0f);
  EXPECT_EQ(widen(out[64]), 2.0f);
  EXPECT_EQ(widen(out[96]), -1.0f);
  EXPECT_EQ(widen(out[1]), 0.0f);
  kQ1_58Layout.set_scale(block.data(), from_bits(0x7F7F));
  kKernels.dequantize_q1_58_bf16(block.data(), 128, out.data());
  EXPECT_EQ(out[64].bits, 0x7F7F);
  EXPECT_EQ(out[96].bits, 0xFF7F);
}

using Q1Dequantize = void (KernelBase::*)(const void*, size_t, bf16*) const;

TEST(Q1Formats, DequantizersFollowTheDocumentedLayout) {
  const std::pair<const BlockLayout*, Q1Dequantize> cases[] = {{&kQ1_0Layout, &KernelBase::dequantize_q1_0_bf16},
                                                               {&kQ1_58Layout, &KernelBase::dequantize_q1_58_bf16}};
  for (const auto& [layout, dequantize] : cases) {
    const std::size_t n = 3 * 128;
    const auto blocks = random_block_rows(*layout, 1, n, 17, 3.0f);
    std::vector<bf16> out(n);
    (kKernels.*dequantize)(blocks.data(), n, out.data());
    for (std::size_t i = 0; i < n; ++i) {
      const float expected = layout->value(blocks.data() + i / 128 * layout->bytes, i % 128);
      ASSERT_EQ(out[i].bits, narrow_saturate(expected).bits) << layout->name << " " << i;
    }
  }
}

std::vector<bf16> bf16_values(std::initializer_list<float> values) {
  std::vector<bf16> row;
  for (float v : values) row.push_back(narrow_nearest_even(v));
  return row;
}

// The largest magnitude 127 gives d = 1 exactly, so the codes are the values
// rounded to nearest with ties to even; the tail block of a 33-value row
// writes one code and leaves the other 31 bytes as they were.
TEST(Q8_0Format, CodesRoundHalfToEvenAndTailCodesStayUntouched) {
  auto row = bf16_values({127.0f, 2.5f, 3.5f, -2.5f, 126.5f, -127.0f});
  row.resize(32, bf16{0});
  row.push_back(narrow_nearest_even(-4.0f));
  std::vector<formats::BlockQ8_0> blocks(2);
  std::memset(blocks.data(), 0x5A, blocks.size() * sizeof(formats::BlockQ8_0));
  kKernels.quantize_rows_q8_0(row.data(), 1, row.size(), blocks.data());
  EXPECT_EQ(blocks[0].d, 1.0f);
  EXPECT_EQ((std::vector<int>(blocks[0].q, blocks[0].q + 6)), (std::vector<int>{127, 2, 4, -2, 126, -127}));
  EXPECT_EQ(blocks[1].d, 4.0f / 127.0f);
  EXPECT_EQ(blocks[1].q[0], -127);
  EXPECT_TRUE(std::all_of(blocks[1].q + 1, blocks[1].q + 32, [](std::int8_t q) { return q == 0x5A; }));
}

TEST(Q8_0Format, ZeroBlockStoresZeroScaleAndKeepsItsCodeBytes) {
  std::vector<bf16> row(64, bf16{0});
  row[40] = narrow_nearest_even(1.0f);
  std::vector<formats::BlockQ8_0> blocks(2);
  std::memset(blocks.data(), 0x5A, blocks.size() * sizeof(formats::BlockQ8_0));
  kKernels.quantize_rows_q8_0(row.data(), 1, row.size(), blocks.data());
  EXPECT_EQ(blocks[0].d, 0.0f);
  EXPECT_TRUE(std::all_of(blocks[0].q, blocks[0].q + 32, [](std::int8_t q) { return q == 0x5A; }));
  EXPECT_EQ(blocks[1].q[8], 127);
  EXPECT_EQ(blocks[1].q[0], 0);
}

// ---- the in-memory formats, each through its kernel slots ------------------

using QuantizeRows = void (KernelBase::*)(const bf16*, size_t, size_t, void*) const;
using DequantizeRows = void (KernelBase::*)(const void*, size_t, size_t, float*) const;

// Largest |error| the format's quantizer allows for value i of a block
// (values x[0..n)), as documented beside each block struct.
using ErrorBound = double (*)(const float* x, std::size_t n, std::size_t i);

double largest_magnitude(const float* x, std::size_t n) {
  double m = 0;
  for (std::size_t i = 0; i < n; ++i) m = std::max(m, std::fabs(double{x[i]}));
  return m;
}

// Sign-carrying symmetric formats with `half` negative levels: half a step
// (amax / 2 half) on the side of the largest magnitude, a whole step on the
// other, where the top level is one short.
template <int half>
double symmetric_bound(const float* x, std::size_t n, std::size_t i) {
  const double amax = largest_magnitude(x, n);
  const bool same_side =
      *std::max_element(x, x + n, [](float a, float b) { return std::fabs(a) < std::fabs(b); }) * x[i] >= 0;
  return (same_side ? amax / (2 * half) : amax / half);
}

double q8_0_bound(const float* x, std::size_t n, std::size_t) { return largest_magnitude(x, n) / 254; }

double q6_k_bound(const float* x, std::size_t n, std::size_t i) {
  const std::size_t sub = i / 16 * 16;
  return largest_magnitude(x + sub, std::min<std::size_t>(16, n - sub)) / 32 + 33 * largest_magnitude(x, n) / 4096;
}

struct InMemoryFormat {
  const BlockLayout* layout;
  QuantizeRows quantize;
  DequantizeRows dequantize;
  ErrorBound bound;
};

void PrintTo(const InMemoryFormat& f, std::ostream* os) { *os << f.layout->name; }

class InMemoryFormatTest : public testing::TestWithParam<InMemoryFormat> {};

// Row lengths: one block, a tail, q6_k's super-block and its tail, many blocks.
constexpr std::size_t kRowLengths[] = {32, 100, 256, 300, 4096 + 128};

TEST_P(InMemoryFormatTest, RoundTripErrorStaysWithinTheFormatsBound) {
  const InMemoryFormat& f = GetParam();
  for (std::size_t cols : kRowLengths) {
    KernelInputs inputs(static_cast<std::uint32_t>(cols));
    std::vector<bf16> x = inputs.bf16_row(cols, 1.0f);
    for (bf16 v : inputs.bf16_row(cols, 300.0f)) x.push_back(v);
    for (bf16 v : inputs.bf16_range(cols, 1e-3f, 2e-3f)) x.push_back(v);  // one sign only
    std::vector<std::uint8_t> blocks(3 * f.layout->row_bytes(cols));
    std::vector<float> back(3 * cols);
    (kKernels.*f.quantize)(x.data(), 3, cols, blocks.data());
    (kKernels.*f.dequantize)(blocks.data(), 3, cols, back.data());
    std::vector<float> wide(x.size());
    std::transform(x.begin(), x.end(), wide.begin(), widen);
    for (std::size_t i = 0; i < wide.size(); ++i) {
      const std::size_t first = i / cols * cols + (i % cols) / f.layout->values * f.layout->values;
      const std::size_t n = std::min(f.layout->values, i / cols * cols + cols - first);
      // The scale, its reciprocal and x * reciprocal are rounded floats: a
      // code may sit a few float ulps of amax past the half step.
      const double rounding = largest_magnitude(&wide[first], n) * std::ldexp(1.0, -20);
      const double bound = f.bound(&wide[first], n, i - first) + rounding;
      ASSERT_NEAR(back[i], wide[i], bound) << "cols=" << cols << " i=" << i;
    }
  }
}

// Random bytes (the quantizer's choices aside) decode exactly as the byte
// layout documented beside the struct says.
TEST_P(InMemoryFormatTest, DequantizerFollowsTheDocumentedLayout) {
  const InMemoryFormat& f = GetParam();
  const std::size_t rows = 2, cols = 300;
  const auto blocks = random_block_rows(*f.layout, rows, cols, 23, 5.0f);
  std::vector<float> out(rows * cols);
  (kKernels.*f.dequantize)(blocks.data(), rows, cols, out.data());
  for (std::size_t r = 0; r < rows; ++r) {
    for (std::size_t c = 0; c < cols; ++c) {
      const std::uint8_t* block =
          blocks.data() + r * f.layout->row_bytes(cols) + c / f.layout->values * f.layout->bytes;
      ASSERT_EQ(out[r * cols + c], f.layout->value(block, c % f.layout->values)) << r << " " << c;
    }
  }
}

// The f32 quantizers of the two q1 formats: +-d weights come back exactly
// (d is their mean magnitude), the signs and codes follow x's sign and the
// rounding of x / d, and an all-zero block gets q1.58's floor scale.
TEST(Q1Quantizers, ExactWeightsRoundTripAndRoundingFollowsTheRules) {
  std::vector<float> x(256);
  for (std::size_t i = 0; i < x.size(); ++i) x[i] = (i * 7 % 3 == 0 ? -0.375f : 0.375f);
  std::vector<formats::BlockQ1_0> q1(2);
  formats::quantize_q1_0(x.data(), x.size(), q1.data());
  for (std::size_t i = 0; i < x.size(); ++i) {
    ASSERT_EQ(static_cast<float>(formats::q1_0_sign(q1[i / 128], i % 128)) * widen(q1[i / 128].d), x[i]) << i;
  }
  std::vector<float> t(128, 0.0f);
  t[0] = 0.5f;  // the magnitudes sum to 4, so d = 4 / 128 and this ratio is 16: +1
  t[1] = -3.4375f;  // -> -1
  t[2] = 0.015625f;  // ratio 0.5 rounds to even: 0
  t[3] = 0.046875f;  // ratio 1.5 -> 2, clamped to +1
  std::vector<formats::BlockQ1_58> q158(1);
  formats::quantize_q1_58(t.data(), t.size(), q158.data());
  EXPECT_EQ(widen(q158[0].d), 4.0f / 128.0f);
  EXPECT_EQ(formats::block_sum(q158[0], std::vector<std::int8_t>{1, 10, 100, 1}.data(), 4), 1 - 10 + 0 + 1);
  std::fill(t.begin(), t.end(), 0.0f);
  formats::quantize_q1_58(t.data(), t.size(), q158.data());
  EXPECT_EQ(widen(q158[0].d), widen(narrow_nearest_even(formats::kTernaryScaleFloor)));
}

TEST_P(InMemoryFormatTest, ZeroRowsComeBackAsZeros) {
  const InMemoryFormat& f = GetParam();
  const std::vector<bf16> x(300, bf16{0});
  std::vector<std::uint8_t> blocks(f.layout->row_bytes(300), 0);
  std::vector<float> back(300, -1.0f);
  (kKernels.*f.quantize)(x.data(), 1, 300, blocks.data());
  (kKernels.*f.dequantize)(blocks.data(), 1, 300, back.data());
  EXPECT_TRUE(std::all_of(back.begin(), back.end(), [](float v) { return v == 0.0f; }));
}

INSTANTIATE_TEST_SUITE_P(Formats, InMemoryFormatTest,
                         testing::Values(InMemoryFormat{&kQ8_0Layout, &KernelBase::quantize_rows_q8_0,
                                                        &KernelBase::dequantize_q8_0_f32, q8_0_bound},
                                         InMemoryFormat{&kQ4_0Layout, &KernelBase::quantize_rows_q4_0,
                                                        &KernelBase::dequantize_q4_0_f32, symmetric_bound<8>},
                                         InMemoryFormat{&kQ5_0Layout, &KernelBase::quantize_rows_q5_0,
                                                        &KernelBase::dequantize_q5_0_f32, symmetric_bound<16>},
                                         InMemoryFormat{&kQ6_KLayout, &KernelBase::quantize_rows_q6_k,
                                                        &KernelBase::dequantize_q6_k_f32, q6_k_bound}),
                         [](const testing::TestParamInfo<InMemoryFormat>& param_info) {
                           return std::string(param_info.param.layout->name);
                         });

}  // namespace
}  // namespace quorvel::test
