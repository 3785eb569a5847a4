// The format table against the kernels it names: every block format's row
// quantizer fills exactly the bytes its layout gives a row (for widths that
// end inside a block, too), and its texts find it again.
#include "runtime/formats/format_table.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/scalar/portable_kernels.h"

namespace quorvel::formats {
namespace {

const kernels::PortableKernels kKernels;
constexpr std::uint8_t kGuard = 0xA7;

std::vector<bf16> ramp(std::size_t n) {
  std::vector<bf16> values(n);
  for (std::size_t i = 0; i < n; ++i) values[i] = narrow_nearest_even(0.25f * static_cast<float>(i % 13) - 1.5f);
  return values;
}

TEST(FormatTable, EachRowQuantizerWritesExactlyTheRowsItsLayoutGives) {
  for (const StorageFormat& format : kStorageFormats) {
    if (!format.is_blocks()) continue;
    for (std::uint64_t cols : {std::uint64_t{1}, format.layout.block_values - 1, format.layout.block_values,
                               3 * format.layout.block_values + 5}) {
      if (cols == 0) continue;
      SCOPED_TRACE(std::string(format.name) + ", " + std::to_string(cols) + " values a row");
      const std::uint64_t rows = 3, row_bytes = format.layout.row_bytes(cols);
      const std::vector<bf16> x = ramp(rows * cols);
      std::vector<std::uint8_t> together(rows * row_bytes + 64, kGuard);
      (kKernels.*format.quantize_rows)(x.data(), rows, cols, together.data());
      // Row by row at the offsets the layout gives: the same bytes, and
      // nothing written past the last row.
      std::vector<std::uint8_t> one_by_one(together.size(), kGuard);
      for (std::uint64_t r = 0; r < rows; ++r) {
        (kKernels.*format.quantize_rows)(x.data() + r * cols, 1, cols, one_by_one.data() + r * row_bytes);
      }
      EXPECT_EQ(together, one_by_one);
      for (std::size_t i = rows * row_bytes; i < together.size(); ++i) ASSERT_EQ(together[i], kGuard) << "byte " << i;
    }
  }
}

TEST(FormatTable, EveryTextFindsItsEntry) {
  for (const StorageFormat& format : kStorageFormats) {
    for (std::string_view text : {format.name, format.alias}) {
      if (text.empty()) continue;
      EXPECT_EQ(find_storage_format(text), &format) << text;
    }
    EXPECT_EQ(find_storage_format(format.format), &format);
    EXPECT_NE(format.lora, nullptr) << format.name;
  }
  EXPECT_EQ(find_storage_format(QuantFormat::TERNARY), nullptr);
  EXPECT_EQ(find_storage_format(std::string_view("ternary")), nullptr);
  EXPECT_EQ(find_storage_format(std::string_view("Q8_0")), nullptr) << "the parser lower-cases, the table does not";
}

TEST(FormatTable, WeightFormatsMatchTheirBlocksAndRowSizes) {
  EXPECT_EQ(kQ1_0Weights.layout.row_bytes(256), 2 * sizeof(BlockQ1_0));
  EXPECT_EQ(kQ1_58Weights.layout.row_bytes(128), sizeof(BlockQ1_58));
  // q8_0 rows end in a partly used block.
  EXPECT_EQ(kQ8_0Weights.layout.row_bytes(33), 2 * sizeof(BlockQ8_0));
  EXPECT_EQ(kQ8_0Weights.layout.row_bytes(~std::uint64_t{0}), kSizeOverflow);
}

}  // namespace
}  // namespace quorvel::formats
