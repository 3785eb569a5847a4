// The safetensors front end: a checkpoint directory as published, with its
// config.json naming the architecture and the shapes.
#include <memory>

#include "tools/convert/checkpoint.h"
#include "tools/convert/convert_error.h"
#include "tools/convert/json_file.h"
#include "tools/convert/safetensors_file.h"
#include "tools/convert/tensor_names.h"

namespace quorvel::convert {
namespace {

using std::filesystem::path;

constexpr const char* kSupported =
    "supported: BitNetForCausalLM, LlamaForCausalLM with a bitnet quantization_config (1.58-bit), "
    "Qwen3ForCausalLM";

std::int32_t activation_code(const json& config, const path& file) {
  const std::string act = json_text(config, "hidden_act", file).value_or("silu");
  if (act == "silu") return 1;
  if (act == "relu2") return 0;
  throw ConvertError(file, "hidden_act '" + act + "' is not supported (supported: silu, relu2)");
}

const json* quantization_config(const json& config) {
  const auto found = config.find("quantization_config");
  return found != config.end() && found->is_object() ? &*found : nullptr;
}

bool has_bitnet_quantization(const json& config, const path& file) {
  const json* quantization = quantization_config(config);
  return quantization && json_text(*quantization, "quant_method", file) == "bitnet";
}

ScaleConvention scale_convention(const json& config, const path& file) {
  const json* quantization = quantization_config(config);
  if (!quantization) return ScaleConvention::DIVIDE;
  const std::string linear_class = json_text(*quantization, "linear_class", file).value_or("bitlinear");
  if (linear_class == "bitlinear") return ScaleConvention::DIVIDE;
  if (linear_class == "autobitlinear" &&
      json_text(*quantization, "quantization_mode", file).value_or("offline") == "offline") {
    return ScaleConvention::MULTIPLY;
  }
  throw ConvertError(file,
                     "quantization_config linear_class '" + linear_class +
                         "' is not supported (supported: bitlinear, autobitlinear with quantization_mode offline)");
}

// The architecture code of `name`, or ConvertError.
std::int32_t arch_of(const std::string& name, const json& config, const path& file, const ConvertOptions& options,
                     std::vector<std::string>& notes) {
  if (name == "Qwen3ForCausalLM") return qwen3_arch(options, notes);
  if (options.to) throw ConvertError(file, "--to applies to Qwen3ForCausalLM checkpoints only, not " + name);
  if (name == "BitNetForCausalLM" || name == "BitnetForCausalLM") return 1;
  if (name == "LlamaForCausalLM" && has_bitnet_quantization(config, file)) return 2;
  if (name == "LlamaForCausalLM") {
    throw ConvertError(file, "LlamaForCausalLM without a bitnet quantization_config is not a 1.58-bit model; " +
                                 std::string(kSupported));
  }
  throw ConvertError(file, "architecture '" + name + "' is not supported; " + kSupported);
}

std::optional<RopeScaling> rope_scaling_of(const json& config, const path& file) {
  const auto found = config.find("rope_scaling");
  if (found == config.end() || found->is_null()) return std::nullopt;
  if (!found->is_object()) throw ConvertError(file, "rope_scaling must be null or an object");
  RopeScaling scaling;
  scaling.type = json_text(*found, "rope_type", file).value_or(json_text(*found, "type", file).value_or(""));
  if (scaling.type == "default") return std::nullopt;
  if (!known_rope_scaling(scaling.type)) {
    throw ConvertError(file, "rope_scaling type '" + scaling.type + "' is not supported (supported: linear, llama3)");
  }
  scaling.factor = json_number(*found, "factor", file).value_or(1.0);
  scaling.low_freq_factor = json_number(*found, "low_freq_factor", file).value_or(1.0);
  scaling.high_freq_factor = json_number(*found, "high_freq_factor", file).value_or(4.0);
  scaling.original_context = json_number(*found, "original_max_position_embeddings", file).value_or(8192.0);
  if (scaling.factor <= 0.0 || scaling.high_freq_factor <= scaling.low_freq_factor) {
    throw ConvertError(file, "rope_scaling factors are out of range");
  }
  return scaling;
}

void read_shapes(const json& config, const path& file, InitConfig& c) {
  c.hidden_dim = required_count(config, "hidden_size", file);
  c.intermediate_dim = required_count(config, "intermediate_size", file);
  c.num_layers = required_count(config, "num_hidden_layers", file);
  c.num_heads = required_count(config, "num_attention_heads", file);
  c.num_kv_heads = json_count(config, "num_key_value_heads", file).value_or(c.num_heads);
  c.vocab_size = required_count(config, "vocab_size", file);
  c.head_dim = json_count(config, "head_dim", file).value_or(c.num_heads ? c.hidden_dim / c.num_heads : 0);
  c.norm_eps = json_number(config, "rms_norm_eps", file).value_or(1e-6);
  c.rope_theta = json_number(config, "rope_theta", file).value_or(10000.0);
  c.has_qkv_bias = json_flag(config, "attention_bias", file).value_or(false);
}

std::vector<std::int64_t> eos_tokens(const path& dir, const json& config, const path& config_file) {
  const path generation_file = dir / "generation_config.json";
  if (std::filesystem::exists(generation_file)) {
    const json generation = read_json_file(generation_file);
    if (auto ids = json_ids(generation, "eos_token_id", generation_file)) return *ids;
  }
  return json_ids(config, "eos_token_id", config_file).value_or(std::vector<std::int64_t>{});
}

// The tokenizer and generation files travel with the model as they are.
std::string copy_tokenizer_files(const path& from, const path& to) {
  std::string copied;
  for (const char* name : {"tokenizer.json", "tokenizer_config.json", "special_tokens_map.json",
                           "generation_config.json", "chat_template.jinja"}) {
    if (!std::filesystem::exists(from / name)) continue;
    std::error_code error;
    std::filesystem::copy_file(from / name, to / name, error);
    if (error) throw ConvertError(from / name, "cannot be copied: " + error.message());
    copied += (copied.empty() ? "" : ", ") + std::string(name);
  }
  const std::string copied_text = copied.empty() ? "" : " (copied " + copied + ")";
  if (!std::filesystem::exists(from / "tokenizer.json")) {
    return "tokenizer: the checkpoint has no tokenizer.json; bring the model's own" + copied_text;
  }
  return "tokenizer: copied " + copied;
}

TensorNaming safetensors_naming() {
  return {"model.embed_tokens.weight", "lm_head.weight", "model.norm.weight", "model.layers.", safetensors_slot_name};
}

}  // namespace

Checkpoint open_safetensors_checkpoint(const path& dir, const ConvertOptions& options) {
  const path config_file = dir / "config.json";
  const json config = read_json_file(config_file);
  const auto architectures = config.find("architectures");
  if (architectures == config.end() || !architectures->is_array() || architectures->empty() ||
      !(*architectures)[0].is_string()) {
    throw ConvertError(config_file, "key 'architectures' must be a list naming the model class");
  }
  auto files = std::make_shared<SafetensorsCheckpoint>(read_safetensors_checkpoint(dir));
  Checkpoint checkpoint;
  checkpoint.origin = dir;
  const std::string name = (*architectures)[0].get<std::string>();
  checkpoint.description = "safetensors " + name;
  InitConfig& c = checkpoint.config;
  c.arch_type = arch_of(name, config, config_file, options, checkpoint.notes);
  c.activation = activation_code(config, config_file);
  c.has_attn_sub_norm = c.has_ffn_sub_norm = c.arch_type == 1;
  read_shapes(config, config_file, c);
  checkpoint.scale_convention = scale_convention(config, config_file);
  checkpoint.naming = safetensors_naming();
  const bool has_output = files->tensors.find(checkpoint.naming.output) != nullptr;
  c.tie_word_embeddings = json_flag(config, "tie_word_embeddings", config_file).value_or(!has_output);
  checkpoint.tensors = &files->tensors;
  checkpoint.storage = files;
  checkpoint.export_tokenizer = [dir](const path& to) { return copy_tokenizer_files(dir, to); };
  ModelExtras extras;
  extras.native_context = required_count(config, "max_position_embeddings", config_file);
  extras.eos_tokens = eos_tokens(dir, config, config_file);
  extras.rope_scaling = rope_scaling_of(config, config_file);
  finish_checkpoint(checkpoint, extras, options);
  return checkpoint;
}

}  // namespace quorvel::convert
