// The payload objects of a model file (reference_model.h) written as the
// tensors of a published checkpoint: Hugging Face safetensors names or GGUF
// names, in the storage form a case asks for.
#pragma once

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/convert/checkpoint_files.h"
#include "tools/convert/half_float.h"
#include "tools/convert/reference_model.h"

namespace quorvel::convert::testing {

// How a checkpoint stores a tensor.
enum class Form { BF16, F16, F32, PACKED_U8, I2_S, TQ2_0, Q1_0, Q2_0, Q8_0 };

struct CheckpointRecipe {
  bool gguf = false;
  Form tables = Form::BF16;       // embedding and output tables
  Form projections = Form::BF16;  // the layers' matrices
  Form vectors = Form::BF16;      // norms and biases
  bool divide_by_weight_scale = true;  // packed U8: weight_scale = 1 / gamma, else gamma
  std::string weight_scale_dtype = "BF16";
  bool permute_qk = false;  // GGUF "llama": Q and K rows interleaved per head
};

inline std::string slot_name(LayerSlot slot, bool gguf) {
  switch (slot) {
    case LayerSlot::ATTENTION_NORM: return gguf ? "attn_norm" : "input_layernorm";
    case LayerSlot::ATTENTION_SUB_NORM: return gguf ? "attn_sub_norm" : "self_attn.attn_sub_norm";
    case LayerSlot::K: return gguf ? "attn_k" : "self_attn.k_proj";
    case LayerSlot::V: return gguf ? "attn_v" : "self_attn.v_proj";
    case LayerSlot::Q: return gguf ? "attn_q" : "self_attn.q_proj";
    case LayerSlot::Q_NORM: return gguf ? "attn_q_norm" : "self_attn.q_norm";
    case LayerSlot::K_NORM: return gguf ? "attn_k_norm" : "self_attn.k_norm";
    case LayerSlot::O: return gguf ? "attn_output" : "self_attn.o_proj";
    case LayerSlot::FFN_NORM: return gguf ? "ffn_norm" : "post_attention_layernorm";
    case LayerSlot::GATE: return gguf ? "ffn_gate" : "mlp.gate_proj";
    case LayerSlot::UP: return gguf ? "ffn_up" : "mlp.up_proj";
    case LayerSlot::FFN_SUB_NORM: return gguf ? "ffn_sub_norm" : "mlp.ffn_sub_norm";
    case LayerSlot::DOWN: return gguf ? "ffn_down" : "mlp.down_proj";
  }
  return "";
}

inline std::string tensor_name(const PayloadObject& o, bool gguf) {
  switch (o.kind) {
    case PayloadObject::EMBEDDING: return gguf ? "token_embd.weight" : "model.embed_tokens.weight";
    case PayloadObject::OUTPUT: return gguf ? "output.weight" : "lm_head.weight";
    case PayloadObject::FINAL_NORM: return gguf ? "output_norm.weight" : "model.norm.weight";
    default: break;
  }
  const std::string suffix = o.kind == PayloadObject::LAYER_BIAS ? ".bias" : ".weight";
  return (gguf ? "blk." : "model.layers.") + std::to_string(o.layer) + "." + slot_name(o.slot, gguf) + suffix;
}

// Interleaves the rows of each head of `head_dim` rows the way GGUF writers
// do for adjacent-pair rotation: stored row 2j is row j, 2j + 1 is j + D/2.
inline PayloadObject interleave_heads(PayloadObject o, std::uint64_t head_dim) {
  const std::size_t header = o.format == WeightFormat::TERNARY ? 8 : 0;
  const std::uint64_t rows = o.is_vector() ? o.cols : o.rows;
  const std::size_t row_bytes = (o.bytes.size() - header) / rows;
  std::string out = o.bytes;
  for (std::uint64_t r = 0; r < rows; ++r) {
    const std::uint64_t head = r / head_dim, j = r % head_dim, half = head_dim / 2;
    const std::uint64_t stored = head * head_dim + (j < half ? 2 * j : 2 * (j - half) + 1);
    out.replace(header + stored * row_bytes, row_bytes, o.bytes, header + r * row_bytes, row_bytes);
  }
  o.bytes = out;
  return o;
}

inline std::string packed_u8(const PayloadObject& o) {
  const std::vector<std::uint8_t> codes = codes_of(o);
  const std::uint64_t plane_rows = o.rows / 4;
  std::string out(plane_rows * o.cols, '\0');
  for (std::uint64_t r = 0; r < o.rows; ++r) {
    for (std::uint64_t c = 0; c < o.cols; ++c) {
      out[(r % plane_rows) * o.cols + c] |= static_cast<char>(codes[r * o.cols + c] << (2 * (r / plane_rows)));
    }
  }
  return out;
}

inline std::string i2_s(const PayloadObject& o) {
  const auto gamma = static_cast<float>(ternary_gamma(o));
  return o.bytes.substr(8) + f32_bytes(std::vector<float>(8, gamma));
}

inline std::string tq2_0(const PayloadObject& o) {
  const std::vector<std::uint8_t> codes = codes_of(o);
  quorvel::testing::ByteWriter out;
  for (std::uint64_t first = 0; first < codes.size(); first += 256) {
    std::string block(64, '\0');
    for (std::uint64_t j = 0; j < 256; ++j) {
      const std::uint64_t half = j / 128, l = (j % 128) / 32, m = j % 32;
      block[32 * half + m] |= static_cast<char>(codes[first + j] << (2 * l));
    }
    out.text(block).u16(float_to_half(static_cast<float>(ternary_gamma(o))));
  }
  return out.bytes();
}

inline std::string q1_0_blocks(const PayloadObject& o) {
  const std::vector<float> scales = block_scales(o);
  quorvel::testing::ByteWriter out;
  for (std::size_t b = 0; b < scales.size(); ++b) {
    out.u16(float_to_half(scales[b]));
    for (std::size_t k = 0; k < 16; ++k) {
      const auto ours = static_cast<std::uint8_t>(o.bytes[b * sizeof(formats::BlockQ1_0) + k]);
      std::uint8_t reversed = 0;
      for (int bit = 0; bit < 8; ++bit) reversed |= static_cast<std::uint8_t>(((ours >> bit) & 1) << (7 - bit));
      out.u8(reversed);
    }
  }
  return out.bytes();
}

inline std::string q2_0_blocks(const PayloadObject& o) {
  const std::vector<std::uint8_t> codes = codes_of(o);
  const std::vector<float> scales = block_scales(o);
  quorvel::testing::ByteWriter out;
  for (std::uint64_t first = 0; first < codes.size(); first += 64) {
    out.u16(float_to_half(scales[first / 128]));
    for (std::uint64_t k = 0; k < 16; ++k) {
      std::uint8_t byte = 0;
      for (std::uint64_t j = 0; j < 4; ++j) byte |= static_cast<std::uint8_t>(codes[first + 4 * k + j] << (2 * j));
      out.u8(byte);
    }
  }
  return out.bytes();
}

// Q8_0 blocks of `values` (d = amax / 127 in f16, q = round(x / d)), and in
// `dequantized` what they hold.
inline std::string q8_0_blocks(const std::vector<float>& values, std::vector<float>& dequantized) {
  quorvel::testing::ByteWriter out;
  dequantized.assign(values.size(), 0.0f);
  for (std::size_t first = 0; first < values.size(); first += 32) {
    float amax = 0.0f;
    for (std::size_t j = 0; j < 32; ++j) amax = std::max(amax, std::fabs(values[first + j]));
    const std::uint16_t d = float_to_half(amax / 127.0f);
    const float scale = static_cast<float>(half_to_float(d));
    out.u16(d);
    for (std::size_t j = 0; j < 32; ++j) {
      const float q = scale == 0.0f ? 0.0f : std::clamp(std::nearbyint(values[first + j] / scale), -127.0f, 127.0f);
      const auto code = static_cast<std::int8_t>(q);
      out.u8(static_cast<std::uint8_t>(code));
      dequantized[first + j] = scale * static_cast<float>(code);
    }
  }
  return out.bytes();
}

inline bool is_rotated(const PayloadObject& o) {
  return (o.kind == PayloadObject::LAYER_WEIGHT || o.kind == PayloadObject::LAYER_BIAS) && !o.is_norm &&
         (o.slot == LayerSlot::Q || o.slot == LayerSlot::K);
}

inline Form form_of(const PayloadObject& o, const CheckpointRecipe& recipe) {
  if (o.kind == PayloadObject::EMBEDDING || o.kind == PayloadObject::OUTPUT) return recipe.tables;
  return o.is_vector() ? recipe.vectors : recipe.projections;
}

// The tensors of one payload object in the recipe's form (a packed U8
// projection comes with its weight_scale).
inline std::vector<TensorBytes> encode(const PayloadObject& object, const CheckpointRecipe& recipe,
                                       std::uint64_t head_dim) {
  const PayloadObject o = recipe.permute_qk && is_rotated(object) ? interleave_heads(object, head_dim) : object;
  const Form form = form_of(o, recipe);
  const std::string name = tensor_name(o, recipe.gguf);
  const std::vector<std::uint64_t> shape =
      o.is_vector() ? std::vector<std::uint64_t>{o.cols} : std::vector<std::uint64_t>{o.rows, o.cols};
  std::vector<float> unused;
  switch (form) {
    case Form::BF16: return {{name, "BF16", shape, bf16_bytes(real_values(o)), GGML_BF16}};
    case Form::F16: return {{name, "F16", shape, f16_bytes(real_values(o)), GGML_F16}};
    case Form::F32: return {{name, "F32", shape, f32_bytes(real_values(o)), GGML_F32}};
    case Form::I2_S: return {{name, "", shape, i2_s(o), GGML_I2_S}};
    case Form::TQ2_0: return {{name, "", shape, tq2_0(o), GGML_TQ2_0}};
    case Form::Q1_0: return {{name, "", shape, q1_0_blocks(o), GGML_Q1_0}};
    case Form::Q2_0: return {{name, "", shape, q2_0_blocks(o), GGML_Q2_0}};
    case Form::Q8_0: return {{name, "", shape, q8_0_blocks(real_values(o), unused), GGML_Q8_0}};
    case Form::PACKED_U8: break;
  }
  const double gamma = ternary_gamma(o);
  const auto scale = static_cast<float>(recipe.divide_by_weight_scale ? 1.0 / gamma : gamma);
  const std::string scale_bytes = recipe.weight_scale_dtype == "F32" ? f32_bytes({scale}) : bf16_bytes({scale});
  return {{name, "U8", {o.rows / 4, o.cols}, packed_u8(o)},
          {name + "_scale", recipe.weight_scale_dtype, {1}, scale_bytes}};
}

inline std::vector<TensorBytes> checkpoint_tensors(const InitConfig& c, const std::vector<PayloadObject>& objects,
                                                   const CheckpointRecipe& recipe) {
  std::vector<TensorBytes> tensors;
  for (const PayloadObject& o : objects) {
    for (TensorBytes& t : encode(o, recipe, c.head_dim)) tensors.push_back(std::move(t));
  }
  return tensors;
}

// config.json of a Hugging Face checkpoint with the shapes of `c`.
inline nlohmann::json config_json(const InitConfig& c, const std::string& architecture) {
  std::vector<std::int64_t> eos(c.eos_tokens.begin(), c.eos_tokens.begin() + static_cast<long>(c.num_eos_tokens));
  return {{"architectures", {architecture}},
          {"hidden_size", c.hidden_dim},
          {"intermediate_size", c.intermediate_dim},
          {"num_hidden_layers", c.num_layers},
          {"num_attention_heads", c.num_heads},
          {"num_key_value_heads", c.num_kv_heads},
          {"head_dim", c.head_dim},
          {"vocab_size", c.vocab_size},
          {"max_position_embeddings", c.max_position_embeddings},
          {"rms_norm_eps", c.norm_eps},
          {"rope_theta", c.rope_theta},
          {"tie_word_embeddings", c.tie_word_embeddings},
          {"attention_bias", c.has_qkv_bias},
          {"hidden_act", c.activation == 0 ? "relu2" : "silu"},
          {"eos_token_id", eos}};
}

// The GGUF metadata that gives the shapes of `c`.
inline GgufBuilder gguf_metadata(const InitConfig& c, const std::string& arch) {
  GgufBuilder gguf;
  gguf.str("general.architecture", arch)
      .u32(arch + ".context_length", static_cast<std::uint32_t>(c.max_position_embeddings))
      .u32(arch + ".embedding_length", static_cast<std::uint32_t>(c.hidden_dim))
      .u32(arch + ".block_count", static_cast<std::uint32_t>(c.num_layers))
      .u32(arch + ".feed_forward_length", static_cast<std::uint32_t>(c.intermediate_dim))
      .u32(arch + ".attention.head_count", static_cast<std::uint32_t>(c.num_heads))
      .u32(arch + ".attention.head_count_kv", static_cast<std::uint32_t>(c.num_kv_heads))
      .u32(arch + ".attention.key_length", static_cast<std::uint32_t>(c.head_dim))
      .f32(arch + ".attention.layer_norm_rms_epsilon", static_cast<float>(c.norm_eps))
      .f32(arch + ".rope.freq_base", static_cast<float>(c.rope_theta));
  if (c.num_eos_tokens > 0) gguf.u32("tokenizer.ggml.eos_token_id", static_cast<std::uint32_t>(c.eos_tokens[0]));
  return gguf;
}

}  // namespace quorvel::convert::testing
