// The unembedding (logits) products over tables arranged by the layout
// helpers: on the grouped table they must equal the plain per-row products,
// padding rows give zero, and a range starting at a later group works alone.
#include <gtest/gtest.h>

#include <bit>
#include <string>
#include <vector>

#include "kernel_test_inputs.h"
#include "product_test_inputs.h"
#include "runtime/formats/unembed_layout.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::test {
namespace {

using kernels::KernelBase;
using kernels::PortableKernels;

const PortableKernels kKernels;
constexpr std::size_t kVocab = 40;  // two groups of 32 rows, the second mostly padding
constexpr std::size_t kPadded = 64;
constexpr float kXScale = 0.0091f;

std::uint32_t bits(float v) { return std::bit_cast<std::uint32_t>(v); }

using QuantizeRows = void (KernelBase::*)(const bf16*, size_t, size_t, void*) const;
using GemvF32 = void (KernelBase::*)(const void*, const std::int8_t*, float, float*, size_t, size_t) const;

struct UnembedFormat {
  const BlockLayout* layout;
  QuantizeRows quantize;
  GemvF32 gemv;
};

void PrintTo(const UnembedFormat& f, std::ostream* os) { *os << f.layout->name; }

class UnembedBlockTableTest : public testing::TestWithParam<UnembedFormat> {};

// The table is made as the embedding layer makes it: quantized row by row,
// then grouped into a zero-filled buffer of the padded row count.
TEST_P(UnembedBlockTableTest, GroupedTableGivesThePlainPerRowProducts) {
  const UnembedFormat& f = GetParam();
  for (std::size_t k : {96u, 100u, 300u, 4096u + 128u}) {
    KernelInputs inputs(static_cast<std::uint32_t>(k));
    const std::vector<bf16> weights = inputs.bf16_row(kVocab * k, 0.5f);
    const std::vector<std::int8_t> x = inputs.i8_row(k);
    const std::size_t row_bytes = f.layout->row_bytes(k);
    std::vector<std::uint8_t> plain(kVocab * row_bytes);
    (kKernels.*f.quantize)(weights.data(), kVocab, k, plain.data());
    std::vector<std::uint8_t> grouped(kPadded * row_bytes, 0);
    formats::group_blocks_for_unembed(plain.data(), kVocab, f.layout->blocks_per_row(k), f.layout->bytes,
                                      grouped.data());

    std::vector<float> logits(kPadded + 1, -5.0f);
    (kKernels.*f.gemv)(grouped.data(), x.data(), kXScale, logits.data(), kPadded, k);
    for (std::size_t r = 0; r < kVocab; ++r) {
      const RowProduct ref = reference_row_product(*f.layout, plain.data() + r * row_bytes, x.data(), kXScale, k);
      ASSERT_EQ(bits(logits[r]), bits(ref.defined)) << "k=" << k << " r=" << r;
      ASSERT_NEAR(logits[r], ref.exact, ref.bound) << "k=" << k << " r=" << r;
    }
    for (std::size_t r = kVocab; r < kPadded; ++r) EXPECT_EQ(logits[r], 0.0f) << "padding row " << r;
    EXPECT_EQ(logits[kPadded], -5.0f);

    std::vector<float> second_group(32);
    (kKernels.*f.gemv)(grouped.data() + 32 * row_bytes, x.data(), kXScale, second_group.data(), 32, k);
    for (std::size_t r = 0; r < 32; ++r) EXPECT_EQ(bits(second_group[r]), bits(logits[32 + r]));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Formats, UnembedBlockTableTest,
    testing::Values(UnembedFormat{&kQ8_0Layout, &KernelBase::quantize_rows_q8_0, &KernelBase::gemv_q8_0_f32},
                    UnembedFormat{&kQ4_0Layout, &KernelBase::quantize_rows_q4_0, &KernelBase::gemv_q4_0_f32},
                    UnembedFormat{&kQ5_0Layout, &KernelBase::quantize_rows_q5_0, &KernelBase::gemv_q5_0_f32},
                    UnembedFormat{&kQ6_KLayout, &KernelBase::quantize_rows_q6_k, &KernelBase::gemv_q6_k_f32}),
    [](const testing::TestParamInfo<UnembedFormat>& param_info) { return std::string(param_info.param.layout->name); });

// The int8 table: row-major rows tiled into 32 x 32 tiles, one scale per row;
// logits ((float)sum * x_scale) * row_scale with the sum exact.
TEST(UnembedInt8Table, TiledTableGivesThePlainPerRowProducts) {
  for (std::size_t k : {96u, 4096u + 128u}) {
    KernelInputs inputs(static_cast<std::uint32_t>(k));
    const std::vector<std::int8_t> plain = inputs.i8_row(kVocab * k);
    const std::vector<std::int8_t> x = inputs.i8_row(k);
    std::vector<float> scales = inputs.f32_row(kVocab, 1e-4f, 2e-2f);
    scales.resize(kPadded, 0.0f);
    std::vector<std::int8_t> tiled(kPadded * k, 0);
    formats::tile_i8_for_unembed(plain.data(), kVocab, k, tiled.data());

    std::vector<float> logits(kPadded + 1, -5.0f);
    kKernels.gemv_i8_f32(tiled.data(), scales.data(), x.data(), kXScale, logits.data(), kPadded, k);
    for (std::size_t r = 0; r < kVocab; ++r) {
      std::int64_t sum = 0;
      for (std::size_t c = 0; c < k; ++c) sum += plain[r * k + c] * x[c];
      const float expected = (static_cast<float>(sum) * kXScale) * scales[r];
      ASSERT_EQ(bits(logits[r]), bits(expected)) << "k=" << k << " r=" << r;
    }
    for (std::size_t r = kVocab; r < kPadded; ++r) EXPECT_EQ(logits[r], 0.0f);
    EXPECT_EQ(logits[kPadded], -5.0f);

    std::vector<float> second_tile_row(32);
    kKernels.gemv_i8_f32(tiled.data() + 32 * k, scales.data() + 32, x.data(), kXScale, second_tile_row.data(), 32, k);
    for (std::size_t r = 0; r < 32; ++r) EXPECT_EQ(bits(second_tile_row[r]), bits(logits[32 + r]));
  }
}

}  // namespace
}  // namespace quorvel::test
