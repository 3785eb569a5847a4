#include "layers/embedding.h"

#include <algorithm>
#include <stdexcept>

#include "runtime/formats/format_table.h"
#include "runtime/formats/i8_matrix.h"
#include "runtime/formats/unembed_layout.h"
#include "runtime/kernel_base.h"
#include "runtime/parallel_rows.h"
#include "runtime/thread_pool.h"

namespace quorvel::layers {
namespace {

using kernels::KernelBase;
constexpr std::uint64_t kGroupRows = formats::kUnembedGroupRows;
// Fewer tokens than this are copied on the calling thread: a dispatch would
// cost more than the copies.
constexpr std::uint64_t kParallelEmbedTokens = 256;
// With this many workers the pool is better kept for the logits; below it
// the single-row quantization goes through the pool as a one-unit job.
constexpr std::uint64_t kInlineQuantizeWorkers = 4;

// The table entry of an unembed format made of blocks, or nullptr.
const formats::StorageFormat* find_block_format(QuantFormat format) {
  const formats::StorageFormat* entry = formats::find_storage_format(format);
  return entry != nullptr && entry->is_blocks() ? entry : nullptr;
}

// The int8 table is tiled by 32 columns; a width that is not a multiple of
// 32 is padded with zero codes, which add nothing to a logit.
std::uint64_t code_columns(QuantFormat format, std::uint64_t embedding_dim) {
  return format == QuantFormat::INT8 ? size_round_up(embedding_dim, formats::kI8Tile) : embedding_dim;
}

template <typename T>
AlignedPtr<T> allocate_zeroed(std::uint64_t count) {
  AlignedPtr<T> buffer = allocate_aligned_elements<T>(count);
  kernels::kernels().fill_bytes(buffer.get(), 0, size_mul(count, sizeof(T)));
  return buffer;
}

// Builds a table of `rows` rows of `row_bytes` bytes, grouped by 32 rows
// with the padding rows zero, one group at a time over the worker pool, so
// that each thread writes (and first touches) its own part of the fresh
// table: quantize(first_row, rows, plain) writes the group's rows in plain
// row-major order into `plain`, zero on entry; arrange(plain, rows, group)
// puts them in the group's place of the table.
template <typename Quantize, typename Arrange>
AlignedPtr<std::uint8_t> build_grouped_table(std::uint64_t rows, std::uint64_t row_bytes,
                                             std::uint64_t staging_bytes, Quantize quantize, Arrange arrange) {
  const std::uint64_t group_bytes = size_mul(kGroupRows, row_bytes);
  AlignedPtr<std::uint8_t> table = allocate_aligned<std::uint8_t>(size_mul(size_round_up(rows, kGroupRows), row_bytes));
  const AlignedPtr<std::uint8_t> staging = allocate_aligned<std::uint8_t>(staging_bytes);
  parallel_rows(rows, {.unit_rows = kGroupRows}, [&](std::uint64_t first, std::uint64_t count) {
    std::uint8_t* plain = staging.get() + worker_index() * group_bytes;
    for (std::uint64_t row = first; row < first + count; row += kGroupRows) {
      const std::uint64_t group_rows = std::min(kGroupRows, first + count - row);
      std::uint8_t* group = table.get() + row * row_bytes;
      // Only the last group has padding rows, which arrange leaves as they are.
      if (group_rows < kGroupRows) kernels::kernels().fill_bytes(group, 0, group_bytes);
      kernels::kernels().fill_bytes(plain, 0, group_rows * row_bytes);
      quantize(row, group_rows, plain);
      arrange(plain, group_rows, group);
    }
  });
  return table;
}

}  // namespace

EmbeddingBase::EmbeddingBase(std::uint64_t vocab_size, std::uint64_t embedding_dim, bool tied,
                             std::uint64_t code_columns)
    : vocab_size_(vocab_size),
      padded_vocab_(size_round_up(vocab_size, kGroupRows)),
      embedding_dim_(embedding_dim),
      tied_(tied),
      hidden_codes_(allocate_zeroed<std::int8_t>(code_columns)) {}

PayloadText EmbeddingBase::table_text(const std::string& format, const std::string& table) {
  return {"Could not read " + format + " " + table + ": read_bytes (", "Failed to read " + format + " " + table};
}

void EmbeddingBase::check_ids(const std::uint64_t* tokens, std::uint64_t n) const {
  for (std::uint64_t t = 0; t < n; ++t) {
    if (tokens[t] >= vocab_size_) {
      throw std::runtime_error("Token ID " + std::to_string(tokens[t]) +
                               " out of range (vocab_size=" + std::to_string(vocab_size_) + ")");
    }
  }
}

bf16* EmbeddingBase::embed(const std::uint64_t* tokens, std::uint64_t n, bf16* out) const {
  check_ids(tokens, n);
  parallel_rows(n, {.inline_below = kParallelEmbedTokens}, [&](std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t t = first; t < first + count; ++t) embed_row(tokens[t], out + t * embedding_dim_);
  });
  return out;
}

void EmbeddingBase::quantize_hidden(const bf16* row) {
  auto quantize = [&](std::uint64_t, std::uint64_t) {
    kernels::kernels().quantize_rows_i8(row, hidden_codes_.get(), &hidden_scale_, 1, embedding_dim_);
  };
  if (thread_count() >= kInlineQuantizeWorkers || current_depth() != 0) {
    quantize(0, 1);
  } else {
    parallel_for(1, 0, quantize);
  }
}

std::uint64_t EmbeddingBase::unembed(const bf16* hidden, std::uint64_t n, float* logits,
                                     const SamplingWorkspace& workspace, const std::int64_t* history,
                                     std::uint64_t history_len, const SamplingParams& params) {
  if (n == 0) throw std::invalid_argument("unembed needs at least one hidden row");
  quantize_hidden(hidden + (n - 1) * embedding_dim_);
  compute_logits(hidden_codes_.get(), hidden_scale_, logits);
  return sample(logits, vocab_size_, workspace, history, history_len, params);
}

Embedding::Embedding(std::istream& stream, std::uint64_t vocab_size, std::uint64_t embedding_dim, bool tied,
                     QuantFormat unembed_format)
    : EmbeddingBase(vocab_size, embedding_dim, tied, code_columns(unembed_format, embedding_dim)),
      unembed_format_(unembed_format) {
  if (unembed_format == QuantFormat::NONE || unembed_format == QuantFormat::TERNARY) {
    throw std::runtime_error("Unembed format does not support NONE or TERNARY");
  }
  const std::uint64_t values = size_mul(vocab_size, embedding_dim);
  embed_tokens_ = read_table<bf16>(stream, values, table_text("BF16", "embed_tokens"));
  AlignedPtr<bf16> lm_head;
  if (!tied) lm_head = read_table<bf16>(stream, values, table_text("BF16", "lm_head"));
  const bf16* source = tied ? embed_tokens_.get() : lm_head.get();
  if (unembed_format == QuantFormat::INT8) {
    build_i8_table(source);
  } else if (find_block_format(unembed_format) != nullptr) {
    build_block_table(source);
  }
  // Any other code builds no table; unembed refuses it.
}

std::uint64_t Embedding::table_row_bytes(QuantFormat format, std::uint64_t embedding_dim) {
  if (format == QuantFormat::INT8) return code_columns(format, embedding_dim);
  const formats::StorageFormat* blocks = find_block_format(format);
  return blocks == nullptr ? 0 : blocks->layout.row_bytes(embedding_dim);
}

std::uint64_t Embedding::staging_bytes(QuantFormat format, std::uint64_t embedding_dim, std::uint64_t threads) {
  return size_mul(threads, kGroupRows, table_row_bytes(format, embedding_dim));
}

void Embedding::build_i8_table(const bf16* source) {
  const std::uint64_t columns = table_row_bytes(QuantFormat::INT8, embedding_dim());
  output_row_bytes_ = columns;
  output_scales_ = allocate_zeroed<float>(padded_vocab());
  const auto quantize = [&](std::uint64_t first, std::uint64_t rows, std::uint8_t* plain) {
    for (std::uint64_t r = 0; r < rows; ++r) {
      kernels::kernels().quantize_rows_i8(source + (first + r) * embedding_dim(),
                                          reinterpret_cast<std::int8_t*>(plain + r * columns),
                                          output_scales_.get() + first + r, 1, embedding_dim());
    }
  };
  const auto arrange = [&](const std::uint8_t* plain, std::uint64_t rows, std::uint8_t* group) {
    formats::tile_i8_for_unembed(reinterpret_cast<const std::int8_t*>(plain), rows, columns,
                                 reinterpret_cast<std::int8_t*>(group));
  };
  const std::uint64_t staging = staging_bytes(unembed_format_, embedding_dim(), thread_count());
  output_table_ = build_grouped_table(vocab_size(), columns, staging, quantize, arrange);
}

void Embedding::build_block_table(const bf16* source) {
  const formats::StorageFormat& format = *find_block_format(unembed_format_);
  const std::uint64_t blocks_per_row = size_ceil_div(embedding_dim(), format.layout.block_values);
  output_row_bytes_ = table_row_bytes(unembed_format_, embedding_dim());
  // The quantizer may leave the codes of an all-zero block as they were:
  // the plain rows start from zero.
  const auto quantize = [&](std::uint64_t first, std::uint64_t rows, std::uint8_t* plain) {
    (kernels::kernels().*format.quantize_rows)(source + first * embedding_dim(), rows, embedding_dim(), plain);
  };
  const auto arrange = [&](const std::uint8_t* plain, std::uint64_t rows, std::uint8_t* group) {
    formats::group_blocks_for_unembed(plain, rows, blocks_per_row, format.layout.block_bytes, group);
  };
  const std::uint64_t staging = staging_bytes(unembed_format_, embedding_dim(), thread_count());
  output_table_ = build_grouped_table(vocab_size(), output_row_bytes_, staging, quantize, arrange);
}

void Embedding::embed_row(std::uint64_t id, bf16* out) const {
  kernels::kernels().copy_bytes(out, embed_tokens_.get() + id * embedding_dim(), embedding_dim() * sizeof(bf16));
}

void Embedding::compute_logits(const std::int8_t* codes, float scale, float* logits) const {
  const auto& kernel_set = kernels::kernels();
  const RowSplit groups{.unit_rows = kGroupRows};
  if (unembed_format_ == QuantFormat::INT8) {
    const auto* table = reinterpret_cast<const std::int8_t*>(output_table_.get());
    parallel_rows(padded_vocab(), groups, [&](std::uint64_t row, std::uint64_t rows) {
      kernel_set.gemv_i8_f32(table + row * output_row_bytes_, output_scales_.get() + row, codes, scale, logits + row,
                             rows, output_row_bytes_);
    });
    return;
  }
  const formats::StorageFormat* format = find_block_format(unembed_format_);
  if (format == nullptr) throw std::runtime_error("Unsupported unembed quant format in unembed");
  parallel_rows(padded_vocab(), groups, [&](std::uint64_t row, std::uint64_t rows) {
    (kernel_set.*format->logits)(output_table_.get() + row * output_row_bytes_, codes, scale, logits + row, rows,
                                 embedding_dim());
  });
}

}  // namespace quorvel::layers
