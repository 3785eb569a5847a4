#include "layers/embedding_q1.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "runtime/formats/unembed_layout.h"
#include "runtime/parallel_rows.h"

namespace quorvel::layers {

template <typename Tables>
EmbeddingQ1<Tables>::EmbeddingQ1(std::istream& stream, std::uint64_t vocab_size, std::uint64_t embedding_dim,
                                 bool tied)
    : EmbeddingBase(vocab_size, embedding_dim, tied, embedding_dim) {
  if (embedding_dim % 128 != 0) {
    throw std::runtime_error(std::string(Tables::kClassName) + " embedding_dim must be a multiple of 128, got " +
                             std::to_string(embedding_dim));
  }
  const std::uint64_t blocks = size_mul(vocab_size, blocks_per_row());
  embed_tokens_ = read_table<Block>(stream, blocks, table_text(Tables::kFormatName, "embed_tokens"));
  if (!tied) own_lm_head_ = read_table<Block>(stream, blocks, table_text(Tables::kFormatName, "lm_head"));
  lm_head_ = tied ? embed_tokens_.get() : own_lm_head_.get();
}

template <typename Tables>
void EmbeddingQ1<Tables>::embed_row(std::uint64_t id, bf16* out) const {
  (kernels::kernels().*Tables::kFormat.dequantize)(embed_tokens_.get() + id * blocks_per_row(), embedding_dim(), out);
}

// The table has exactly vocab_size rows, so the last group of 32 is cut short.
template <typename Tables>
void EmbeddingQ1<Tables>::compute_logits(const std::int8_t* codes, float scale, float* logits) const {
  const RowSplit groups{.unit_rows = formats::kUnembedGroupRows};
  parallel_rows(vocab_size(), groups, [&](std::uint64_t row, std::uint64_t rows) {
    (kernels::kernels().*Tables::kFormat.plain_logits)(lm_head_ + row * blocks_per_row(), codes, scale, logits + row,
                                                       rows, embedding_dim());
  });
}

template class EmbeddingQ1<Q1_0Tables>;
template class EmbeddingQ1<Q1_58Tables>;

}  // namespace quorvel::layers
