// Embeddings whose tables stay in a 128-weight block format ("q1_0_128" or
// "q1.58"): lookups dequantize one row, and the logits read the output table
// as it is, row after row. One template serves both formats; the tables
// struct names the block, its entry in the format table and the texts.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "layers/embedding.h"
#include "runtime/formats/format_table.h"

namespace quorvel::layers {

struct Q1_0Tables {
  using Block = formats::BlockQ1_0;
  static constexpr const char* kClassName = "EmbeddingQ1_0";
  static constexpr const char* kFormatName = "q1";
  static constexpr const formats::WeightFormat& kFormat = formats::kQ1_0Weights;
};

struct Q1_58Tables {
  using Block = formats::BlockQ1_58;
  static constexpr const char* kClassName = "EmbeddingQ1_58";
  static constexpr const char* kFormatName = "q1.58";
  static constexpr const formats::WeightFormat& kFormat = formats::kQ1_58Weights;
};

template <typename Tables>
class EmbeddingQ1 final : public EmbeddingBase {
 public:
  using Block = typename Tables::Block;

  // Payload: vocab_size * (embedding_dim / 128) blocks (embed_tokens), then,
  // unless tied, as many again (lm_head). embedding_dim must be a multiple
  // of 128 ("<class> embedding_dim must be a multiple of 128, got <n>",
  // before anything is read).
  EmbeddingQ1(std::istream& stream, std::uint64_t vocab_size, std::uint64_t embedding_dim, bool tied);

  // Bytes of one table (embed_tokens, or lm_head when untied).
  static std::uint64_t table_bytes(std::uint64_t vocab_size, std::uint64_t embedding_dim) {
    return size_mul(vocab_size, Tables::kFormat.layout.row_bytes(embedding_dim));
  }

  const Block* embed_tokens() const { return embed_tokens_.get(); }
  // The input table itself when tied.
  const Block* lm_head() const { return lm_head_; }

 private:
  std::uint64_t blocks_per_row() const { return embedding_dim() / Tables::kFormat.layout.block_values; }
  void embed_row(std::uint64_t id, bf16* out) const override;
  void compute_logits(const std::int8_t* codes, float scale, float* logits) const override;

  AlignedPtr<Block> embed_tokens_;
  AlignedPtr<Block> own_lm_head_;
  const Block* lm_head_ = nullptr;
};

extern template class EmbeddingQ1<Q1_0Tables>;
extern template class EmbeddingQ1<Q1_58Tables>;

using EmbeddingQ1_0 = EmbeddingQ1<Q1_0Tables>;
using EmbeddingQ1_58 = EmbeddingQ1<Q1_58Tables>;

}  // namespace quorvel::layers
