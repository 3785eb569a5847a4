#include "models/model_requirements.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

#include "models/model_memory.h"
#include "models/transformer_layer.h"
#include "runtime/thread_pool.h"

namespace quorvel {
namespace {

constexpr std::uint64_t kGroupWidth = 128;
// The rotary kernels turn each head as two halves of whole groups of four.
constexpr std::uint64_t kHeadDimMultiple = 8;

bool is_known_architecture(std::int32_t code) {
  return code >= static_cast<std::int32_t>(ArchType::BITNET) && code <= static_cast<std::int32_t>(ArchType::QWEN3);
}

// The widths that the model's constructors require in whole groups of 128,
// with their own messages: the final norm's (and the 1-bit embeddings')
// hidden_dim; in every layer the norms' widths and, for the ternary and
// 1-bit formats, both shapes of every projection.
std::vector<std::uint64_t> widths_checked_while_building(const InitConfig& c) {
  std::vector<std::uint64_t> widths = {c.hidden_dim};
  if (c.num_layers == 0) return widths;
  const std::uint64_t query = size_mul(c.num_heads, c.head_dim);
  const std::uint64_t key_value = size_mul(c.num_kv_heads, c.head_dim);
  switch (static_cast<ArchType>(c.arch_type)) {
    case ArchType::BITNET:
    case ArchType::LLAMA:
    case ArchType::QWEN3_5: widths.insert(widths.end(), {query, key_value, c.intermediate_dim}); break;
    case ArchType::BONSAI:
    case ArchType::BONSAI_TERNARY:
      widths.insert(widths.end(), {query, key_value, c.intermediate_dim, c.head_dim});
      break;
    case ArchType::QWEN3: widths.push_back(c.head_dim); break;
  }
  return widths;
}

bool answered_while_building(const InitConfig& c) {
  if (!is_known_architecture(c.arch_type)) return true;
  const std::vector<std::unique_ptr<layers::TransformerLayerBase>> layer_array;
  if (c.num_layers > layer_array.max_size()) return true;
  for (const std::uint64_t width : widths_checked_while_building(c)) {
    if (width % kGroupWidth != 0) return true;
  }
  return false;
}

std::string entry(const char* key, std::uint64_t value) { return std::string(key) + "=" + std::to_string(value); }

// Widths and counts that no layer can be built with, and head shapes that
// the attention and rotary kernels cannot serve.
std::optional<std::string> shape_refusal(const InitConfig& c) {
  const std::array<std::pair<const char*, std::uint64_t>, 7> counts = {{
      {"hidden_dim", c.hidden_dim},
      {"intermediate_dim", c.intermediate_dim},
      {"num_heads", c.num_heads},
      {"num_kv_heads", c.num_kv_heads},
      {"vocab_size", c.vocab_size},
      {"head_dim", c.head_dim},
      {"max_position_embeddings", c.max_position_embeddings},
  }};
  for (const auto& [key, value] : counts) {
    if (value == 0) return "Error: " + entry(key, value) + " must be at least 1";
  }
  if (c.num_heads % c.num_kv_heads != 0) {
    return "Error: " + entry("num_heads", c.num_heads) + " must be a multiple of " +
           entry("num_kv_heads", c.num_kv_heads) + " (each key/value head serves a whole group of query heads)";
  }
  if (c.head_dim % kHeadDimMultiple != 0) {
    return "Error: " + entry("head_dim", c.head_dim) +
           " must be a multiple of 8 (rotary embedding turns each head in two halves of whole groups of 4)";
  }
  return std::nullopt;
}

// GiB with one decimal, or MiB below one GiB.
std::string readable_size(std::uint64_t bytes) {
  const double mib = static_cast<double>(bytes) / std::pow(2.0, 20);
  char text[32];
  if (mib < 1024.0) {
    std::snprintf(text, sizeof text, "%.1f MiB", mib);
  } else {
    std::snprintf(text, sizeof text, "%.1f GiB", mib / 1024.0);
  }
  return text;
}

std::optional<std::string> memory_refusal(const ModelMemory& memory, std::uint64_t memory_bytes) {
  if (!memory.overflowing_part.empty()) {
    return "Error: " + memory.overflowing_part + " would be larger than 2^64 bytes";
  }
  if (memory.total() <= memory_bytes) return std::nullopt;
  return "Error: this model needs " + readable_size(memory.total()) + " of memory (weights " +
         readable_size(memory.weights) + ", key/value caches " + readable_size(memory.caches) + ", buffers " +
         readable_size(memory.buffers) + "), more than the " + readable_size(memory_bytes) +
         " this machine has; lower max_position_embeddings or use a smaller model";
}

}  // namespace

std::optional<std::string> start_up_refusal(const InitConfig& config, std::uint64_t memory_bytes) {
  if (answered_while_building(config)) return std::nullopt;
  if (auto refusal = shape_refusal(config)) return refusal;
  return memory_refusal(estimate_model_memory(config, thread_count()), memory_bytes);
}

}  // namespace quorvel
