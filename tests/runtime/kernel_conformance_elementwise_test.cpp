// Conformance of the non-product operations of every SIMD kernel set with
// the portable set: norms, quantizers, rotary embedding, gates, add,
// attention, the bf16 row dot product, the q1 dequantizers and the LoRA side
// products give identical bytes over named edge sizes (one vector, a tail,
// many vectors plus a tail, odd row counts, the attention block boundaries),
// at unaligned sub-range pointers, and on extreme values: zeros, values that
// overflow the bf16 range, infinities, and exact rounding ties.
#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "conformance_support.h"
#include "kernel_test_inputs.h"
#include "product_test_inputs.h"
#include "runtime/formats/i8_matrix.h"
#include "runtime/formats/q8_0.h"

namespace quorvel::test {
namespace {

using kernels::KernelBase;

// Rows start this many elements into their buffer, so that every pointer a
// kernel gets is off its 128-byte alignment, and the margins on both sides
// show writes outside the range.
constexpr std::size_t kOffset = 3;

std::string sizes(const char* op, std::size_t rows, std::size_t dim) {
  return std::string(op) + " rows=" + std::to_string(rows) + " dim=" + std::to_string(dim);
}

// Replaces some elements of a bf16 buffer with the values that stress the
// float steps: zeros of both signs, infinities, values at and beyond the
// bf16 range, subnormals. Every `every`-th element, cycling through them.
void plant_extremes(std::vector<bf16>& values, std::size_t every) {
  const float extremes[] = {0.0f,
                            -0.0f,
                            std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity(),
                            3.0e38f,
                            -3.0e38f,
                            1.0e-39f,
                            100.0f,
                            -100.0f};
  std::size_t k = 0;
  for (std::size_t i = 0; i < values.size(); i += every, ++k) {
    values[i] = narrow_nearest_even(extremes[k % std::size(extremes)]);  // keeps the infinities
  }
}

class ElementwiseConformance : public KernelConformanceTest {
 protected:
  // A buffer of kOffset + n + kOffset values with random contents.
  std::vector<bf16> padded_row(std::size_t n, float magnitude) { return inputs_.bf16_row(n + 2 * kOffset, magnitude); }

  // The gated activation over odd row counts and vector tails. Gates from
  // -100 to 100 reach both clamps of the exponential (-gate above 88 and below
  // -87); planted infinities and overflowing products clamp.
  void check_gate(const char* name, void (KernelBase::*gate_op)(const bf16*, bf16*, size_t, size_t) const) {
    for (std::size_t dim : {4, 12, 128, 6912}) {
      for (std::size_t rows = 1; rows <= 9; ++rows) {
        std::vector<bf16> gate = padded_row(rows * dim, 100.0f);
        std::vector<bf16> expected = padded_row(rows * dim, 4.0f);
        if (rows == 3) {
          plant_extremes(gate, 7);
          plant_extremes(expected, 5);
        }
        std::vector<bf16> actual = expected;
        (portable().*gate_op)(gate.data() + kOffset, expected.data() + kOffset, rows, dim);
        (simd().*gate_op)(gate.data() + kOffset, actual.data() + kOffset, rows, dim);
        expect_identical(expected, actual, sizes(name, rows, dim));
      }
    }
  }

  KernelInputs inputs_{7u};
};

// ---- Norms and quantizers ----

// Row groups of four and the rows left over; lengths in whole vectors, with
// a tail, and (7, 130) beyond the multiple of 4 the layers keep, which the
// SIMD sets still sum in the portable lanes.
TEST_P(ElementwiseConformance, RmsNormOverDimsAndRowCounts) {
  for (std::size_t dim : {4, 7, 12, 128, 130, 132, 2048, 2560, 6912, 8192}) {
    for (std::size_t rows = 1; rows <= 9; ++rows) {
      const std::vector<bf16> weight = inputs_.bf16_row(dim, 2.0f);
      std::vector<bf16> expected = padded_row(rows * dim, 3.0f);
      if (rows == 7) plant_extremes(expected, 11);
      std::vector<bf16> actual = expected;
      portable().rms_norm_bf16(expected.data() + kOffset, weight.data(), rows, dim, 1e-6f);
      simd().rms_norm_bf16(actual.data() + kOffset, weight.data(), rows, dim, 1e-6f);
      expect_identical(expected, actual, sizes("rms_norm_bf16", rows, dim));
    }
  }
}

// Rows of zeros (inv = 1000), rows whose squares overflow to infinity, and
// outputs beyond the bf16 range that must clamp.
TEST_P(ElementwiseConformance, RmsNormOnZeroAndOverflowingRows) {
  const std::size_t dim = 256;
  std::vector<bf16> weight(dim, narrow_saturate(3.0e38f));
  std::vector<bf16> expected(3 * dim, bf16{0});
  for (std::size_t i = dim; i < 2 * dim; ++i) expected[i] = narrow_saturate(i % 2 ? 2.0e30f : -1.0f);
  for (std::size_t i = 2 * dim; i < 3 * dim; ++i) expected[i] = narrow_saturate(i % 3 ? 0.5f : -4.0f);
  std::vector<bf16> actual = expected;
  portable().rms_norm_bf16(expected.data(), weight.data(), 3, dim, 1e-6f);
  simd().rms_norm_bf16(actual.data(), weight.data(), 3, dim, 1e-6f);
  expect_identical(expected, actual, "rms_norm_bf16 zero, overflowing and clamped rows");
}

TEST_P(ElementwiseConformance, RmsNormQuantizeOverDimsAndRowCounts) {
  for (std::size_t dim : {4, 128, 132, 2048, 2560, 8192}) {
    for (std::size_t rows = 1; rows <= 9; ++rows) {
      const std::vector<bf16> weight = inputs_.bf16_row(dim, 1.5f);
      std::vector<bf16> x_expected = padded_row(rows * dim, 2.0f);
      if (rows == 5) plant_extremes(x_expected, 13);
      std::vector<bf16> x_actual = x_expected;
      std::vector<std::int8_t> q_expected = sentinel_buffer<std::int8_t>(rows * dim + 2 * kOffset);
      std::vector<std::int8_t> q_actual = q_expected;
      std::vector<float> scales_expected = sentinel_buffer<float>(rows + 2), scales_actual = scales_expected;
      portable().rms_norm_quantize_i8(x_expected.data() + kOffset, weight.data(), q_expected.data() + kOffset,
                                      scales_expected.data() + 1, rows, dim, 1e-5f);
      simd().rms_norm_quantize_i8(x_actual.data() + kOffset, weight.data(), q_actual.data() + kOffset,
                                  scales_actual.data() + 1, rows, dim, 1e-5f);
      const std::string what = sizes("rms_norm_quantize_i8", rows, dim);
      expect_identical(x_expected, x_actual, what + " rows");
      expect_identical(q_expected, q_actual, what + " codes");
      expect_identical(scales_expected, scales_actual, what + " scales");
    }
  }
}

// Any row length (the quantizer has no multiple to keep), rows of zeros (the
// 1e-5 floor), rows with infinities (NaN products give code 0), and exact
// ties: with amax 127 the multiplier is 1 and k + 0.5 must round to even.
TEST_P(ElementwiseConformance, QuantizeRowsI8) {
  auto check = [&](const std::vector<bf16>& x, std::size_t rows, std::size_t dim, const std::string& what) {
    std::vector<std::int8_t> q_expected = sentinel_buffer<std::int8_t>(rows * dim + 2 * kOffset), q_actual = q_expected;
    std::vector<float> scales_expected = sentinel_buffer<float>(rows + 2), scales_actual = scales_expected;
    portable().quantize_rows_i8(x.data() + kOffset, q_expected.data() + kOffset, scales_expected.data() + 1, rows, dim);
    simd().quantize_rows_i8(x.data() + kOffset, q_actual.data() + kOffset, scales_actual.data() + 1, rows, dim);
    expect_identical(q_expected, q_actual, what + " codes");
    expect_identical(scales_expected, scales_actual, what + " scales");
  };
  for (std::size_t dim : {1, 7, 8, 9, 15, 16, 17, 31, 33, 128, 2048, 2050, 8192}) {
    for (std::size_t rows : {1, 2, 3, 5}) {
      std::vector<bf16> x = padded_row(rows * dim, 4.0f);
      check(x, rows, dim, sizes("quantize_rows_i8", rows, dim));
      plant_extremes(x, 5);
      check(x, rows, dim, sizes("quantize_rows_i8 extremes", rows, dim));
    }
  }
  std::vector<bf16> ties(2 * kOffset + 300, bf16{0});
  for (std::size_t i = 0; i < 254; ++i) ties[kOffset + i] = narrow_saturate(static_cast<float>(i) * 0.5f - 63.5f);
  ties[kOffset + 254] = narrow_saturate(127.0f);
  check(ties, 1, 255, "quantize_rows_i8 ties");
  check(ties, 1, 300, "quantize_rows_i8 zero tail");
}

// Whole blocks, a single short block, blocks plus a tail; all-zero blocks
// (d = 0, code bytes left as they were), infinities and ties.
TEST_P(ElementwiseConformance, QuantizeRowsQ8_0) {
  for (std::size_t cols : {32, 20, 40, 64, 100, 1000, 2560, 4113}) {
    for (std::size_t rows : {1, 2, 3}) {
      for (bool extreme : {false, true}) {
        std::vector<bf16> x = padded_row(rows * cols, 2.0f);
        if (extreme) {
          plant_extremes(x, 7);
          for (std::size_t i = kOffset; i < kOffset + 32 && i < kOffset + cols; ++i) x[i] = bf16{0};
        }
        const std::size_t bytes = rows * ((cols + 31) / 32) * sizeof(formats::BlockQ8_0);
        std::vector<std::uint8_t> expected = sentinel_buffer<std::uint8_t>(bytes), actual = expected;
        portable().quantize_rows_q8_0(x.data() + kOffset, rows, cols, expected.data());
        simd().quantize_rows_q8_0(x.data() + kOffset, rows, cols, actual.data());
        expect_identical(expected, actual, sizes("quantize_rows_q8_0", rows, cols) + (extreme ? " extremes" : ""));
      }
    }
  }
}

// ---- Rotary embedding, gates and add ----

// Half-widths of 4 (below one vector), 32 and 64 (the real head sizes) and
// 36 (vectors plus a tail); rows of one head inside rows of three heads, as
// the layer passes them.
TEST_P(ElementwiseConformance, RopeOverHeadSizesAndRows) {
  for (std::size_t dim : {0, 1, 8, 64, 72, 128}) {
    for (std::size_t rows = 1; rows <= 9; ++rows) {
      const std::size_t stride = 3 * dim + 1;
      const std::vector<float> cos = inputs_.f32_row(rows * dim + 1, -1.0f, 1.0f);
      const std::vector<float> sin = inputs_.f32_row(rows * dim + 1, -1.0f, 1.0f);
      std::vector<bf16> expected = padded_row(rows * stride + dim, 50.0f);
      if (rows == 4) plant_extremes(expected, 9);
      std::vector<bf16> actual = expected;
      // The second head of each row, and tables one float past their start.
      portable().rope_bf16(expected.data() + kOffset + dim, cos.data() + 1, sin.data() + 1, rows, stride, dim);
      simd().rope_bf16(actual.data() + kOffset + dim, cos.data() + 1, sin.data() + 1, rows, stride, dim);
      expect_identical(expected, actual, sizes("rope_bf16", rows, dim));
    }
  }
}

// A single rounding more or less in the f32 result moves the narrowed bf16
// only near a rounding boundary, so the fused order is checked over a
// million rotated pairs.
TEST_P(ElementwiseConformance, RopeKeepsTheFusedOrderOverManyRows) {
  const std::size_t rows = 8192, dim = 128;
  const std::vector<float> cos = inputs_.f32_row(rows * dim, -1.0f, 1.0f);
  const std::vector<float> sin = inputs_.f32_row(rows * dim, -1.0f, 1.0f);
  std::vector<bf16> expected = inputs_.bf16_row(rows * dim, 50.0f);
  std::vector<bf16> actual = expected;
  portable().rope_bf16(expected.data(), cos.data(), sin.data(), rows, dim, dim);
  simd().rope_bf16(actual.data(), cos.data(), sin.data(), rows, dim, dim);
  expect_identical(expected, actual, sizes("rope_bf16", rows, dim));
}

TEST_P(ElementwiseConformance, Relu2Gate) { check_gate("relu2_mul_bf16", &KernelBase::relu2_mul_bf16); }

// The ARM sets take silu's reciprocal from the processor's estimate and one
// Newton step, a deliberate difference; kernel_conformance_arm_test checks
// them within a bound. Every other set divides and must match exactly.
TEST_P(ElementwiseConformance, SiluGate) {
  if (std::string(GetParam()->name).rfind("neon", 0) == 0) GTEST_SKIP() << "silu uses a reciprocal estimate here";
  check_gate("silu_mul_bf16", &KernelBase::silu_mul_bf16);
}

// Every tail length up to five AVX-512 vectors, and a long row; sums beyond
// the bf16 range clamp to the largest finite value.
TEST_P(ElementwiseConformance, AddOverEveryTailLength) {
  std::vector<std::size_t> lengths;
  for (std::size_t n = 1; n <= 40; ++n) lengths.push_back(n);
  lengths.push_back(8192 + 5);
  for (std::size_t n : lengths) {
    std::vector<bf16> src = padded_row(n, 3.0e38f);
    std::vector<bf16> expected = padded_row(n, 3.0e38f);
    if (n > 20) plant_extremes(src, 3);
    std::vector<bf16> actual = expected;
    portable().add_bf16(src.data() + kOffset, expected.data() + kOffset, n);
    simd().add_bf16(src.data() + kOffset, actual.data() + kOffset, n);
    expect_identical(expected, actual, sizes("add_bf16", 1, n));
  }
}

// ---- Attention and the row dot product ----

// One head of an attention step laid out as the layer passes it: query and
// output rows inside rows of three heads, keys inside rows of two KV heads
// (position-major), values dimension-major with room for more positions
// than are filled.
struct AttentionCase {
  std::size_t n_q, kv_len, head_dim, q_stride, k_stride, v_stride;
  std::vector<bf16> q, k, v;

  AttentionCase(KernelInputs& inputs, std::size_t queries, std::size_t positions, std::size_t dim, float magnitude)
      : n_q(queries),
        kv_len(positions),
        head_dim(dim),
        q_stride(3 * dim),
        k_stride(2 * dim),
        v_stride(positions + 5),
        q(inputs.bf16_row(queries * q_stride + kOffset, magnitude)),
        k(inputs.bf16_row(positions * k_stride + kOffset, magnitude)),
        v(inputs.bf16_row(dim * v_stride + kOffset, 2.0f)) {}

  // The second head of the query rows, the second KV head.
  std::vector<bf16> run(const KernelBase& set) const {
    std::vector<bf16> out = sentinel_buffer<bf16>(n_q * q_stride + kOffset);
    std::vector<float> work(64 + head_dim);
    set.attention_bf16(q.data() + kOffset + head_dim, q_stride, k.data() + kOffset + head_dim, k_stride,
                       v.data() + kOffset, v_stride, out.data() + kOffset + head_dim, q_stride, n_q, kv_len, head_dim,
                       work.data());
    return out;
  }
};

std::string attention_case(std::size_t n_q, std::size_t kv_len, std::size_t head_dim, float magnitude) {
  return "attention_bf16 n_q=" + std::to_string(n_q) + " kv_len=" + std::to_string(kv_len) +
         " head_dim=" + std::to_string(head_dim) + " magnitude=" + std::to_string(magnitude);
}

// Decoding (one query) and prefill (up to 9 queries) around the 64-position
// block boundaries and the four-score exponential groups; magnitude 8 spreads
// the scores by far more than 87 so that the clamp of the polynomial
// exponential and the rescaling both act. head_dim 72 leaves a partial tile.
TEST_P(ElementwiseConformance, AttentionOverBlockBoundaries) {
  for (std::size_t head_dim : {64, 128, 72}) {
    for (std::size_t kv_len : {1, 2, 3, 4, 5, 63, 64, 65, 130, 1000}) {
      for (std::size_t n_q : {1, 2, 3, 4, 5, 6, 7, 8, 9}) {
        if (n_q > kv_len || (kv_len == 1000 && n_q > 2)) continue;
        for (float magnitude : {1.0f, 8.0f}) {
          const AttentionCase c(inputs_, n_q, kv_len, head_dim, magnitude);
          expect_identical(c.run(portable()), c.run(simd()), attention_case(n_q, kv_len, head_dim, magnitude));
        }
      }
    }
  }
}

// A long prefill: 128 queries over 300 positions.
TEST_P(ElementwiseConformance, AttentionLongPrefill) {
  const AttentionCase c(inputs_, 128, 300, 64, 4.0f);
  expect_identical(c.run(portable()), c.run(simd()), attention_case(128, 300, 64, 4.0f));
}

// Values that overflow the bf16 range must clamp in both sets.
TEST_P(ElementwiseConformance, AttentionWithExtremeValues) {
  AttentionCase c(inputs_, 3, 70, 64, 2.0f);
  plant_extremes(c.v, 13);
  expect_identical(c.run(portable()), c.run(simd()), "attention_bf16 with extreme values");
}

// Every row count around the group widths, lengths with and without a tail
// of fewer than eight elements, and a range that starts past row 0.
TEST_P(ElementwiseConformance, DotRows) {
  for (std::size_t dim : {1, 3, 4, 7, 8, 9, 64, 128, 130}) {
    for (std::size_t count : {1, 2, 3, 5, 7, 8, 9, 15, 16, 17, 33, 64}) {
      const std::size_t first = count % 3, stride = dim + 5;
      const std::vector<bf16> rows = inputs_.bf16_row((first + count) * stride + kOffset, 4.0f);
      const std::vector<bf16> vec = inputs_.bf16_row(dim + kOffset, 4.0f);
      std::vector<float> expected = sentinel_buffer<float>(first + count + kOffset), actual = expected;
      portable().dot_rows_bf16(rows.data() + kOffset, stride, vec.data() + kOffset, dim, first, count, expected.data());
      simd().dot_rows_bf16(rows.data() + kOffset, stride, vec.data() + kOffset, dim, first, count, actual.data());
      expect_identical(expected, actual, sizes("dot_rows_bf16", count, dim));
    }
  }
}

// ---- Embedding lookups of the q1 formats ----

// Scales whose products overflow (2 * 3e38 for code 3 of q1.58), infinities
// (0 * inf is NaN), subnormals and zeros of both signs, and for q1.58 a NaN.
// A NaN q1_0_128 scale is left out: the portable (+1 or -1) * d compiles to
// a negation in optimized builds and to a product in sanitized ones, which
// differ in the NaN's sign bit, so that bit is not defined by it.
TEST_P(ElementwiseConformance, DequantizeQ1Rows) {
  using Dequantize = void (KernelBase::*)(const void*, size_t, bf16*) const;
  struct Format {
    const BlockLayout* layout;
    Dequantize dequantize;
    std::vector<float> scales;
  };
  const float inf = std::numeric_limits<float>::infinity();
  const Format formats[] = {
      {&kQ1_0Layout, &KernelBase::dequantize_q1_0_bf16, {inf, -inf, 3.0e38f, -3.0e38f, 1.0e-40f, 0.0f, -0.0f}},
      {&kQ1_58Layout,
       &KernelBase::dequantize_q1_58_bf16,
       {std::numeric_limits<float>::quiet_NaN(), inf, -inf, 3.0e38f, -3.0e38f, 1.0e-40f, 0.0f, -0.0f}}};
  for (const Format& format : formats) {
    const BlockLayout& layout = *format.layout;
    for (std::size_t n : {1, 128, 130, 256, 2048, 2560}) {
      std::vector<std::uint8_t> blocks = random_block_rows(layout, 1, n, static_cast<std::uint32_t>(n), 4.0f);
      for (std::size_t b = 0; b < blocks.size() / layout.bytes; b += 2) {
        layout.set_scale(blocks.data() + b * layout.bytes, format.scales[b / 2 % format.scales.size()]);
      }
      const std::size_t values = layout.blocks_per_row(n) * 128;
      std::vector<bf16> expected = sentinel_buffer<bf16>(values + 2 * kOffset), actual = expected;
      (portable().*format.dequantize)(blocks.data(), n, expected.data() + kOffset);
      (simd().*format.dequantize)(blocks.data(), n, actual.data() + kOffset);
      expect_identical(expected, actual, std::string("dequantize ") + layout.name + " n=" + std::to_string(n));
    }
  }
}

// ---- LoRA side products ----

// One LoRA case: x rows, the two factors in one storage format (made from
// random bf16 matrices by the portable quantizers), and the layer output.
class LoraConformance : public ElementwiseConformance {
 protected:
  using Product = void (KernelBase::*)(const bf16*, const void*, const void*, bf16*, size_t, size_t, size_t, size_t,
                                       float*) const;
  using Quantize = void (KernelBase::*)(const bf16*, size_t, size_t, void*) const;

  // A factor of `rows` x `cols` in the format of `layout` (bf16 when null).
  struct Factor {
    std::vector<bf16> plain;
    std::vector<std::uint8_t> blocks;
    std::vector<std::int8_t> codes;
    std::vector<float> scales;
    formats::I8Matrix matrix{};
    const void* data = nullptr;
  };

  void make_factor(Factor& f, std::size_t rows, std::size_t cols, const BlockLayout* layout, Quantize quantize,
                   bool int8) {
    f.plain = inputs_.bf16_row(rows * cols, 0.5f);
    f.data = f.plain.data();
    if (int8) {
      f.codes.resize(rows * cols);
      f.scales.resize(rows);
      portable().quantize_rows_i8(f.plain.data(), f.codes.data(), f.scales.data(), rows, cols);
      f.matrix = formats::I8Matrix{rows, cols, f.scales.data(), f.codes.data()};
      f.data = &f.matrix;
    } else if (layout != nullptr) {
      f.blocks.assign(rows * layout->row_bytes(cols), 0);
      (portable().*quantize)(f.plain.data(), rows, cols, f.blocks.data());
      f.data = f.blocks.data();
    }
  }

  void check(const char* name, Product product, const BlockLayout* layout, Quantize quantize, bool int8) {
    for (std::size_t rank : {1, 8, 16, 40, 64, 300}) {
      for (const auto& [in_dim, out_dim] : {std::pair<std::size_t, std::size_t>{128, 200}, {2048, 2560}}) {
        const std::size_t tokens = 1 + rank % 3;
        Factor a, b;
        make_factor(a, in_dim, rank, layout, quantize, int8);
        make_factor(b, rank, out_dim, layout, quantize, int8);
        const std::vector<bf16> x = inputs_.bf16_row(tokens * in_dim + kOffset, 1.0f);
        std::vector<bf16> expected = padded_row(tokens * out_dim, 2.0f), actual = expected;
        // The rank floats of h, then guards that neither set may write.
        std::vector<float> work_expected = sentinel_buffer<float>(rank + 4), work_actual = work_expected;
        (portable().*product)(x.data() + kOffset, a.data, b.data, expected.data() + kOffset, tokens, in_dim, rank,
                              out_dim, work_expected.data());
        (simd().*product)(x.data() + kOffset, a.data, b.data, actual.data() + kOffset, tokens, in_dim, rank, out_dim,
                          work_actual.data());
        const std::string what = std::string(name) + " rank=" + std::to_string(rank) + " in=" + std::to_string(in_dim) +
                                 " out=" + std::to_string(out_dim);
        expect_identical(expected, actual, what);
        expect_identical(work_expected, work_actual, what + " work");
      }
    }
  }
};

TEST_P(LoraConformance, Bf16Factors) { check("lora_bf16", &KernelBase::lora_bf16, nullptr, nullptr, false); }

TEST_P(LoraConformance, Int8Factors) { check("lora_i8", &KernelBase::lora_i8, nullptr, nullptr, true); }

TEST_P(LoraConformance, BlockFactors) {
  check("lora_q8_0", &KernelBase::lora_q8_0, &kQ8_0Layout, &KernelBase::quantize_rows_q8_0, false);
  check("lora_q4_0", &KernelBase::lora_q4_0, &kQ4_0Layout, &KernelBase::quantize_rows_q4_0, false);
  check("lora_q5_0", &KernelBase::lora_q5_0, &kQ5_0Layout, &KernelBase::quantize_rows_q5_0, false);
  check("lora_q6_k", &KernelBase::lora_q6_k, &kQ6_KLayout, &KernelBase::quantize_rows_q6_k, false);
}

INSTANTIATE_KERNEL_CONFORMANCE(ElementwiseConformance);
INSTANTIATE_KERNEL_CONFORMANCE(LoraConformance);

}  // namespace
}  // namespace quorvel::test
