// The block-format embeddings (q1_0_128 and q1.58): width rule, tables read,
// lookups by dequantization and logits over a vocabulary that does not fill
// its last group of 32.
#include "layers/embedding_q1.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "layer_test_support.h"

namespace quorvel::layers {
namespace {

using quorvel::testing::binary_stream;
using quorvel::testing::same_bits;

template <typename Embedding>
class EmbeddingQ1Test : public ::testing::Test {
 protected:
  using Tables = std::conditional_t<std::is_same_v<Embedding, EmbeddingQ1_0>, Q1_0Tables, Q1_58Tables>;
  using Block = typename Tables::Block;
  static constexpr std::uint64_t kVocab = 70;
  static constexpr std::uint64_t kDim = 256;
  static constexpr std::uint64_t kTableBytes = kVocab * (kDim / 128) * sizeof(Block);

  // Random blocks; q1.58 codes stay in 0..2 and every scale is a small
  // positive bf16.
  std::string table() {
    std::vector<Block> blocks(kVocab * (kDim / 128));
    for (Block& b : blocks) {
      const auto random = quorvel::testing::random_bytes(rng, sizeof(Block));
      std::memcpy(&b, random.data(), sizeof(Block));
      b.d = narrow_saturate(0.02f + 0.01f * static_cast<float>(random[0] % 5));
      if constexpr (std::is_same_v<Block, formats::BlockQ1_58>) {
        for (auto& c : b.codes) c = static_cast<std::uint8_t>(c & 0x55);  // codes 0 or 1
      }
    }
    return std::string(reinterpret_cast<const char*>(blocks.data()), blocks.size() * sizeof(Block));
  }
  void write_tables(bool tied) {
    input = table();
    output = tied ? input : table();
    bytes = tied ? input : input + output;
  }
  Embedding load(bool tied) {
    write_tables(tied);
    auto stream = binary_stream(bytes);
    return Embedding(stream, kVocab, kDim, tied);
  }

  std::mt19937 rng{77};
  std::string input, output, bytes;
};

using Q1Embeddings = ::testing::Types<EmbeddingQ1_0, EmbeddingQ1_58>;
TYPED_TEST_SUITE(EmbeddingQ1Test, Q1Embeddings);

TYPED_TEST(EmbeddingQ1Test, WidthThatIsNotWholeBlocksIsRefusedBeforeReading) {
  this->write_tables(false);
  auto stream = binary_stream(this->bytes);
  quorvel::testing::expect_refused([&] { TypeParam(stream, this->kVocab, 200, false); },
                                   std::string(TestFixture::Tables::kClassName) +
                                       " embedding_dim must be a multiple of 128, got 200");
  EXPECT_EQ(stream.tellg(), 0);
}

TYPED_TEST(EmbeddingQ1Test, TiedReadsOneTableAndUnembedsWithIt) {
  for (bool tied : {true, false}) {
    this->write_tables(tied);
    auto stream = binary_stream(this->bytes + "next");
    TypeParam embedding(stream, this->kVocab, this->kDim, tied);
    EXPECT_EQ(static_cast<std::uint64_t>(stream.tellg()), (tied ? 1 : 2) * this->kTableBytes);
    EXPECT_EQ(embedding.lm_head() == embedding.embed_tokens(), tied);
    EXPECT_EQ(std::memcmp(embedding.lm_head(), this->output.data(), this->kTableBytes), 0);
  }
}

TYPED_TEST(EmbeddingQ1Test, ShortTablesAreReported) {
  this->write_tables(false);
  const std::string name = TestFixture::Tables::kFormatName;
  const std::string size = std::to_string(this->kTableBytes);
  const auto load_cut = [&](std::size_t length) {
    return [&, length] {
      auto stream = binary_stream(this->bytes.substr(0, length));
      TypeParam(stream, this->kVocab, this->kDim, false);
    };
  };
  quorvel::testing::expect_short_read(
      load_cut(50), "Could not read " + name + " embed_tokens: read_bytes (50) != " + size + "; EOF: 1, FTELL: -1",
      "Failed to read " + name + " embed_tokens");
  quorvel::testing::expect_short_read(
      load_cut(this->kTableBytes + 9),
      "Could not read " + name + " lm_head: read_bytes (9) != " + size + "; EOF: 1, FTELL: -1",
      "Failed to read " + name + " lm_head");
}

TYPED_TEST(EmbeddingQ1Test, EmbedDequantizesTheRowsAfterCheckingIds) {
  const TypeParam embedding = this->load(false);
  const std::vector<std::uint64_t> tokens{69, 0, 33};
  std::vector<bf16> out(3 * this->kDim), expected(3 * this->kDim);
  for (std::uint64_t t = 0; t < 3; ++t) {
    (kernels::kernels().*TestFixture::Tables::kFormat.dequantize)(embedding.embed_tokens() + tokens[t] * 2, this->kDim,
                                                           expected.data() + t * this->kDim);
  }
  embedding.embed(tokens.data(), 3, out.data());
  EXPECT_TRUE(same_bits(out, expected));
  const std::vector<std::uint64_t> bad{0, 70};
  quorvel::testing::expect_refused([&] { embedding.embed(bad.data(), 2, out.data()); },
                                   "Token ID 70 out of range (vocab_size=70)");
  EXPECT_TRUE(same_bits(out, expected));
}

// The logits of the fifth row over all 70 rows, as one kernel call would
// give them, with the pool or inline; the buffer's padding is not written.
TYPED_TEST(EmbeddingQ1Test, LogitsComeFromTheLastRowOverEveryTableRow) {
  TypeParam embedding = this->load(false);
  const std::vector<bf16> hidden = quorvel::testing::random_bf16(this->rng, 5 * this->kDim);
  std::vector<std::int8_t> x(this->kDim);
  float x_scale = 0;
  kernels::kernels().quantize_rows_i8(hidden.data() + 4 * this->kDim, x.data(), &x_scale, 1, this->kDim);
  std::vector<float> expected(96, -7.0f);
  (kernels::kernels().*TestFixture::Tables::kFormat.plain_logits)(embedding.lm_head(), x.data(), x_scale,
                                                                  expected.data(), this->kVocab, this->kDim);
  std::vector<Candidate> candidates(thread_count() * 256);
  std::vector<std::uint64_t> indices(this->kVocab);
  SamplingParams greedy;
  greedy.temperature = 0.0f;
  const auto unembed = [&](std::vector<float>& logits) {
    return embedding.unembed(hidden.data(), 5, logits.data(), {candidates.data(), indices.data(), 256}, nullptr, 0,
                             greedy);
  };
  std::vector<float> pooled(96, -7.0f), inline_logits(96, -7.0f);
  const std::uint64_t token = unembed(pooled);
  quorvel::testing::run_inside_job([&] { unembed(inline_logits); });
  EXPECT_EQ(pooled, expected);
  EXPECT_EQ(inline_logits, expected);
  const auto best = std::max_element(expected.begin(), expected.begin() + this->kVocab) - expected.begin();
  EXPECT_EQ(token, static_cast<std::uint64_t>(best));
}

}  // namespace
}  // namespace quorvel::layers
