// LoRA side products of the portable set in every factor format, and the
// four-lane bf16 row dot product.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "runtime/bf16.h"
#include "runtime/formats/activation_i8.h"
#include "runtime/formats/i8_matrix.h"
#include "runtime/formats/q4_0.h"
#include "runtime/formats/q5_0.h"
#include "runtime/formats/q6_k.h"
#include "runtime/formats/q8_0.h"
#include "runtime/kernel_test_inputs.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {
namespace {

using test::bf16_half_ulp;
using test::gamma_n;
using test::KernelInputs;

const PortableKernels kPortable;
constexpr std::size_t kWorkGuard = 8;

// x rows, bf16 factors A (in_dim x rank) and B (rank x out_dim), the layer
// output the update is added to, and a work row with guard floats after it.
struct LoraCase {
  std::size_t n_tokens, in_dim, rank, out_dim;
  std::vector<bf16> x, a, b, out_before, out;
  std::vector<float> work;

  LoraCase(KernelInputs& inputs, std::size_t tokens, std::size_t in, std::size_t r, std::size_t out_size)
      : n_tokens(tokens), in_dim(in), rank(r), out_dim(out_size), x(inputs.bf16_row(tokens * in, 1.0f)),
        a(inputs.bf16_row(in * r, 0.5f)), b(inputs.bf16_row(r * out_size, 0.5f)),
        out_before(inputs.bf16_row(tokens * out_size, 2.0f)), out(out_before),
        work(r + kWorkGuard, std::numeric_limits<float>::quiet_NaN()) {}

  void expect_guard_untouched() const {
    for (std::size_t i = rank; i < work.size(); ++i) ASSERT_TRUE(std::isnan(work[i])) << "work[" << i << "] written";
  }
};

std::vector<double> widened(const std::vector<bf16>& values) {
  std::vector<double> out(values.size());
  for (std::size_t i = 0; i < values.size(); ++i) out[i] = widen(values[i]);
  return out;
}

// out += x * A * B in double, with A and B as the kernel should read them.
// The float path makes in_dim + 1 roundings into each h[r] (the +1 for the
// factor's own dequantization) and rank more into each y[j], all bounded by
// the sums of magnitudes; the final add and narrowing add the rest.
void expect_update_matches_double(const LoraCase& c, const std::vector<double>& a, const std::vector<double>& b) {
  for (std::size_t t = 0; t < c.n_tokens; ++t) {
    std::vector<double> h(c.rank, 0.0), h_magnitude(c.rank, 0.0);
    for (std::size_t i = 0; i < c.in_dim; ++i) {
      const double xi = widen(c.x[t * c.in_dim + i]);
      for (std::size_t r = 0; r < c.rank; ++r) {
        h[r] += xi * a[i * c.rank + r];
        h_magnitude[r] += std::fabs(xi * a[i * c.rank + r]);
      }
    }
    for (std::size_t j = 0; j < c.out_dim; ++j) {
      double y = 0, magnitude = 0;
      for (std::size_t r = 0; r < c.rank; ++r) {
        y += h[r] * b[r * c.out_dim + j];
        magnitude += h_magnitude[r] * std::fabs(b[r * c.out_dim + j]);
      }
      const double expected = widen(c.out_before[t * c.out_dim + j]) + y;
      const double bound = gamma_n(static_cast<double>(c.in_dim + c.rank) + 2) * magnitude +
                           gamma_n(1) * std::fabs(expected) + bf16_half_ulp(expected);
      ASSERT_NEAR(widen(c.out[t * c.out_dim + j]), expected, bound) << "token " << t << " column " << j;
    }
  }
}

// ---- bf16 factors ---------------------------------------------------------

// The kernel contract fixes every rounding of the bf16 update, so the same steps in
// float here must give identical bits.
TEST(LoraBf16, EqualsTheSameOrderInFloat) {
  KernelInputs inputs(51);
  for (std::size_t rank : {1u, 5u, 33u}) {
    LoraCase c(inputs, 3, 37, rank, 45);
    kPortable.lora_bf16(c.x.data(), c.a.data(), c.b.data(), c.out.data(), c.n_tokens, c.in_dim, c.rank, c.out_dim,
                        c.work.data());
    for (std::size_t t = 0; t < c.n_tokens; ++t) {
      std::vector<float> h(rank, 0.0f);
      for (std::size_t i = 0; i < c.in_dim; ++i) {
        for (std::size_t r = 0; r < rank; ++r) h[r] = h[r] + widen(c.x[t * c.in_dim + i]) * widen(c.a[i * rank + r]);
      }
      for (std::size_t j = 0; j < c.out_dim; ++j) {
        float y = 0.0f;
        for (std::size_t r = 0; r < rank; ++r) y = y + h[r] * widen(c.b[r * c.out_dim + j]);
        const bf16 expected = narrow_saturate(widen(c.out_before[t * c.out_dim + j]) + y);
        ASSERT_EQ(c.out[t * c.out_dim + j].bits, expected.bits) << "rank " << rank << " token " << t << " j " << j;
      }
    }
    expect_update_matches_double(c, widened(c.a), widened(c.b));
    c.expect_guard_untouched();
  }
}

// ---- block-format factors ------------------------------------------------

using QuantizeRows = void (PortableKernels::*)(const bf16*, size_t, size_t, void*) const;
using DequantizeRows = void (PortableKernels::*)(const void*, size_t, size_t, float*) const;
using LoraProduct = void (PortableKernels::*)(const bf16*, const void*, const void*, bf16*, size_t, size_t, size_t,
                                              size_t, float*) const;

struct BlockFormat {
  const char* name;
  std::size_t block_values;
  std::size_t block_bytes;
  QuantizeRows quantize;
  DequantizeRows dequantize;
  LoraProduct lora;
};

const BlockFormat kBlockFormats[] = {
    {"q8_0", formats::kQ8_0BlockValues, sizeof(formats::BlockQ8_0), &PortableKernels::quantize_rows_q8_0,
     &PortableKernels::dequantize_q8_0_f32, &PortableKernels::lora_q8_0},
    {"q4_0", formats::kQ4_0BlockValues, sizeof(formats::BlockQ4_0), &PortableKernels::quantize_rows_q4_0,
     &PortableKernels::dequantize_q4_0_f32, &PortableKernels::lora_q4_0},
    {"q5_0", formats::kQ5_0BlockValues, sizeof(formats::BlockQ5_0), &PortableKernels::quantize_rows_q5_0,
     &PortableKernels::dequantize_q5_0_f32, &PortableKernels::lora_q5_0},
    {"q6_k", formats::kQ6_KBlockValues, sizeof(formats::BlockQ6_K), &PortableKernels::quantize_rows_q6_k,
     &PortableKernels::dequantize_q6_k_f32, &PortableKernels::lora_q6_k},
};

// A factor quantized by the format's row quantizer, and its values as the
// format's dequantizer gives them.
struct QuantizedFactor {
  std::vector<unsigned char> blocks;
  std::vector<double> values;

  QuantizedFactor(const BlockFormat& format, const std::vector<bf16>& source, std::size_t rows, std::size_t cols)
      : blocks(rows * ((cols + format.block_values - 1) / format.block_values) * format.block_bytes, 0) {
    (kPortable.*format.quantize)(source.data(), rows, cols, blocks.data());
    std::vector<float> expanded(rows * cols);
    (kPortable.*format.dequantize)(blocks.data(), rows, cols, expanded.data());
    values.assign(expanded.begin(), expanded.end());
  }
};

// The dequantized factors stay close to the bf16 ones, so the update is not
// trivially small; a block read from the wrong row or column would land far
// outside the rounding bound.
void expect_close_to_source(const std::vector<double>& quantized, const std::vector<bf16>& source, const char* name) {
  double worst = 0;
  for (std::size_t i = 0; i < source.size(); ++i) worst = std::max(worst, std::fabs(quantized[i] - widen(source[i])));
  ASSERT_LT(worst, 0.1) << name << ": the quantizer itself is far off; the LoRA check would be vacuous";
}

// Ranks below one block, one block plus a part and exactly one block;
// output widths with a partial last block in every format (300 = 9 * 32 + 12
// = 256 + 44) and of whole blocks only (512).
TEST(LoraBlockFormats, MatchDoubleProductOfTheDequantizedFactors) {
  struct Shape {
    std::size_t rank, out_dim;
  };
  for (const BlockFormat& format : kBlockFormats) {
    KernelInputs inputs(52);
    for (const Shape shape : {Shape{8, 300}, Shape{40, 300}, Shape{32, 512}}) {
      const std::size_t rank = shape.rank;
      LoraCase c(inputs, 3, 40, rank, shape.out_dim);
      const QuantizedFactor a(format, c.a, c.in_dim, rank);
      const QuantizedFactor b(format, c.b, rank, c.out_dim);
      expect_close_to_source(a.values, c.a, format.name);
      expect_close_to_source(b.values, c.b, format.name);
      (kPortable.*format.lora)(c.x.data(), a.blocks.data(), b.blocks.data(), c.out.data(), c.n_tokens, c.in_dim,
                               rank, c.out_dim, c.work.data());
      SCOPED_TRACE(format.name);
      expect_update_matches_double(c, a.values, b.values);
      c.expect_guard_untouched();
    }
  }
}

// ---- int8 factors ---------------------------------------------------------

// A plain row-major int8 matrix, each row quantized by the activation rule.
struct I8Factor {
  std::vector<std::int8_t> codes;
  std::vector<float> scales;
  formats::I8Matrix record;
  std::vector<double> values;

  I8Factor(const std::vector<bf16>& source, std::size_t rows, std::size_t cols)
      : codes(rows * cols), scales(rows), record{rows, cols, nullptr, nullptr}, values(rows * cols) {
    for (std::size_t r = 0; r < rows; ++r) {
      scales[r] = formats::quantize_row_i8(source.data() + r * cols, cols, codes.data() + r * cols);
      for (std::size_t col = 0; col < cols; ++col) {
        values[r * cols + col] = static_cast<double>(scales[r]) * codes[r * cols + col];
      }
    }
    record.scales = scales.data();
    record.values = codes.data();
  }
};

TEST(LoraI8, MatchesDoubleProductOfTheDequantizedFactors) {
  KernelInputs inputs(53);
  for (std::size_t rank : {3u, 40u}) {
    LoraCase c(inputs, 3, 40, rank, 70);
    const I8Factor a(c.a, c.in_dim, rank);
    const I8Factor b(c.b, rank, c.out_dim);
    expect_close_to_source(a.values, c.a, "int8");
    kPortable.lora_i8(c.x.data(), &a.record, &b.record, c.out.data(), c.n_tokens, c.in_dim, rank, c.out_dim,
                      c.work.data());
    expect_update_matches_double(c, a.values, b.values);
    c.expect_guard_untouched();
  }
}

// ---- dot_rows_bf16 --------------------------------------------------------

// Only outputs first .. first + count - 1 are written; each is a dot product
// of dim / 4 rounded products and adds per lane plus three merging adds.
TEST(DotRows, WritesTheRangeWithinTheLaneBound) {
  KernelInputs inputs(54);
  for (std::size_t dim : {1u, 3u, 4u, 13u, 64u}) {
    const std::size_t row_count = 9, stride = dim + 3, first = 2, count = 5;
    const std::vector<bf16> rows = inputs.bf16_row(row_count * stride, 2.0f);
    const std::vector<bf16> vec = inputs.bf16_row(dim, 2.0f);
    std::vector<float> out(row_count, std::numeric_limits<float>::quiet_NaN());
    kPortable.dot_rows_bf16(rows.data(), stride, vec.data(), dim, first, count, out.data());
    for (std::size_t r = 0; r < row_count; ++r) {
      if (r < first || r >= first + count) {
        ASSERT_TRUE(std::isnan(out[r])) << "row " << r << " written";
        continue;
      }
      double expected = 0, magnitude = 0;
      for (std::size_t i = 0; i < dim; ++i) {
        const double product = static_cast<double>(widen(rows[r * stride + i])) * widen(vec[i]);
        expected += product;
        magnitude += std::fabs(product);
      }
      ASSERT_NEAR(out[r], expected, gamma_n(static_cast<double>(dim) / 4 + 4) * magnitude) << "dim " << dim;
    }
  }
}

}  // namespace
}  // namespace quorvel::kernels
