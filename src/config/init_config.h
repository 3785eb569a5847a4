// The init config: the record that tells the engine the shape of the model
// it is about to load and how to run it. The model files carry no shapes of
// their own, so the model is built from this record; the model and every
// layer borrow it. The engine fills it from the first block on standard
// input (engine/init_config_parser.h); the tools write it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "config/arch_type.h"
#include "config/quant_format.h"

namespace quorvel {

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

}  // namespace quorvel
