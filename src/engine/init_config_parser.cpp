#include "engine/init_config_parser.h"

#include <algorithm>
#include <cctype>
#include <iostream>
#include <stdexcept>
#include <string_view>
#include <unordered_map>

#include "runtime/formats/format_table.h"

namespace quorvel {
namespace {

// Value converters, one per field type. They share one signature so that a
// single table can route every key; only the quant formats use the key
// (for their error message). The standard conversions throw their own
// exceptions on text without digits or out of range, and those propagate.
std::uint64_t to_unsigned(const std::string&, const std::string& value) { return std::stoull(value); }
std::int32_t to_signed(const std::string&, const std::string& value) { return std::stoi(value); }
double to_double(const std::string&, const std::string& value) { return std::stod(value); }

// Only a lone "0" turns a flag off; "false", "00" and the empty value all
// mean true. Hosts rely on this exact rule, so it is not made friendlier.
bool to_flag(const std::string&, const std::string& value) { return value.size() != 1 || value[0] != '0'; }

using FieldSetter = void (*)(InitConfig&, const std::string& key, const std::string& value);

template <auto Field, auto convert>
void assign(InitConfig& config, const std::string& key, const std::string& value) {
  config.*Field = convert(key, value);
}

// A list longer than the record holds is refused; a shorter one fills the
// first slots and leaves the rest as they were, since only the first
// num_eos_tokens slots are ever consulted.
void assign_eos_tokens(InitConfig& config, const std::string&, const std::string& value) {
  const std::vector<std::int64_t> ids = parse_token_list(value);
  if (ids.size() > kMaxEosTokens) {
    throw std::runtime_error("Too many EOS tokens: " + std::to_string(ids.size()));
  }
  config.num_eos_tokens = ids.size();
  std::copy(ids.begin(), ids.end(), config.eos_tokens.begin());
}

void assign_lora_dir(InitConfig& config, const std::string&, const std::string& value) {
  config.lora_dir = value;
}

const std::unordered_map<std::string_view, FieldSetter>& field_setters() {
  static const std::unordered_map<std::string_view, FieldSetter> setters = {
      {"arch_type", assign<&InitConfig::arch_type, to_signed>},
      {"activation", assign<&InitConfig::activation, to_signed>},
      {"hidden_dim", assign<&InitConfig::hidden_dim, to_unsigned>},
      {"intermediate_dim", assign<&InitConfig::intermediate_dim, to_unsigned>},
      {"num_layers", assign<&InitConfig::num_layers, to_unsigned>},
      {"num_heads", assign<&InitConfig::num_heads, to_unsigned>},
      {"num_kv_heads", assign<&InitConfig::num_kv_heads, to_unsigned>},
      {"vocab_size", assign<&InitConfig::vocab_size, to_unsigned>},
      {"head_dim", assign<&InitConfig::head_dim, to_unsigned>},
      {"max_position_embeddings", assign<&InitConfig::max_position_embeddings, to_unsigned>},
      {"norm_eps", assign<&InitConfig::norm_eps, to_double>},
      {"rope_theta", assign<&InitConfig::rope_theta, to_double>},
      {"tie_word_embeddings", assign<&InitConfig::tie_word_embeddings, to_flag>},
      {"has_qkv_bias", assign<&InitConfig::has_qkv_bias, to_flag>},
      {"has_attn_sub_norm", assign<&InitConfig::has_attn_sub_norm, to_flag>},
      {"has_ffn_sub_norm", assign<&InitConfig::has_ffn_sub_norm, to_flag>},
      {"lora_quant", assign<&InitConfig::lora_quant, parse_quant_format>},
      {"unembed_quant", assign<&InitConfig::unembed_quant, parse_quant_format>},
      {"num_threads", assign<&InitConfig::num_threads, to_signed>},
      {"eos_tokens", assign_eos_tokens},
      {"lora_dir", assign_lora_dir},
  };
  return setters;
}

std::string to_lower(const std::string& text) {
  std::string lowered = text;
  for (char& c : lowered) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return lowered;
}

}  // namespace

InitConfig parse_init_config(const KeyValueBlock& block) {
  InitConfig config;
  for (const auto& [key, value] : block) {
    const auto setter = field_setters().find(key);
    if (setter == field_setters().end()) {
      std::cerr << "Warning: unknown init config key '" << key << "'" << std::endl;
      continue;
    }
    setter->second(config, key, value);
  }
  if (!block.contains("arch_type")) {
    throw std::runtime_error("Init config missing required key 'arch_type'");
  }
  // Taken as unsigned so that one comparison refuses negative codes as well.
  if (static_cast<std::uint32_t>(config.activation) >= 2) {
    throw std::runtime_error("Unknown activation type: " + std::to_string(config.activation));
  }
  return config;
}

QuantFormat parse_quant_format(const std::string& key, const std::string& value) {
  const std::string lowered = to_lower(value);
  const formats::StorageFormat* format = formats::find_storage_format(std::string_view(lowered));
  if (format == nullptr) throw std::runtime_error("Unknown value for " + key + ": " + lowered);
  return format->format;
}

std::vector<std::int64_t> parse_token_list(const std::string& value) {
  std::vector<std::int64_t> ids;
  std::size_t start = 0;
  while (start <= value.size()) {
    const std::size_t comma = std::min(value.find(',', start), value.size());
    if (comma > start) {
      // Ids travel as unsigned text; a minus sign wraps as std::stoull does.
      ids.push_back(static_cast<std::int64_t>(std::stoull(value.substr(start, comma - start))));
    }
    start = comma + 1;
  }
  return ids;
}

InitConfig read_init_config(std::istream& in) {
  KeyValueBlock block;
  if (read_block(in, block) < 1) {
    throw std::runtime_error("Failed to read init config block");
  }
  return parse_init_config(block);
}

std::optional<std::string> unsupported_format_message(const InitConfig& config) {
  if (config.lora_quant == QuantFormat::TERNARY) {
    return "Error: lora_quant does not support 'ternary'";
  }
  if (config.unembed_quant == QuantFormat::NONE || config.unembed_quant == QuantFormat::TERNARY) {
    return "Error: unembed_quant does not support 'none' or 'ternary'";
  }
  return std::nullopt;
}

}  // namespace quorvel
