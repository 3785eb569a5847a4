#include "models/model_requirements.h"

#include <algorithm>
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

// The widths that every layer's constructors require in whole groups of 128,
// with their own messages: the norms' widths and, for the ternary and 1-bit
// formats, both shapes of every projection. None without layers.
std::vector<std::uint64_t> layer_widths_in_groups(const InitConfig& c) {
  std::vector<std::uint64_t> widths;
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

// Where building the model refuses the config with a message of its own:
// how much it has allocated by then. An unknown architecture code and a
// 1-bit embedding's width are refused before anything is allocated; the final
// norm's width once the token embedding is read; a layer's width and a layer
// count beyond the layer array once everything but the layers is. nullopt
// when none of its checks refuses.
std::optional<std::uint64_t> bytes_before_model_refusal(const InitConfig& c) {
  const auto arch = static_cast<ArchType>(c.arch_type);
  if (!is_known_architecture(c.arch_type)) return 0;
  if (c.hidden_dim % kGroupWidth != 0) {
    return arch == ArchType::BONSAI || arch == ArchType::BONSAI_TERNARY ? 0 : bytes_for_embedding(c, thread_count());
  }
  const std::vector<std::unique_ptr<layers::TransformerLayerBase>> layer_array;
  const std::vector<std::uint64_t> widths = layer_widths_in_groups(c);
  const bool layer_refused =
      std::any_of(widths.begin(), widths.end(), [](std::uint64_t w) { return w % kGroupWidth != 0; });
  if (c.num_layers > layer_array.max_size() || layer_refused) return bytes_before_layers(c, thread_count());
  return std::nullopt;
}

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
    if (value == 0) return "Error: " + config_entry(key, value) + " must be at least 1";
  }
  if (c.num_heads % c.num_kv_heads != 0) {
    return "Error: " + config_entry("num_heads", c.num_heads) + " must be a multiple of " +
           config_entry("num_kv_heads", c.num_kv_heads) + " (each key/value head serves a whole group of query heads)";
  }
  if (c.head_dim % kHeadDimMultiple != 0) {
    return "Error: " + config_entry("head_dim", c.head_dim) +
           " must be a multiple of 8 (rotary embedding turns each head in two halves of whole groups of 4)";
  }
  return std::nullopt;
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

std::optional<std::string> start_up_refusal(const InitConfig& config, std::uint64_t memory_bytes) {
  const ModelMemory memory = estimate_model_memory(config, thread_count());
  // The model's own message comes first, unless what building allocates
  // before it already does not fit.
  if (const std::optional<std::uint64_t> before = bytes_before_model_refusal(config)) {
    return *before <= memory_bytes ? std::nullopt : memory_refusal(memory, memory_bytes);
  }
  if (auto refusal = shape_refusal(config)) return refusal;
  return memory_refusal(memory, memory_bytes);
}

}  // namespace quorvel
