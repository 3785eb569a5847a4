#include "tools/lib/make_model_options.h"

#include <charconv>
#include <string>
#include <unordered_map>

#include "engine/init_config_parser.h"
#include "tools/lib/rope_cache_writer.h"
#include "tools/lib/tensor_layout.h"
#include "tools/lib/utf8_path.h"

namespace quorvel::tools {

const char kMakeModelUsage[] =
    "Usage: quorvel-make-model <output directory> --arch 1-6 [--hidden N] [--intermediate N] [--layers N] "
    "[--heads N] [--kv-heads N] [--head-dim N] [--vocab N] [--max-pos N] [--rope-theta X] [--norm-eps X] "
    "[--activation 0|1] [--eos ID,...] [--tied] [--qkv-bias] [--unembed-quant FORMAT] [--version 3|4] "
    "[--section KIND[:VALUE]]... [--seed N] [--lora-rank N] "
    "[--lora-targets [LAYER:]all|none|k,v,q,o,ffn1,ffn2,down]... [--lora-scale X] [--lora-zero-b] [--lora-dir DIR] "
    "[--lora-quant FORMAT]";

namespace {

// Small shapes that every architecture can load: the per-head norms of
// arch 4 to 6 need head_dim to be a multiple of 128 as well.
InitConfig default_config() {
  InitConfig config;
  config.hidden_dim = 512;
  config.intermediate_dim = 1024;
  config.num_layers = 4;
  config.num_heads = 4;
  config.num_kv_heads = 2;
  config.head_dim = 128;
  config.vocab_size = 1000;
  config.max_position_embeddings = 512;
  config.num_eos_tokens = 1;
  config.eos_tokens[0] = 2;
  return config;
}

template <typename T>
T parse_number(std::string_view option, std::string_view text) {
  T value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) {
    throw UsageError("invalid value for " + std::string(option) + ": '" + std::string(text) + "'");
  }
  return value;
}

template <typename T>
T parse_in_range(std::string_view option, std::string_view text, T low, T high) {
  const T value = parse_number<T>(option, text);
  if (value < low || value > high) {
    throw UsageError(std::string(option) + " must be " + std::to_string(low) + " to " + std::to_string(high) +
                     ", got " + std::string(text));
  }
  return value;
}

using ValueSetter = void (*)(MakeModelOptions&, std::string_view option, std::string_view value);

template <auto Field>
void set_unsigned(MakeModelOptions& options, std::string_view option, std::string_view value) {
  options.config.*Field = parse_number<std::uint64_t>(option, value);
}

template <auto Field>
void set_double(MakeModelOptions& options, std::string_view option, std::string_view value) {
  options.config.*Field = parse_number<double>(option, value);
}

void set_arch(MakeModelOptions& options, std::string_view option, std::string_view value) {
  options.config.arch_type = parse_in_range<std::int32_t>(option, value, 1, 6);
}

void set_activation(MakeModelOptions& options, std::string_view option, std::string_view value) {
  options.config.activation = parse_in_range<std::int32_t>(option, value, 0, 1);
}

// The engine's own list and format parsers, so that the tool accepts exactly
// the texts that init.txt may hold.
void set_eos_tokens(MakeModelOptions& options, std::string_view, std::string_view value) {
  const std::vector<std::int64_t> ids = parse_token_list(std::string(value));
  if (ids.size() > kMaxEosTokens) throw UsageError("--eos takes at most 8 ids, got " + std::to_string(ids.size()));
  options.config.num_eos_tokens = ids.size();
  std::copy(ids.begin(), ids.end(), options.config.eos_tokens.begin());
}

void set_unembed_quant(MakeModelOptions& options, std::string_view, std::string_view value) {
  try {
    options.config.unembed_quant = parse_quant_format("unembed_quant", std::string(value));
  } catch (const std::runtime_error& error) {
    throw UsageError(error.what());
  }
}

void set_version(MakeModelOptions& options, std::string_view option, std::string_view value) {
  options.file.version = parse_in_range<std::uint32_t>(option, value, 3, 4);
}

// KIND or KIND:VALUE; the value means nothing to the engine and is 0 when omitted.
void add_section(MakeModelOptions& options, std::string_view option, std::string_view value) {
  const std::size_t colon = value.find(':');
  const std::string_view kind = value.substr(0, colon);
  const std::string_view word = colon == std::string_view::npos ? "0" : value.substr(colon + 1);
  options.file.sections.push_back(
      {parse_in_range<std::uint8_t>(option, kind, 0, 255), parse_number<std::uint32_t>(option, word)});
}

void set_seed(MakeModelOptions& options, std::string_view option, std::string_view value) {
  options.file.seed = parse_number<std::uint64_t>(option, value);
}

// Any --lora-* option but --lora-quant asks for an adapter.
LoraFileOptions& adapter(MakeModelOptions& options) {
  if (!options.lora) options.lora.emplace();
  return *options.lora;
}

void set_lora_rank(MakeModelOptions& options, std::string_view option, std::string_view value) {
  adapter(options).rank = parse_number<std::uint32_t>(option, value);
}

void set_lora_scale(MakeModelOptions& options, std::string_view option, std::string_view value) {
  adapter(options).scale = parse_number<double>(option, value);
}

void set_lora_dir(MakeModelOptions& options, std::string_view, std::string_view value) {
  adapter(options);
  options.config.lora_dir = std::string(value);
}

// LIST for every layer, or LAYER:LIST for one layer.
void add_lora_targets(MakeModelOptions& options, std::string_view option, std::string_view value) {
  const std::size_t colon = value.find(':');
  LoraTargetSet targets;
  try {
    targets = parse_lora_targets(colon == std::string_view::npos ? value : value.substr(colon + 1));
  } catch (const std::invalid_argument& error) {
    throw UsageError(error.what());
  }
  if (colon == std::string_view::npos) {
    adapter(options).targets = targets;
  } else {
    adapter(options).layer_targets[parse_number<std::uint64_t>(option, value.substr(0, colon))] = targets;
  }
}

void set_lora_quant(MakeModelOptions& options, std::string_view, std::string_view value) {
  try {
    options.config.lora_quant = parse_quant_format("lora_quant", std::string(value));
  } catch (const std::runtime_error& error) {
    throw UsageError(error.what());
  }
}

const std::unordered_map<std::string_view, ValueSetter>& value_options() {
  static const std::unordered_map<std::string_view, ValueSetter> setters = {
      {"--arch", set_arch},
      {"--hidden", set_unsigned<&InitConfig::hidden_dim>},
      {"--intermediate", set_unsigned<&InitConfig::intermediate_dim>},
      {"--layers", set_unsigned<&InitConfig::num_layers>},
      {"--heads", set_unsigned<&InitConfig::num_heads>},
      {"--kv-heads", set_unsigned<&InitConfig::num_kv_heads>},
      {"--head-dim", set_unsigned<&InitConfig::head_dim>},
      {"--vocab", set_unsigned<&InitConfig::vocab_size>},
      {"--max-pos", set_unsigned<&InitConfig::max_position_embeddings>},
      {"--rope-theta", set_double<&InitConfig::rope_theta>},
      {"--norm-eps", set_double<&InitConfig::norm_eps>},
      {"--activation", set_activation},
      {"--eos", set_eos_tokens},
      {"--unembed-quant", set_unembed_quant},
      {"--version", set_version},
      {"--section", add_section},
      {"--seed", set_seed},
      {"--lora-rank", set_lora_rank},
      {"--lora-targets", add_lora_targets},
      {"--lora-scale", set_lora_scale},
      {"--lora-dir", set_lora_dir},
      {"--lora-quant", set_lora_quant},
  };
  return setters;
}

// Returns true when `arg` is a flag (and applies it).
bool apply_flag(MakeModelOptions& options, std::string_view arg) {
  if (arg == "--tied") {
    options.config.tie_word_embeddings = true;
  } else if (arg == "--qkv-bias") {
    options.config.has_qkv_bias = true;
  } else if (arg == "--lora-zero-b") {
    adapter(options).zero_b = true;
  } else {
    return false;
  }
  return true;
}

void check_shapes(const InitConfig& config) {
  if (config.hidden_dim == 0 || config.num_heads == 0 || config.num_kv_heads == 0 || config.vocab_size == 0 ||
      config.max_position_embeddings == 0) {
    throw UsageError("--hidden, --heads, --kv-heads, --vocab and --max-pos must be at least 1");
  }
  if (const auto problem = unwritable_rope_shape(config.head_dim)) throw UsageError(*problem);
  if (const auto problem = unwritable_shape(config)) throw UsageError(*problem);
}

void check_lora(const MakeModelOptions& options) {
  if (!options.lora) return;
  if (const auto problem = unwritable_lora_targets(options.config, *options.lora)) throw UsageError(*problem);
}

}  // namespace

MakeModelOptions parse_make_model_args(std::span<const std::string_view> args) {
  MakeModelOptions options{.output_dir = {}, .config = default_config(), .file = {}, .lora = {}};
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string_view arg = args[i];
    if (apply_flag(options, arg)) continue;
    if (const auto setter = value_options().find(arg); setter != value_options().end()) {
      if (i + 1 == args.size()) throw UsageError(std::string(arg) + " needs a value");
      setter->second(options, arg, args[++i]);
    } else if (arg.starts_with("--") || !options.output_dir.empty()) {
      throw UsageError("unexpected argument '" + std::string(arg) + "'");
    } else {
      options.output_dir = utf8_path(arg);
    }
  }
  if (options.output_dir.empty()) throw UsageError("missing output directory");
  if (options.config.arch_type == 0) throw UsageError("missing --arch");
  // BitNet layers always carry both sub-norms; say so in the config as well.
  options.config.has_attn_sub_norm = options.config.has_ffn_sub_norm = options.config.arch_type == 1;
  if (options.lora) {
    if (options.config.lora_dir.empty()) options.config.lora_dir = options.output_dir.string();
    options.lora->seed = options.file.seed + 1;  // not the model's own sequence
  }
  check_shapes(options.config);
  check_lora(options);
  return options;
}

}  // namespace quorvel::tools
