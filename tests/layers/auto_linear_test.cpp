// The four linear formats: what each reads from the tensor stream, how it
// reports a short read, and that forward gives the kernels' results whatever
// the work split.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "layer_test_support.h"
#include "layers/auto_bit_linear.h"
#include "layers/auto_q8_0_linear.h"
#include "layers/auto_q1_linear.h"
#include "layers/packed_block_linear.h"
#include "runtime/formats/q8_0.h"
#include "runtime/kernel_base.h"

namespace quorvel::layers {
namespace {

using quorvel::testing::binary_stream;
using quorvel::testing::ByteWriter;
using quorvel::testing::random_bf16;
using quorvel::testing::random_bytes;
using quorvel::testing::random_codes;
using quorvel::testing::random_scales;
using quorvel::testing::same_bits;

const kernels::KernelBase& k() { return kernels::kernels(); }

// Ternary codes 0..2 (never the unused 3), four to a byte.
std::vector<std::uint8_t> ternary_bytes(std::mt19937& rng, std::size_t n) {
  std::uniform_int_distribution<unsigned> code(0, 2);
  std::vector<std::uint8_t> out(n);
  for (auto& b : out) b = static_cast<std::uint8_t>(code(rng) << 6 | code(rng) << 4 | code(rng) << 2 | code(rng));
  return out;
}

// Blocks of `code_bytes` bytes then a bf16 scale.
void write_blocks(ByteWriter& w, std::mt19937& rng, std::size_t blocks, std::size_t code_bytes, bool ternary) {
  for (std::size_t b = 0; b < blocks; ++b) {
    quorvel::testing::write_bytes(w, ternary ? ternary_bytes(rng, code_bytes) : random_bytes(rng, code_bytes));
    w.u16(narrow_saturate(0.01f + 0.001f * static_cast<float>(b % 7)).bits);
  }
}

struct Ternary {
  using Layer = AutoBitLinear;
  static constexpr const char* kName = "AutoBitLinear";
  static constexpr std::uint64_t kWeightsOffset = 8;  // the gamma comes first
  static constexpr const char* kWeightsPrefix = "Could not read in Bit Linear: read_bytes (";
  static constexpr const char* kWeightsFailure = "Failed to read BitLinear weights";
  static std::uint64_t weight_bytes(std::uint64_t in, std::uint64_t out) { return in * out / 4; }
  static void write_weights(ByteWriter& w, std::mt19937& rng, std::uint64_t in, std::uint64_t out) {
    w.u64(std::bit_cast<std::uint64_t>(0.8125));
    quorvel::testing::write_bytes(w, ternary_bytes(rng, weight_bytes(in, out)));
  }
  static void one_token(const Layer& l, const std::int8_t* x, float s, bf16* out) {
    std::int32_t sum = 0;
    for (std::uint64_t i = 0; i < l.in_shape(); ++i) sum += x[i];
    k().gemv_ternary(l.weights(), x, sum, out, l.out_shape(), l.in_shape(), s, l.gamma());
  }
  static void tokens(const Layer& l, const std::int8_t* x, const float* s, std::uint64_t n, bf16* out) {
    k().gemm_ternary(l.gamma(), l.weights(), x, s, out, l.out_shape(), n, l.out_shape(), l.in_shape());
  }
};

struct Q1_0 {
  using Layer = AutoQ1Linear;
  static constexpr const char* kName = "AutoQ1Linear";
  static constexpr std::uint64_t kWeightsOffset = 0;
  static constexpr const char* kWeightsPrefix = "Could not read q1_0_128 weights: read_bytes (";
  static constexpr const char* kWeightsFailure = "Failed to read q1_0_128 weights";
  static std::uint64_t weight_bytes(std::uint64_t in, std::uint64_t out) { return out * (in / 128) * 18; }
  static void write_weights(ByteWriter& w, std::mt19937& rng, std::uint64_t in, std::uint64_t out) {
    write_blocks(w, rng, out * (in / 128), 16, false);
  }
  // The layer keeps plain rows or tiles, as the kernel set prefers.
  static void one_token(const Layer& l, const std::int8_t* x, float s, bf16* out) { tokens(l, x, &s, 1, out); }
  static void tokens(const Layer& l, const std::int8_t* x, const float* s, std::uint64_t n, bf16* out) {
    if (l.tiles()) {
      k().gemm_q1_0_tiles(l.tiles(), x, s, out, l.out_shape(), n, l.out_shape(), l.in_shape());
    } else {
      k().gemm_q1_0(l.weights(), x, s, out, l.out_shape(), n, l.out_shape(), l.in_shape());
    }
  }
};

struct Q1_58 {
  using Layer = AutoQ1_58Linear;
  static constexpr const char* kName = "AutoQ1_58Linear";
  static constexpr std::uint64_t kWeightsOffset = 0;
  static constexpr const char* kWeightsPrefix = "Could not read q1.58 weights: read_bytes (";
  static constexpr const char* kWeightsFailure = "Failed to read q1.58 weights";
  static std::uint64_t weight_bytes(std::uint64_t in, std::uint64_t out) { return out * (in / 128) * 34; }
  static void write_weights(ByteWriter& w, std::mt19937& rng, std::uint64_t in, std::uint64_t out) {
    write_blocks(w, rng, out * (in / 128), 32, true);
  }
  static void one_token(const Layer& l, const std::int8_t* x, float s, bf16* out) {
    k().gemv_q1_58(l.weights(), x, s, out, l.out_shape(), l.in_shape());
  }
  static void tokens(const Layer& l, const std::int8_t* x, const float* s, std::uint64_t n, bf16* out) {
    k().gemm_q1_58(l.weights(), x, s, out, l.out_shape(), n, l.out_shape(), l.in_shape());
  }
};

struct Q8_0 {
  using Layer = AutoQ8_0Linear;
  static constexpr const char* kName = "AutoQ8_0Linear";
  static constexpr std::uint64_t kWeightsOffset = 0;
  static constexpr const char* kWeightsPrefix = "Could not read Q8_0 source BF16 weights: read_bytes (";
  static constexpr const char* kWeightsFailure = "Failed to read Q8_0 source BF16 weights";
  static std::uint64_t weight_bytes(std::uint64_t in, std::uint64_t out) { return in * out * 2; }
  static void write_weights(ByteWriter& w, std::mt19937& rng, std::uint64_t in, std::uint64_t out) {
    quorvel::testing::write_bf16(w, random_bf16(rng, in * out, -0.5f, 0.5f));
  }
  static void one_token(const Layer& l, const std::int8_t* x, float s, bf16* out) {
    k().gemv_q8_0(l.weights(), x, s, out, l.out_shape(), l.in_shape());
  }
  static void tokens(const Layer& l, const std::int8_t* x, const float* s, std::uint64_t n, bf16* out) {
    k().gemm_q8_0(l.weights(), x, s, out, l.out_shape(), n, l.out_shape(), l.in_shape());
  }
};

template <typename Format>
class LinearFormatTest : public ::testing::Test {
 protected:
  using Layer = typename Format::Layer;
  static constexpr std::uint64_t kIn = 256;
  static constexpr std::uint64_t kOut = 384;

  std::string weights_payload(std::uint64_t in = kIn, std::uint64_t out = kOut) {
    ByteWriter w;
    Format::write_weights(w, rng, in, out);
    return w.bytes();
  }
  std::string bias_payload(std::uint64_t out = kOut) {
    ByteWriter w;
    quorvel::testing::write_bf16(w, random_bf16(rng, out));
    return w.bytes();
  }
  static std::unique_ptr<Layer> load(const std::string& bytes, bool has_bias, std::uint64_t in = kIn,
                                     std::uint64_t out = kOut) {
    auto stream = binary_stream(bytes);
    return std::make_unique<Layer>(stream, in, out, 1, has_bias, QuantFormat::NONE);
  }
  // Activations for n tokens.
  void activations(std::uint64_t n) {
    codes = random_codes(rng, n * kIn);
    scales = random_scales(rng, n);
  }

  std::mt19937 rng{20240611};
  std::vector<std::int8_t> codes;
  std::vector<float> scales;
};

using Formats = ::testing::Types<Ternary, Q1_0, Q1_58, Q8_0>;
TYPED_TEST_SUITE(LinearFormatTest, Formats);

TYPED_TEST(LinearFormatTest, ReadsExactlyItsPayload) {
  const std::string weights = this->weights_payload();
  ASSERT_EQ(weights.size(), TypeParam::kWeightsOffset + TypeParam::weight_bytes(this->kIn, this->kOut));
  for (bool has_bias : {false, true}) {
    const std::string payload = weights + (has_bias ? this->bias_payload() : "");
    auto stream = binary_stream(payload + "trailing bytes of the next object");
    typename TypeParam::Layer layer(stream, this->kIn, this->kOut, 4, has_bias, QuantFormat::Q8_0);
    EXPECT_EQ(static_cast<std::uint64_t>(stream.tellg()), payload.size()) << "bias " << has_bias;
    EXPECT_EQ(layer.num_heads(), 4u);
    EXPECT_EQ(layer.lora_format(), QuantFormat::Q8_0);
    EXPECT_FALSE(layer.has_lora());
  }
}

TYPED_TEST(LinearFormatTest, ShortReadOfWeightsIsReported) {
  const std::string cut = this->weights_payload().substr(0, TypeParam::kWeightsOffset + 100);
  quorvel::testing::expect_short_read(
      [&] { this->load(cut, false); },
      std::string(TypeParam::kWeightsPrefix) + "100) != " +
          std::to_string(TypeParam::weight_bytes(this->kIn, this->kOut)) + "; EOF: 1, FTELL: -1",
      TypeParam::kWeightsFailure);
}

TYPED_TEST(LinearFormatTest, FileEndingInsideTheBiasFailsAfterTheWeights) {
  const std::string cut = this->weights_payload() + this->bias_payload().substr(0, 10);
  quorvel::testing::expect_short_read([&] { this->load(cut, true); },
                                      "Could not read in bias: read_bytes (10) != 768; EOF: 1, FTELL: -1",
                                      "Failed to read linear bias");
}

// One token goes to the single-token kernel, more to the batched one (9: two
// chunks of 4 and a tail of 1); the pool's split and the inline path must
// both give the kernel's result over all rows.
TYPED_TEST(LinearFormatTest, ForwardMatchesTheKernelWithPoolOrInline) {
  auto layer = this->load(this->weights_payload(), false);
  for (std::uint64_t n : {1u, 9u}) {
    SCOPED_TRACE(n);
    this->activations(n);
    std::vector<bf16> direct(n * this->kOut), pooled(n * this->kOut), inline_rows(n * this->kOut);
    if (n == 1) {
      TypeParam::one_token(*layer, this->codes.data(), this->scales[0], direct.data());
    } else {
      TypeParam::tokens(*layer, this->codes.data(), this->scales.data(), n, direct.data());
    }
    EXPECT_EQ(layer->forward(this->codes.data(), this->scales.data(), n, pooled.data(), nullptr), pooled.data());
    quorvel::testing::run_inside_job(
        [&] { layer->forward(this->codes.data(), this->scales.data(), n, inline_rows.data(), nullptr); });
    EXPECT_TRUE(same_bits(pooled, direct));
    EXPECT_TRUE(same_bits(inline_rows, direct));
  }
}

TYPED_TEST(LinearFormatTest, BatchEqualsOneCallPerToken) {
  auto layer = this->load(this->weights_payload(), false);
  constexpr std::uint64_t n = 6;
  this->activations(n);
  std::vector<bf16> batch(n * this->kOut), singles(n * this->kOut);
  layer->forward(this->codes.data(), this->scales.data(), n, batch.data(), nullptr);
  for (std::uint64_t t = 0; t < n; ++t) {
    layer->forward(this->codes.data() + t * this->kIn, this->scales.data() + t, 1, singles.data() + t * this->kOut,
                   nullptr);
  }
  EXPECT_TRUE(same_bits(batch, singles));
}

// 1 token splits the row; 3 tokens (more than half of the 2 workers) split
// by rows; inside a job the rows are added inline.
TYPED_TEST(LinearFormatTest, BiasIsAddedToEveryOutputRow) {
  const std::string weights = this->weights_payload();
  const std::string bias_bytes = this->bias_payload();
  auto plain = this->load(weights, false);
  auto biased = this->load(weights + bias_bytes, true);
  std::vector<bf16> bias(this->kOut);
  std::memcpy(bias.data(), bias_bytes.data(), bias_bytes.size());
  for (std::uint64_t n : {1u, 3u}) {
    this->activations(n);
    std::vector<bf16> without(n * this->kOut), with(n * this->kOut), with_inline(n * this->kOut);
    plain->forward(this->codes.data(), this->scales.data(), n, without.data(), nullptr);
    biased->forward(this->codes.data(), this->scales.data(), n, with.data(), nullptr);
    quorvel::testing::run_inside_job(
        [&] { biased->forward(this->codes.data(), this->scales.data(), n, with_inline.data(), nullptr); });
    std::vector<bf16> expected(n * this->kOut);
    for (std::uint64_t i = 0; i < expected.size(); ++i) {
      expected[i] = narrow_saturate(widen(without[i]) + widen(bias[i % this->kOut]));
    }
    EXPECT_TRUE(same_bits(with, expected)) << n << " tokens";
    EXPECT_TRUE(same_bits(with_inline, expected)) << n << " tokens, inline";
  }
}

TYPED_TEST(LinearFormatTest, ZeroTokensWriteNothing) {
  auto layer = this->load(this->weights_payload() + this->bias_payload(), true);
  std::vector<bf16> out(this->kOut, bf16{0x1234});
  EXPECT_EQ(layer->forward(nullptr, nullptr, 0, out.data(), nullptr), out.data());
  EXPECT_TRUE(same_bits(out, std::vector<bf16>(this->kOut, bf16{0x1234})));
}

template <typename Format>
class BlockShapeTest : public LinearFormatTest<Format> {};
using ShapeCheckedFormats = ::testing::Types<Ternary, Q1_0, Q1_58>;
TYPED_TEST_SUITE(BlockShapeTest, ShapeCheckedFormats);

TYPED_TEST(BlockShapeTest, ShapesThatAreNotWholeGroupsAreRefusedBeforeReading) {
  const std::string name = TypeParam::kName;
  const std::string payload = this->weights_payload(256, 256);
  const auto expect_refused = [&](std::uint64_t in, std::uint64_t out, const std::string& message) {
    auto stream = binary_stream(payload);
    quorvel::testing::expect_refused(
        [&] { typename TypeParam::Layer(stream, in, out, 1, false, QuantFormat::NONE); }, message);
    EXPECT_EQ(stream.tellg(), 0) << message;
  };
  expect_refused(128, 130, name + " out_shape must be a multiple of 128, got 130");
  expect_refused(100, 128, name + " in_shape must be a multiple of 128, got 100");
  expect_refused(100, 130, name + " in_shape must be a multiple of 128, got 100");
}

TEST(AutoBitLinearTest, ShortGammaReportsOneItemExpected) {
  quorvel::testing::expect_short_read(
      [] {
        auto stream = binary_stream("\x01\x02\x03");
        AutoBitLinear(stream, 128, 128, 1, false, QuantFormat::NONE);
      },
      "Could not read in Gamma: read_bytes (3) != 1; EOF: 1, FTELL: -1", "Failed to read BitLinear gamma");
}

TEST(AutoBitLinearTest, GammaPrecedesTheWeightsAndStaysDouble) {
  ByteWriter w;
  const double gamma = 1.0 / 3.0;  // not representable as a float
  w.u64(std::bit_cast<std::uint64_t>(gamma));
  for (int i = 0; i < 128 * 128 / 4; ++i) w.u8(static_cast<std::uint8_t>(i));
  auto stream = binary_stream(w.bytes());
  AutoBitLinear layer(stream, 128, 128, 1, false, QuantFormat::NONE);
  EXPECT_EQ(layer.gamma(), gamma);
  EXPECT_EQ(layer.weights()[0], 0);
  EXPECT_EQ(layer.weights()[255], 255);
}

// Any width is accepted; each row is quantized into ceil(in / 32) blocks,
// exactly as the kernel's row quantizer does it.
TEST(AutoQ8_0LinearTest, OddWidthIsQuantizedRowByRowAtLoad) {
  constexpr std::uint64_t in = 100, out = 12;
  std::mt19937 rng(7);
  const std::vector<bf16> source = random_bf16(rng, in * out);
  ByteWriter w;
  quorvel::testing::write_bf16(w, source);
  auto stream = binary_stream(w.bytes());
  AutoQ8_0Linear layer(stream, in, out, 1, false, QuantFormat::NONE);
  ASSERT_EQ(layer.row_bytes(), 4 * sizeof(formats::BlockQ8_0));
  std::vector<std::uint8_t> expected(out * layer.row_bytes(), 0);
  k().quantize_rows_q8_0(source.data(), out, in, expected.data());
  EXPECT_EQ(std::vector<std::uint8_t>(layer.weights(), layer.weights() + expected.size()), expected);
}

// The bf16 source is read a batch of rows at a time (1 MiB of them: 512
// rows of 1024 values here, so three batches, the last one short): every
// batch must land on its own rows, and a file ending in a later batch must
// report the bytes of the whole source read so far.
TEST(AutoQ8_0LinearTest, SourcesOfSeveralBatchesAreQuantizedAndReportedWhole) {
  constexpr std::uint64_t in = 1024, out = 1200;
  std::mt19937 rng(11);
  const std::vector<bf16> source = random_bf16(rng, in * out);
  ByteWriter w;
  quorvel::testing::write_bf16(w, source);
  {
    auto stream = binary_stream(w.bytes());
    AutoQ8_0Linear layer(stream, in, out, 1, false, QuantFormat::NONE);
    std::vector<std::uint8_t> expected(out * layer.row_bytes(), 0);
    k().quantize_rows_q8_0(source.data(), out, in, expected.data());
    EXPECT_EQ(std::vector<std::uint8_t>(layer.weights(), layer.weights() + expected.size()), expected);
  }
  const std::uint64_t cut = 1030 * in * 2 + 6;
  quorvel::testing::expect_short_read(
      [&] {
        auto stream = binary_stream(w.bytes().substr(0, cut));
        AutoQ8_0Linear layer(stream, in, out, 1, false, QuantFormat::NONE);
      },
      "Could not read Q8_0 source BF16 weights: read_bytes (" + std::to_string(cut) + ") != " +
          std::to_string(in * out * 2) + "; EOF: 1, FTELL: -1",
      "Failed to read Q8_0 source BF16 weights");
}

// A set with the 8-bit dot product multiplies several tokens in tiles of
// 8 tokens by 64 rows (with 2 workers): 200 rows end in a short row tile and
// 17 tokens in a one-token tile; every tile must land on its own outputs,
// from the pool and inline alike, as one product over all rows gives them.
TEST(AutoQ8_0LinearTest, SeveralTokensInTilesMatchOneProductOverAllRows) {
  constexpr std::uint64_t in = 96, out = 200, n = 17;
  std::mt19937 rng(13);
  ByteWriter w;
  quorvel::testing::write_bf16(w, random_bf16(rng, in * out, -0.5f, 0.5f));
  auto stream = binary_stream(w.bytes());
  AutoQ8_0Linear layer(stream, in, out, 1, false, QuantFormat::NONE);
  const std::vector<std::int8_t> codes = random_codes(rng, n * in);
  const std::vector<float> scales = random_scales(rng, n);
  std::vector<bf16> direct(n * out), pooled(n * out), inline_rows(n * out);
  k().gemm_q8_0(layer.weights(), codes.data(), scales.data(), direct.data(), out, n, out, in);
  layer.forward(codes.data(), scales.data(), n, pooled.data(), nullptr);
  quorvel::testing::run_inside_job([&] { layer.forward(codes.data(), scales.data(), n, inline_rows.data(), nullptr); });
  EXPECT_TRUE(same_bits(pooled, direct));
  EXPECT_TRUE(same_bits(inline_rows, direct));
}

}  // namespace
}  // namespace quorvel::layers
