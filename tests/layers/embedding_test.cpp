// The bf16 embedding: what it reads, the token-id check, and the logits of
// every unembed format against the format's own arithmetic.
#include "layers/embedding.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "layer_test_support.h"
#include "runtime/formats/q8_0.h"
#include "runtime/kernel_base.h"

namespace quorvel::layers {
namespace {

using quorvel::testing::binary_stream;
using quorvel::testing::ByteWriter;
using quorvel::testing::same_bits;

const kernels::KernelBase& k() { return kernels::kernels(); }

SamplingParams greedy() {
  SamplingParams params;
  params.temperature = 0.0f;
  return params;
}

// Buffers for one unembed call: logits and the sampler's workspace.
struct UnembedBuffers {
  explicit UnembedBuffers(const EmbeddingBase& e)
      : logits(e.padded_vocab(), -1.0f), candidates(thread_count() * 256), indices(e.vocab_size()) {}
  std::uint64_t unembed(EmbeddingBase& e, const std::vector<bf16>& hidden, std::uint64_t n) {
    return e.unembed(hidden.data(), n, logits.data(), {candidates.data(), indices.data(), 256}, nullptr, 0,
                     greedy());
  }
  std::vector<float> logits;
  std::vector<Candidate> candidates;
  std::vector<std::uint64_t> indices;
};

class EmbeddingTest : public ::testing::Test {
 protected:
  static constexpr std::uint64_t kVocab = 70;  // padded to 96
  static constexpr std::uint64_t kDim = 80;    // not a multiple of 32

  EmbeddingTest()
      : input(quorvel::testing::random_bf16(rng, kVocab * kDim)),
        output(quorvel::testing::random_bf16(rng, kVocab * kDim)),
        hidden(quorvel::testing::random_bf16(rng, 3 * kDim)) {}

  std::string payload(bool tied) const {
    ByteWriter w;
    quorvel::testing::write_bf16(w, input);
    if (!tied) quorvel::testing::write_bf16(w, output);
    return w.bytes();
  }
  Embedding load(QuantFormat format, bool tied = false) const {
    auto stream = binary_stream(payload(tied));
    return Embedding(stream, kVocab, kDim, tied, format);
  }
  // The last hidden row as the unembedding quantizes it.
  void quantized_last_row(std::vector<std::int8_t>& codes, float& scale) const {
    codes.assign(kDim, 0);
    k().quantize_rows_i8(hidden.data() + 2 * kDim, codes.data(), &scale, 1, kDim);
  }

  std::mt19937 rng{41};
  std::vector<bf16> input;
  std::vector<bf16> output;
  std::vector<bf16> hidden;
};

TEST_F(EmbeddingTest, NoneAndTernaryAreRefusedBeforeReading) {
  for (QuantFormat format : {QuantFormat::NONE, QuantFormat::TERNARY}) {
    auto stream = binary_stream(payload(false));
    quorvel::testing::expect_refused([&] { Embedding(stream, kVocab, kDim, false, format); },
                                     "Unembed format does not support NONE or TERNARY");
    EXPECT_EQ(stream.tellg(), 0);
  }
}

TEST_F(EmbeddingTest, ReadsOneTableWhenTiedAndTwoOtherwise) {
  for (bool tied : {true, false}) {
    const std::string bytes = payload(tied);
    auto stream = binary_stream(bytes + "next");
    Embedding embedding(stream, kVocab, kDim, tied, QuantFormat::Q8_0);
    EXPECT_EQ(static_cast<std::uint64_t>(stream.tellg()), (tied ? 1 : 2) * kVocab * kDim * 2);
    EXPECT_EQ(embedding.tied(), tied);
  }
}

TEST_F(EmbeddingTest, VocabularyIsPaddedToGroupsOf32) {
  ByteWriter w;
  quorvel::testing::write_bf16(w, std::vector<bf16>(1000 * 32, bf16{0x3F80}));
  auto stream = binary_stream(w.bytes());
  Embedding embedding(stream, 1000, 32, true, QuantFormat::INT8);
  EXPECT_EQ(embedding.padded_vocab(), 1024u);
  EXPECT_EQ(load(QuantFormat::INT8).padded_vocab(), 96u);
}

TEST_F(EmbeddingTest, ShortTablesAreReported) {
  const std::string bytes = payload(false);
  const auto load_cut = [&](std::size_t size) {
    return [&bytes, size] {
      auto stream = binary_stream(bytes.substr(0, size));
      Embedding(stream, kVocab, kDim, false, QuantFormat::INT8);
    };
  };
  quorvel::testing::expect_short_read(load_cut(100),
                                      "Could not read BF16 embed_tokens: read_bytes (100) != 11200; EOF: 1, FTELL: -1",
                                      "Failed to read BF16 embed_tokens");
  quorvel::testing::expect_short_read(load_cut(11200 + 7),
                                      "Could not read BF16 lm_head: read_bytes (7) != 11200; EOF: 1, FTELL: -1",
                                      "Failed to read BF16 lm_head");
}

TEST_F(EmbeddingTest, EmbedChecksEveryIdBeforeWritingAnyRow) {
  const Embedding embedding = load(QuantFormat::INT8);
  std::vector<bf16> out(3 * kDim, bf16{0x1111});
  const std::vector<std::uint64_t> bad{1, kVocab, 2};
  quorvel::testing::expect_refused([&] { embedding.embed(bad.data(), 3, out.data()); },
                                   "Token ID 70 out of range (vocab_size=70)");
  const std::vector<std::uint64_t> huge{std::numeric_limits<std::uint64_t>::max()};
  quorvel::testing::expect_refused([&] { embedding.embed(huge.data(), 1, out.data()); },
                                   "Token ID 18446744073709551615 out of range (vocab_size=70)");
  EXPECT_TRUE(same_bits(out, std::vector<bf16>(3 * kDim, bf16{0x1111})));
}

// Few tokens are copied on the caller, 256 or more over the pool, and inside
// a job inline: always the table rows.
TEST_F(EmbeddingTest, EmbedCopiesTheRowsOfTheIds) {
  const Embedding embedding = load(QuantFormat::INT8);
  for (std::uint64_t n : {3u, 300u}) {
    std::vector<std::uint64_t> tokens(n);
    for (std::uint64_t t = 0; t < n; ++t) tokens[t] = (t * 37 + 11) % kVocab;
    std::vector<bf16> expected(n * kDim), out(n * kDim), inline_out(n * kDim);
    for (std::uint64_t t = 0; t < n; ++t) {
      std::memcpy(expected.data() + t * kDim, input.data() + tokens[t] * kDim, kDim * sizeof(bf16));
    }
    EXPECT_EQ(embedding.embed(tokens.data(), n, out.data()), out.data());
    quorvel::testing::run_inside_job([&] { embedding.embed(tokens.data(), n, inline_out.data()); });
    EXPECT_TRUE(same_bits(out, expected)) << n;
    EXPECT_TRUE(same_bits(inline_out, expected)) << n;
  }
}

// Reference logits of the untied table's rows in the two formats whose
// arithmetic is fixed to the bit: int8 rows with the activation quantizer's
// scale, and q8_0 blocks summed in block order.
std::vector<float> i8_reference(const std::vector<bf16>& table, std::uint64_t vocab, std::uint64_t dim,
                                const std::vector<std::int8_t>& x, float x_scale) {
  std::vector<float> logits(vocab);
  std::vector<std::int8_t> row(dim);
  for (std::uint64_t r = 0; r < vocab; ++r) {
    float row_scale = 0;
    k().quantize_rows_i8(table.data() + r * dim, row.data(), &row_scale, 1, dim);
    std::int32_t sum = 0;
    for (std::uint64_t i = 0; i < dim; ++i) sum += row[i] * x[i];
    logits[r] = (static_cast<float>(sum) * x_scale) * row_scale;
  }
  return logits;
}

std::vector<float> q8_0_reference(const std::vector<bf16>& table, std::uint64_t vocab, std::uint64_t dim,
                                  const std::vector<std::int8_t>& x, float x_scale) {
  std::vector<float> logits(vocab);
  const std::uint64_t blocks = formats::q8_0_blocks_per_row(dim);
  std::vector<formats::BlockQ8_0> row(blocks);
  for (std::uint64_t r = 0; r < vocab; ++r) {
    std::memset(row.data(), 0, blocks * sizeof(formats::BlockQ8_0));
    k().quantize_rows_q8_0(table.data() + r * dim, 1, dim, row.data());
    float acc = 0;
    for (std::uint64_t b = 0; b < blocks; ++b) {
      std::int32_t sum = 0;
      for (std::uint64_t i = b * 32; i < std::min(dim, b * 32 + 32); ++i) sum += row[b].q[i - b * 32] * x[i];
      acc = acc + row[b].d * static_cast<float>(sum);
    }
    logits[r] = x_scale * acc;
  }
  return logits;
}

TEST_F(EmbeddingTest, Int8AndQ8_0LogitsFollowTheirFormatsExactly) {
  std::vector<std::int8_t> x;
  float x_scale = 0;
  quantized_last_row(x, x_scale);
  const std::vector<float> i8 = i8_reference(output, kVocab, kDim, x, x_scale);
  const std::vector<float> q8 = q8_0_reference(output, kVocab, kDim, x, x_scale);
  for (auto [format, reference] : {std::pair{QuantFormat::INT8, &i8}, std::pair{QuantFormat::Q8_0, &q8}}) {
    Embedding embedding = load(format);
    UnembedBuffers buffers(embedding);
    buffers.unembed(embedding, hidden, 3);
    EXPECT_EQ(std::vector<float>(buffers.logits.begin(), buffers.logits.begin() + kVocab), *reference);
    // The padding rows are zero, so their logits are too.
    EXPECT_EQ(std::vector<float>(buffers.logits.begin() + kVocab, buffers.logits.end()),
              std::vector<float>(96 - kVocab, 0.0f));
  }
}

// q4_0, q5_0 and q6_k lay out their codes as they like; their logits must be
// the dot products of the dequantized rows with the quantized hidden row.
TEST_F(EmbeddingTest, SmallerBlockFormatsGiveTheDequantizedDotProducts) {
  using Dequantize = void (kernels::KernelBase::*)(const bf16*, std::size_t, std::size_t, void*) const;
  struct Case {
    QuantFormat format;
    std::size_t block_values;
    std::size_t block_bytes;
    Dequantize quantize;
    void (kernels::KernelBase::*dequantize)(const void*, std::size_t, std::size_t, float*) const;
  };
  const Case cases[] = {
      {QuantFormat::Q4_0, 32, 20, &kernels::KernelBase::quantize_rows_q4_0, &kernels::KernelBase::dequantize_q4_0_f32},
      {QuantFormat::Q5_0, 32, 24, &kernels::KernelBase::quantize_rows_q5_0, &kernels::KernelBase::dequantize_q5_0_f32},
      {QuantFormat::Q6_K, 256, 212, &kernels::KernelBase::quantize_rows_q6_k,
       &kernels::KernelBase::dequantize_q6_k_f32},
  };
  std::vector<std::int8_t> x;
  float x_scale = 0;
  quantized_last_row(x, x_scale);
  for (const Case& c : cases) {
    Embedding embedding = load(c.format);
    UnembedBuffers buffers(embedding);
    buffers.unembed(embedding, hidden, 3);
    std::vector<std::uint8_t> blocks((kDim + c.block_values - 1) / c.block_values * c.block_bytes);
    std::vector<float> row(kDim);
    for (std::uint64_t r = 0; r < kVocab; ++r) {
      std::fill(blocks.begin(), blocks.end(), 0);
      (k().*c.quantize)(output.data() + r * kDim, 1, kDim, blocks.data());
      (k().*c.dequantize)(blocks.data(), 1, kDim, row.data());
      double dot = 0, magnitude = 0;
      for (std::uint64_t i = 0; i < kDim; ++i) {
        dot += static_cast<double>(row[i]) * x[i];
        magnitude += std::fabs(static_cast<double>(row[i]) * x[i]);
      }
      EXPECT_NEAR(buffers.logits[r], dot * x_scale, 1e-5 * magnitude * x_scale) << static_cast<int>(c.format) << " "
                                                                                   << r;
    }
  }
}

TEST_F(EmbeddingTest, LogitsAreTheSameWithPoolOrInline) {
  for (QuantFormat format :
       {QuantFormat::INT8, QuantFormat::Q4_0, QuantFormat::Q5_0, QuantFormat::Q6_K, QuantFormat::Q8_0}) {
    Embedding embedding = load(format, true);
    UnembedBuffers pooled(embedding), inline_rows(embedding);
    const std::uint64_t token = pooled.unembed(embedding, hidden, 3);
    std::uint64_t inline_token = 0;
    quorvel::testing::run_inside_job([&] { inline_token = inline_rows.unembed(embedding, hidden, 3); });
    EXPECT_EQ(pooled.logits, inline_rows.logits) << static_cast<int>(format);
    EXPECT_EQ(token, inline_token);
  }
}

// The output table is built a group of 32 rows at a time over the pool; the
// same table must come out when the whole build runs on one thread.
TEST_F(EmbeddingTest, OutputTableIsTheSameBuiltOverThePoolOrInline) {
  for (QuantFormat format : {QuantFormat::INT8, QuantFormat::Q4_0, QuantFormat::Q8_0}) {
    const Embedding pooled = load(format);
    std::unique_ptr<Embedding> inline_built;
    quorvel::testing::run_inside_job([&] {
      auto stream = binary_stream(payload(false));
      inline_built = std::make_unique<Embedding>(stream, kVocab, kDim, false, format);
    });
    const std::uint64_t bytes = 96 * pooled.output_row_bytes();
    EXPECT_EQ(std::vector<std::uint8_t>(pooled.output_table(), pooled.output_table() + bytes),
              std::vector<std::uint8_t>(inline_built->output_table(), inline_built->output_table() + bytes))
        << static_cast<int>(format);
  }
}

// Row t of the table points along axis t; each hidden row points at another
// token, and only the fifth decides.
TEST(EmbeddingUnembedTest, SamplesFromTheLastRowOnly) {
  constexpr std::uint64_t vocab = 40, dim = 64;
  std::vector<bf16> table(vocab * dim, bf16{0});
  for (std::uint64_t t = 0; t < vocab; ++t) table[t * dim + t] = narrow_saturate(1.0f);
  ByteWriter w;
  quorvel::testing::write_bf16(w, table);
  auto stream = binary_stream(w.bytes());
  Embedding embedding(stream, vocab, dim, true, QuantFormat::INT8);
  const std::uint64_t targets[] = {3, 9, 30, 1, 17};
  std::vector<bf16> hidden(5 * dim, bf16{0});
  for (std::uint64_t row = 0; row < 5; ++row) hidden[row * dim + targets[row]] = narrow_saturate(2.0f);
  UnembedBuffers buffers(embedding);
  EXPECT_EQ(buffers.unembed(embedding, hidden, 5), 17u);
  EXPECT_EQ(buffers.unembed(embedding, hidden, 3), 30u);
}

TEST_F(EmbeddingTest, UnknownFormatCodeIsRefusedAtUnembed) {
  Embedding embedding = load(static_cast<QuantFormat>(9));
  UnembedBuffers buffers(embedding);
  quorvel::testing::expect_refused([&] { buffers.unembed(embedding, hidden, 1); },
                                   "Unsupported unembed quant format in unembed");
}

}  // namespace
}  // namespace quorvel::layers
