#include "models/model_memory.h"

#include <algorithm>
#include <string>

#include "layers/auto_bit_linear.h"
#include "layers/auto_q8_0_linear.h"
#include "layers/embedding.h"
#include "layers/embedding_q1.h"
#include "layers/auto_q1_linear.h"
#include "layers/packed_block_linear.h"
#include "models/model_scratch.h"

namespace quorvel {
namespace {

using RowBytes = std::uint64_t (*)(std::uint64_t in_shape);

// The widths the layers are built with.
struct Widths {
  std::uint64_t hidden;
  std::uint64_t intermediate;
  std::uint64_t query;     // num_heads x head_dim
  std::uint64_t key_value; // num_kv_heads x head_dim
};

Widths widths_of(const InitConfig& c) {
  return {c.hidden_dim, c.intermediate_dim, size_mul(c.num_heads, c.head_dim), size_mul(c.num_kv_heads, c.head_dim)};
}

// Bytes of one output row of a projection's weights, by the architecture's
// weight format; nullptr for an unknown code.
RowBytes projection_row_bytes(std::int32_t arch) {
  switch (static_cast<ArchType>(arch)) {
    case ArchType::BITNET:
    case ArchType::LLAMA:
    case ArchType::QWEN3_5: return &layers::AutoBitLinear::weight_row_bytes;
    case ArchType::BONSAI: return &layers::AutoQ1Linear::weight_row_bytes;
    case ArchType::BONSAI_TERNARY: return &layers::AutoQ1_58Linear::weight_row_bytes;
    case ArchType::QWEN3: return &layers::AutoQ8_0Linear::weight_row_bytes;
  }
  return nullptr;
}

// One layer's seven projections (K, V, Q, O, FFN 1, FFN 2, down) and the
// bias of K, V and Q.
std::uint64_t layer_projection_bytes(RowBytes row_bytes, const InitConfig& c) {
  const Widths w = widths_of(c);
  auto weights = [&](std::uint64_t in, std::uint64_t out) { return size_mul(out, row_bytes(in)); };
  const std::uint64_t bias = c.has_qkv_bias ? size_mul(size_add(w.key_value, w.key_value, w.query), sizeof(bf16)) : 0;
  return size_add(weights(w.hidden, w.key_value), weights(w.hidden, w.key_value), weights(w.hidden, w.query),
                  weights(w.query, w.hidden), weights(w.hidden, w.intermediate), weights(w.hidden, w.intermediate),
                  weights(w.intermediate, w.hidden), bias);
}

// One layer's norm weights: BitNet has sub-norms, the Bonsai and Qwen3
// layers per-head norms, Llama neither.
std::uint64_t layer_norm_bytes(const InitConfig& c) {
  const Widths w = widths_of(c);
  std::uint64_t values = size_add(w.hidden, w.hidden);
  switch (static_cast<ArchType>(c.arch_type)) {
    case ArchType::BITNET: values = size_add(values, w.query, w.intermediate); break;
    case ArchType::BONSAI:
    case ArchType::BONSAI_TERNARY:
    case ArchType::QWEN3: values = size_add(values, c.head_dim, c.head_dim); break;
    default: break;
  }
  return size_mul(values, sizeof(bf16));
}

// q8_0 weights arrive as bf16 and are quantized at load, q1_0_128 rows may
// be regrouped in tiles: a batch of a projection's rows as the file holds
// them is held for a moment next to everything else.
std::uint64_t largest_projection_source_bytes(const InitConfig& c) {
  const auto arch = static_cast<ArchType>(c.arch_type);
  if ((arch != ArchType::QWEN3 && arch != ArchType::BONSAI) || c.num_layers == 0) return 0;
  const Widths w = widths_of(c);
  const auto batch =
      arch == ArchType::QWEN3 ? &layers::AutoQ8_0Linear::source_batch_bytes : &layers::AutoQ1Linear::source_batch_bytes;
  return std::max({batch(w.hidden, w.query), batch(w.hidden, w.key_value), batch(w.query, w.hidden),
                   batch(w.hidden, w.intermediate), batch(w.intermediate, w.hidden)});
}

std::uint64_t rotary_table_bytes(const InitConfig& c) {
  return size_mul(2, c.head_dim, c.max_position_embeddings, sizeof(float));
}

std::uint64_t final_norm_bytes(const InitConfig& c) { return size_mul(c.hidden_dim, sizeof(bf16)); }

struct EmbeddingBytes {
  std::uint64_t resident;
  std::uint64_t loading;  // freed once the output table is built
};

EmbeddingBytes embedding_bytes(const InitConfig& c, std::uint64_t threads) {
  const std::uint64_t V = c.vocab_size, d = c.hidden_dim;
  const std::uint64_t tables = c.tie_word_embeddings ? 1 : 2;
  switch (static_cast<ArchType>(c.arch_type)) {
    case ArchType::BONSAI: return {size_mul(tables, layers::EmbeddingQ1_0::table_bytes(V, d)), 0};
    case ArchType::BONSAI_TERNARY: return {size_mul(tables, layers::EmbeddingQ1_58::table_bytes(V, d)), 0};
    default: break;
  }
  // A bf16 input table, and the output table re-quantized into padded groups
  // of rows (int8 adds one scale per row); while it is built, the untied
  // bf16 lm_head and a group of plain rows per thread are held as well.
  const std::uint64_t bf16_table = size_mul(V, d, sizeof(bf16));
  const std::uint64_t row_bytes = layers::Embedding::table_row_bytes(c.unembed_quant, d);
  const std::uint64_t scales = c.unembed_quant == QuantFormat::INT8 ? sizeof(float) : 0;
  const std::uint64_t output_table = size_mul(size_round_up(V, 32), size_add(row_bytes, scales));
  return {size_add(bf16_table, output_table),
          size_add(size_mul(tables - 1, bf16_table), layers::Embedding::staging_bytes(c.unembed_quant, d, threads))};
}

// Adds parts to the estimate and keeps the name of the first that overflows.
class Tally {
 public:
  explicit Tally(ModelMemory& memory) : memory_(memory) {}

  void add(std::uint64_t ModelMemory::*category, std::uint64_t bytes, const std::string& what) {
    if (size_overflowed(bytes) && memory_.overflowing_part.empty()) memory_.overflowing_part = what;
    memory_.*category = size_add(memory_.*category, bytes);
  }

 private:
  ModelMemory& memory_;
};

// The estimate, part by part; each part is named by the config keys it comes
// from, for the overflow report.
class Estimator {
 public:
  explicit Estimator(const InitConfig& c)
      : c_(c),
        tally_(memory_),
        P_(config_entry("max_position_embeddings", c.max_position_embeddings)),
        heads_(config_entry("num_heads", c.num_heads) + " x " + config_entry("head_dim", c.head_dim)) {}

  ModelMemory estimate(std::uint64_t threads) {
    const EmbeddingBytes embedding = embedding_bytes(c_, threads);
    add_weights(embedding);
    add_caches();
    add_buffers(threads);
    add_loading_peak(embedding);
    if (memory_.overflowing_part.empty() && size_overflowed(memory_.total())) {
      memory_.overflowing_part = "the model's memory in all";
    }
    return memory_;
  }

 private:
  void add_weights(const EmbeddingBytes& embedding) {
    const std::string embedding_part = "the token embedding (" + config_entry("vocab_size", c_.vocab_size) + " x " +
                                       config_entry("hidden_dim", c_.hidden_dim) + ")";
    tally_.add(&ModelMemory::weights, embedding.resident, embedding_part);
    tally_.add(&ModelMemory::weights, final_norm_bytes(c_), embedding_part);
    const RowBytes row_bytes = projection_row_bytes(c_.arch_type);
    if (row_bytes == nullptr) return;
    const std::uint64_t layer = size_add(layer_projection_bytes(row_bytes, c_), layer_norm_bytes(c_));
    tally_.add(&ModelMemory::weights, size_mul(c_.num_layers, layer),
               "the layer weights (" + config_entry("num_layers", c_.num_layers) + " x " +
                   config_entry("hidden_dim", c_.hidden_dim) + ", " +
                   config_entry("intermediate_dim", c_.intermediate_dim) + ", " + heads_ + ", " +
                   config_entry("num_kv_heads", c_.num_kv_heads) + ")");
  }

  void add_caches() {
    const std::uint64_t kv_width = size_mul(c_.num_kv_heads, c_.head_dim);
    tally_.add(&ModelMemory::caches, size_mul(c_.num_layers, 2, c_.max_position_embeddings, kv_width, sizeof(bf16)),
               "the key/value caches (" + config_entry("num_layers", c_.num_layers) + " x " + P_ + " x " +
                   config_entry("num_kv_heads", c_.num_kv_heads) + " x " + config_entry("head_dim", c_.head_dim) + ")");
  }

  // The driver's two activation buffers and token history, the model's
  // scratch set, and the rotary tables.
  void add_buffers(std::uint64_t threads) {
    tally_.add(&ModelMemory::buffers, driver_bytes(),
               "the activation buffers (" + P_ + " x the widest of hidden_dim, intermediate_dim and " + heads_ + ")");
    tally_.add(&ModelMemory::buffers, ModelScratch::bytes_needed(c_, threads),
               "the scratch buffers (" + P_ + ", " + config_entry("vocab_size", c_.vocab_size) + ", " + heads_ + ")");
    tally_.add(&ModelMemory::buffers, rotary_table_bytes(c_),
               "the rotary tables (" + config_entry("head_dim", c_.head_dim) + " x " + P_ + ")");
  }

  // Loading holds some tables for a moment: the embedding's while nothing
  // else exists yet, a q8_0 projection's bf16 rows when everything but the
  // driver's buffers does. The higher peak, above the resident total, counts
  // as weights.
  void add_loading_peak(const EmbeddingBytes& embedding) {
    const std::uint64_t resident = memory_.total();
    const std::uint64_t embedding_peak = size_add(embedding.resident, embedding.loading);
    const std::uint64_t projection_peak =
        size_add(resident - std::min(resident, driver_bytes()), largest_projection_source_bytes(c_));
    const std::uint64_t peak = std::max({resident, embedding_peak, projection_peak});
    tally_.add(&ModelMemory::weights, peak - resident,
               "the weights held while loading (" + heads_ + ", " +
                   config_entry("intermediate_dim", c_.intermediate_dim) + ")");
  }

  std::uint64_t driver_bytes() const {
    const std::uint64_t positions = c_.max_position_embeddings;
    return size_add(size_mul(2, activation_row_width(c_), positions, sizeof(bf16)),
                    size_mul(positions, sizeof(std::int64_t)));
  }

  const InitConfig& c_;
  ModelMemory memory_;
  Tally tally_;
  const std::string P_;
  const std::string heads_;
};

}  // namespace

std::string config_entry(const char* key, std::uint64_t value) {
  return std::string(key) + "=" + std::to_string(value);
}

ModelMemory estimate_model_memory(const InitConfig& config, std::uint64_t threads) {
  return Estimator(config).estimate(threads);
}

std::uint64_t bytes_for_embedding(const InitConfig& config, std::uint64_t threads) {
  const EmbeddingBytes embedding = embedding_bytes(config, threads);
  return size_add(embedding.resident, embedding.loading);
}

std::uint64_t bytes_before_layers(const InitConfig& c, std::uint64_t threads) {
  const std::uint64_t after_embedding = size_add(embedding_bytes(c, threads).resident, final_norm_bytes(c),
                                                 rotary_table_bytes(c), ModelScratch::bytes_needed(c, threads));
  return std::max(bytes_for_embedding(c, threads), after_embedding);
}

}  // namespace quorvel
