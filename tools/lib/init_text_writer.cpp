#include "tools/lib/init_text_writer.h"

#include <charconv>
#include <span>
#include <stdexcept>
#include <utility>
#include <vector>

#include "runtime/formats/format_table.h"
#include "tools/lib/binary_writer.h"

namespace quorvel::tools {
namespace {

using KeyValue = std::pair<std::string, std::string>;

// Shortest text that reads back as the same double.
std::string double_text(double value) {
  char text[32];
  const auto result = std::to_chars(text, text + sizeof text, value);
  return std::string(text, result.ptr);
}

std::string flag_text(bool flag) { return flag ? "1" : "0"; }

std::string quant_text(QuantFormat format) {
  if (const formats::StorageFormat* entry = formats::find_storage_format(format)) return std::string(entry->name);
  throw std::invalid_argument("no init config text names quant format " +
                              std::to_string(static_cast<unsigned>(format)));
}

std::string eos_text(const InitConfig& config) {
  std::string text;
  for (std::uint64_t i = 0; i < config.num_eos_tokens && i < kMaxEosTokens; ++i) {
    if (i > 0) text += ',';
    text += std::to_string(config.eos_tokens[i]);
  }
  return text;
}

std::vector<KeyValue> init_entries(const InitConfig& c) {
  std::vector<KeyValue> entries = {
      {"arch_type", std::to_string(c.arch_type)},
      {"activation", std::to_string(c.activation)},
      {"hidden_dim", std::to_string(c.hidden_dim)},
      {"intermediate_dim", std::to_string(c.intermediate_dim)},
      {"num_layers", std::to_string(c.num_layers)},
      {"num_heads", std::to_string(c.num_heads)},
      {"num_kv_heads", std::to_string(c.num_kv_heads)},
      {"vocab_size", std::to_string(c.vocab_size)},
      {"head_dim", std::to_string(c.head_dim)},
      {"max_position_embeddings", std::to_string(c.max_position_embeddings)},
      {"norm_eps", double_text(c.norm_eps)},
      {"rope_theta", double_text(c.rope_theta)},
      {"tie_word_embeddings", flag_text(c.tie_word_embeddings)},
      {"has_qkv_bias", flag_text(c.has_qkv_bias)},
      {"has_attn_sub_norm", flag_text(c.has_attn_sub_norm)},
      {"has_ffn_sub_norm", flag_text(c.has_ffn_sub_norm)},
      {"lora_quant", quant_text(c.lora_quant)},
      {"unembed_quant", quant_text(c.unembed_quant)},
      {"num_threads", std::to_string(c.num_threads)},
      {"eos_tokens", eos_text(c)},
  };
  if (!c.lora_dir.empty()) entries.emplace_back("lora_dir", c.lora_dir);
  return entries;
}

}  // namespace

std::string format_init_text(const InitConfig& config) {
  const std::vector<KeyValue> entries = init_entries(config);
  std::string text = std::to_string(entries.size()) + "\n";
  for (const auto& [key, value] : entries) text += key + "=" + value + "\n";
  return text;
}

void write_init_text(const std::filesystem::path& path, const InitConfig& config) {
  const std::string text = format_init_text(config);
  BinaryWriter out(path);
  out.write_bytes(text.data(), text.size());
  out.finish();
}

}  // namespace quorvel::tools
