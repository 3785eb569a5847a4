// The init config: the first block on standard input, which tells the
// engine the shape of the model it is about to load and how to run it.
// The model files carry no shapes of their own, so the model is built from
// this record; the model and every layer borrow it.
#pragma once

#include <array>
#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <vector>

#include "engine/key_value_block.h"

namespace quorvel {

// A weight format for LoRA factors and the unembedding table.
enum class QuantFormat : std::uint8_t {
  NONE = 0,  // "none" and "bf16": unquantized
  TERNARY = 1,  // no config text selects it
  INT8 = 2,
  Q4_0 = 3,
  Q5_0 = 4,
  Q6_K = 5,
  Q8_0 = 6,
};

// The architecture code, shared by the init config and the model file.
enum class ArchType : std::int32_t {
  BITNET = 1,
  LLAMA = 2,
  QWEN3_5 = 3,
  BONSAI = 4,
  BONSAI_TERNARY = 5,
  QWEN3 = 6,
};

inline constexpr std::size_t kMaxEosTokens = 8;

struct InitConfig {
  std::int32_t arch_type = 0;
  std::int32_t activation = 1;
  std::uint64_t hidden_dim = 4096;
  std::uint64_t intermediate_dim = 8192;
  std::uint64_t num_layers = 32;
  std::uint64_t num_heads = 32;
  std::uint64_t num_kv_heads = 8;
  std::uint64_t vocab_size = 32000;
  std::uint64_t head_dim = 128;
  std::uint64_t max_position_embeddings = 4096;
  double norm_eps = 1e-5;
  double rope_theta = 10000.0;
  bool tie_word_embeddings = false;
  bool has_qkv_bias = false;
  bool has_attn_sub_norm = false;
  bool has_ffn_sub_norm = false;
  QuantFormat lora_quant = QuantFormat::NONE;
  QuantFormat unembed_quant = QuantFormat::INT8;
  std::int32_t num_threads = 0;
  std::uint64_t num_eos_tokens = 0;
  std::array<std::int64_t, kMaxEosTokens> eos_tokens{};
  std::string lora_dir;
};

// Builds the record from a block; throws std::runtime_error with the
// engine's message (or the standard conversion's exception) on bad values.
InitConfig parse_init_config(const KeyValueBlock& block);

// Lower-cases `value` and matches it against the format texts; throws
// "Unknown value for <key>: <lower-cased value>" otherwise.
QuantFormat parse_quant_format(const std::string& key, const std::string& value);

// Splits at ',' (empty pieces skipped) and converts each piece as an
// unsigned 64-bit number. Shared with the request key "tokens".
std::vector<std::int64_t> parse_token_list(const std::string& value);

// Reads the first block of `in` and parses it. Throws "Failed to read init
// config block" when the reader finds no block (a result below 1).
InitConfig read_init_config(std::istream& in);

// The driver's refusals after a successful parse, first failing check only:
// a TERNARY lora_quant, then a NONE or TERNARY unembed_quant. nullopt when the
// formats are supported.
std::optional<std::string> unsupported_format_message(const InitConfig& config);

}  // namespace quorvel
