// Token embedding and unembedding.
//
// EmbeddingBase holds what the table formats share: the token-id check and
// the work split of embed, and unembed's steps (quantize the last hidden row,
// compute the logits, call the sampler). A subclass supplies the lookup of
// one row and the logits over its output table.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "config/quant_format.h"
#include "layers/payload_read.h"
#include "runtime/aligned_buffer.h"
#include "runtime/bf16.h"
#include "sampling/sampler.h"

namespace quorvel::layers {

class EmbeddingBase {
 public:
  virtual ~EmbeddingBase() = default;
  EmbeddingBase(const EmbeddingBase&) = delete;
  EmbeddingBase& operator=(const EmbeddingBase&) = delete;

  // Writes the rows of n token ids to `out` (n rows of embedding_dim) and
  // returns `out`. Every id is checked before anything is written: an id at
  // or above vocab_size throws "Token ID <id> out of range (vocab_size=<v>)".
  bf16* embed(const std::uint64_t* tokens, std::uint64_t n, bf16* out) const;

  // Samples the next token from the last of n >= 1 hidden rows. The logits
  // go to `logits` (padded_vocab floats, the padding rows' values unused);
  // the sampler sees the first vocab_size of them.
  std::uint64_t unembed(const bf16* hidden, std::uint64_t n, float* logits, const SamplingWorkspace& workspace,
                        const std::int64_t* history, std::uint64_t history_len, const SamplingParams& params);

  std::uint64_t vocab_size() const { return vocab_size_; }
  // vocab_size rounded up to whole groups of 32 rows: the logits buffer size.
  std::uint64_t padded_vocab() const { return padded_vocab_; }
  std::uint64_t embedding_dim() const { return embedding_dim_; }
  bool tied() const { return tied_; }

 protected:
  // code_columns: how many activation codes the logits kernel reads per row
  // (embedding_dim, or more when the table pads its rows); the codes past
  // embedding_dim stay zero.
  EmbeddingBase(std::uint64_t vocab_size, std::uint64_t embedding_dim, bool tied, std::uint64_t code_columns);

  // The report and exception texts of a table, e.g. ("q1", "lm_head").
  static PayloadText table_text(const std::string& format, const std::string& table);

  // Output row `id` of the input table, embedding_dim values.
  virtual void embed_row(std::uint64_t id, bf16* out) const = 0;
  // All logits from the quantized hidden row; calls run_static itself over
  // padded_vocab / 32 groups of 32 rows.
  virtual void compute_logits(const std::int8_t* codes, float scale, float* logits) const = 0;

 private:
  void check_ids(const std::uint64_t* tokens, std::uint64_t n) const;
  void quantize_hidden(const bf16* row);

  std::uint64_t vocab_size_;
  std::uint64_t padded_vocab_;
  std::uint64_t embedding_dim_;
  bool tied_;
  AlignedPtr<std::int8_t> hidden_codes_;  // the last hidden row, quantized
  float hidden_scale_ = 0.0f;
};

// bf16 input table; the output table is re-quantized at load into the
// configured unembed format and grouped by 32 rows for the logits kernels.
class Embedding final : public EmbeddingBase {
 public:
  // Payload: vocab_size * embedding_dim bf16 values (embed_tokens), then,
  // unless tied, as many again (lm_head). NONE and TERNARY are refused
  // before anything is read.
  Embedding(std::istream& stream, std::uint64_t vocab_size, std::uint64_t embedding_dim, bool tied,
            QuantFormat unembed_format);

  // Bytes of one output-table row in `format` (int8: the codes, padded to
  // whole tiles; its row scales come on top); 0 for a format without a table.
  static std::uint64_t table_row_bytes(QuantFormat format, std::uint64_t embedding_dim);
  // Bytes held while the output table is built with `threads` threads: one
  // group of 32 plain rows per thread.
  static std::uint64_t staging_bytes(QuantFormat format, std::uint64_t embedding_dim, std::uint64_t threads);

  QuantFormat unembed_format() const { return unembed_format_; }
  const bf16* embed_tokens() const { return embed_tokens_.get(); }
  // Bytes per output-table row in its format (int8: the padded codes).
  std::uint64_t output_row_bytes() const { return output_row_bytes_; }
  const std::uint8_t* output_table() const { return output_table_.get(); }
  const float* output_scales() const { return output_scales_.get(); }

 private:
  void embed_row(std::uint64_t id, bf16* out) const override;
  void compute_logits(const std::int8_t* codes, float scale, float* logits) const override;
  void build_i8_table(const bf16* source);
  void build_block_table(const bf16* source);

  AlignedPtr<bf16> embed_tokens_;
  QuantFormat unembed_format_;
  AlignedPtr<std::uint8_t> output_table_;  // padded_vocab rows, grouped by 32
  AlignedPtr<float> output_scales_;        // int8 only: padded_vocab row scales
  std::uint64_t output_row_bytes_ = 0;
};

}  // namespace quorvel::layers
