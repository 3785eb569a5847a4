// Reading one linear layer's record of the LoRA adapter file: how many bytes
// it takes, its messages, the formats it refuses, and that a failed record
// leaves no half adapter behind.
#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "layer_test_support.h"
#include "layers/auto_q8_0_linear.h"
#include "layers/lora_factor.h"

namespace quorvel::layers {
namespace {

using quorvel::testing::binary_stream;
using quorvel::testing::ByteWriter;
using quorvel::testing::random_bf16;
using quorvel::testing::same_bits;

constexpr std::uint64_t kIn = 64;
constexpr std::uint64_t kOut = 96;
constexpr std::uint64_t kRank = 4;
constexpr std::uint64_t kFactorABytes = kIn * kRank * 2;
constexpr std::uint64_t kFactorBBytes = kRank * kOut * 2;

class LoraRecordTest : public ::testing::Test {
 protected:
  LoraRecordTest() {
    ByteWriter w;
    quorvel::testing::write_bf16(w, random_bf16(rng, kIn * kOut, -0.1f, 0.1f));
    weights = w.bytes();
  }
  std::unique_ptr<AutoQ8_0Linear> layer(QuantFormat lora_format) const {
    auto stream = binary_stream(weights);
    return std::make_unique<AutoQ8_0Linear>(stream, kIn, kOut, 1, false, lora_format);
  }
  // A target record with this flag; A and B follow unless the flag is 0.
  std::string record(std::uint8_t flag) {
    ByteWriter w;
    w.u8(flag);
    if (flag != 0) {
      quorvel::testing::write_bf16(w, random_bf16(rng, kIn * kRank));
      quorvel::testing::write_bf16(w, random_bf16(rng, kRank * kOut));
    }
    return w.bytes();
  }
  // One token's output with and without the input rows for the adapter.
  struct Outputs {
    std::vector<bf16> without_rows;
    std::vector<bf16> with_rows;
  };
  Outputs forward(AutoLinear& linear) {
    Outputs o{std::vector<bf16>(kOut), std::vector<bf16>(kOut)};
    linear.forward(codes.data(), scales.data(), 1, o.without_rows.data(), nullptr);
    linear.forward(codes.data(), scales.data(), 1, o.with_rows.data(), x.data());
    return o;
  }

  std::mt19937 rng{515};
  std::string weights;
  std::vector<std::int8_t> codes = quorvel::testing::random_codes(rng, kIn);
  std::vector<float> scales = quorvel::testing::random_scales(rng, 1);
  std::vector<bf16> x = random_bf16(rng, kIn);
};

TEST_F(LoraRecordTest, AZeroFlagIsOneByteAndNoAdapter) {
  auto linear = layer(QuantFormat::Q8_0);
  auto stream = binary_stream(record(0) + record(1));
  linear->load_lora(stream, kRank);
  EXPECT_EQ(stream.tellg(), 1);
  EXPECT_FALSE(linear->has_lora());
  const Outputs o = forward(*linear);
  EXPECT_TRUE(same_bits(o.with_rows, o.without_rows));
}

TEST_F(LoraRecordTest, AnyOtherFlagReadsBothFactorsAndNothingMore) {
  const std::vector<bf16> plain = forward(*layer(QuantFormat::NONE)).without_rows;
  for (int flag : {1, 2, 0x80, 0xFF}) {
    auto linear = layer(QuantFormat::NONE);
    auto stream = binary_stream(record(static_cast<std::uint8_t>(flag)) + record(0));
    linear->load_lora(stream, kRank);
    EXPECT_EQ(static_cast<std::uint64_t>(stream.tellg()), 1 + kFactorABytes + kFactorBBytes) << flag;
    EXPECT_TRUE(linear->has_lora());
    EXPECT_EQ(linear->lora_rank(), kRank);
    // Without input rows the adapter is skipped; with them it corrects.
    const Outputs o = forward(*linear);
    EXPECT_TRUE(same_bits(o.without_rows, plain));
    EXPECT_FALSE(same_bits(o.with_rows, plain));
  }
}

// A short read throws the missing part's message without a report, and the
// layer keeps running without an adapter.
TEST_F(LoraRecordTest, ShortRecordsNameTheMissingPart) {
  const std::string full = record(1);
  const std::vector<std::pair<std::size_t, std::string>> cuts = {
      {0, "Failed to read LoRA has_lora flag"},
      {1, "Failed to read LoRA A matrix"},
      {1 + kFactorABytes - 1, "Failed to read LoRA A matrix"},
      {1 + kFactorABytes, "Failed to read LoRA B matrix"},
      {full.size() - 1, "Failed to read LoRA B matrix"},
  };
  for (const auto& [length, message] : cuts) {
    auto linear = layer(QuantFormat::Q8_0);
    auto stream = binary_stream(full.substr(0, length));
    quorvel::testing::expect_refused([&] { linear->load_lora(stream, kRank); }, message);
    EXPECT_FALSE(linear->has_lora()) << length;
    const Outputs o = forward(*linear);
    EXPECT_TRUE(same_bits(o.with_rows, o.without_rows)) << length;
  }
}

// The factors are read before they are converted, so a refused format has
// consumed the whole record; a zero flag never reaches the conversion.
TEST_F(LoraRecordTest, FormatsWithoutLoraStorageAreRefusedAtLoad) {
  for (auto code : {QuantFormat::TERNARY, static_cast<QuantFormat>(7), static_cast<QuantFormat>(255)}) {
    auto linear = layer(code);
    const std::string bytes = record(1);
    auto stream = binary_stream(bytes);
    quorvel::testing::expect_refused([&] { linear->load_lora(stream, kRank); },
                                     "Unsupported LoRA quantization format in this build");
    EXPECT_EQ(static_cast<std::uint64_t>(stream.tellg()), bytes.size());
    EXPECT_FALSE(linear->has_lora());

    auto without = binary_stream(record(0));
    linear->load_lora(without, kRank);
    EXPECT_FALSE(linear->has_lora());
  }
}

TEST_F(LoraRecordTest, OnlyTheSixStoragesHaveASideProduct) {
  for (auto code : {QuantFormat::NONE, QuantFormat::INT8, QuantFormat::Q4_0, QuantFormat::Q5_0, QuantFormat::Q6_K,
                    QuantFormat::Q8_0}) {
    EXPECT_NE(lora_product(code), nullptr);
  }
  for (auto code : {QuantFormat::TERNARY, static_cast<QuantFormat>(7)}) {
    quorvel::testing::expect_refused([&] { lora_product(code); }, "Unsupported LoRA quantization format in forward");
  }
}

// A rank whose scratch or factor sizes overflow 64 bits asks for more than
// any allocation can give, instead of a wrapped small size.
TEST_F(LoraRecordTest, OverflowingSizesFailToAllocate) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "AddressSanitizer ends the process on an impossible allocation instead of throwing";
#endif
  for (std::uint64_t rank : {std::uint64_t{1} << 62, std::uint64_t{1} << 60}) {
    auto linear = layer(QuantFormat::Q8_0);
    auto stream = binary_stream(record(1));
    EXPECT_THROW(linear->load_lora(stream, rank), std::bad_alloc);
    EXPECT_FALSE(linear->has_lora());
  }
}

// Rank 0: both factors are empty and the record is its flag byte alone.
TEST_F(LoraRecordTest, RankZeroReadsOnlyTheFlagAndAddsNothing) {
  auto linear = layer(QuantFormat::INT8);
  auto stream = binary_stream(record(0).replace(0, 1, 1, '\x01') + "next");
  linear->load_lora(stream, 0);
  EXPECT_TRUE(linear->has_lora());
  EXPECT_EQ(stream.tellg(), 1);
  const Outputs outputs = forward(*linear);
  EXPECT_TRUE(same_bits(outputs.with_rows, outputs.without_rows));
}

// A rank that fits in 64 bits but that the file does not back (here 2^40
// bytes of A behind a record of one byte) costs no allocation of that size:
// the record just runs short.
TEST_F(LoraRecordTest, ARankTheFileDoesNotHoldRunsShortWithoutAllocatingIt) {
  auto linear = layer(QuantFormat::NONE);
  auto stream = binary_stream(record(1));
  try {
    linear->load_lora(stream, std::uint64_t{1} << 33);
    ADD_FAILURE() << "a record of one byte loaded";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Failed to read LoRA A matrix");
  }
  EXPECT_FALSE(linear->has_lora());
}

}  // namespace
}  // namespace quorvel::layers
