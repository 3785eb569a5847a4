#include "tools/convert/peft_adapter.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/convert/convert_error.h"
#include "tools/convert/json_file.h"
#include "tools/convert/safetensors_file.h"
#include "tools/convert/source_matrix.h"
#include "tools/lib/lora_file_writer.h"

namespace quorvel::convert {
namespace {

namespace fs = std::filesystem;
using tools::LayerTensor;

constexpr std::string_view kLayerPrefix = "base_model.model.model.layers.";

// The module of each record of a layer, in record order.
constexpr std::array<std::string_view, tools::kLoraTargetCount> kModules = {
    "self_attn.k_proj", "self_attn.v_proj", "self_attn.q_proj", "self_attn.o_proj",
    "mlp.gate_proj",    "mlp.up_proj",      "mlp.down_proj"};

constexpr char kModuleList[] = "q_proj, k_proj, v_proj, o_proj, gate_proj, up_proj or down_proj";

struct AdapterConfig {
  fs::path file;
  json keys;
  std::uint64_t rank = 0;
  double alpha = 0.0;
  bool rslora = false;
};

// One module's factors as the adapter stores them, and what its config says.
struct Module {
  const SourceTensor* a = nullptr;  // [rank, in]
  const SourceTensor* b = nullptr;  // [out, rank]
  std::uint64_t rank = 0;
  double scale = 0.0;
};

using ModuleKey = std::pair<std::uint64_t, std::uint32_t>;  // layer, record

std::string module_path(const ModuleKey& key) {
  return "model.layers." + std::to_string(key.first) + "." + std::string(kModules[key.second]);
}

std::string tensor_name(const ModuleKey& key, bool is_b) {
  return "base_model.model." + module_path(key) + (is_b ? ".lora_B.weight" : ".lora_A.weight");
}

// True when the list entry names one of the seven projections (by its own
// name or a path ending in it).
bool names_a_projection(std::string_view entry) {
  const std::string_view own = entry.substr(entry.rfind('.') + 1);
  return std::any_of(kModules.begin(), kModules.end(),
                     [&](std::string_view module) { return module.substr(module.find('.') + 1) == own; });
}

void refuse_target_modules(const AdapterConfig& config) {
  const auto found = config.keys.find("target_modules");
  if (found == config.keys.end() || found->is_string()) return;  // a pattern: the tensors decide
  if (!found->is_array()) throw ConvertError(config.file, "key 'target_modules' must be a list or a string");
  for (const json& entry : *found) {
    if (!entry.is_string()) throw ConvertError(config.file, "key 'target_modules' must list module names");
    if (!names_a_projection(entry.get<std::string>())) {
      throw ConvertError(config.file, "target_modules names '" + entry.get<std::string>() +
                                          "'; qmodel.lora holds adapters of " + kModuleList + " only");
    }
  }
}

// Settings that qmodel.lora cannot hold: another adapter type, DoRA, trained
// biases, whole saved modules, modules other than the seven projections.
void refuse_unsupported(const AdapterConfig& config) {
  const fs::path& file = config.file;
  const auto type = json_text(config.keys, "peft_type", file);
  if (type && *type != "LORA") throw ConvertError(file, "peft_type is " + *type + "; only LORA adapters convert");
  if (json_flag(config.keys, "use_dora", file).value_or(false)) {
    throw ConvertError(file, "use_dora is true; qmodel.lora has no place for DoRA's magnitude vectors");
  }
  const auto bias = json_text(config.keys, "bias", file);
  if (bias && *bias != "none") {
    throw ConvertError(file, "bias is \"" + *bias + "\"; qmodel.lora has no place for trained biases");
  }
  if (json_flag(config.keys, "lora_bias", file).value_or(false)) {
    throw ConvertError(file, "lora_bias is true; qmodel.lora has no place for trained biases");
  }
  const auto saved = config.keys.find("modules_to_save");
  if (saved != config.keys.end() && !saved->is_null() && !saved->empty()) {
    throw ConvertError(
        file, "modules_to_save lists " + saved->dump() + "; qmodel.lora has no place for whole trained modules");
  }
  refuse_target_modules(config);
}

AdapterConfig read_adapter_config(const fs::path& adapter_dir) {
  AdapterConfig config;
  config.file = adapter_dir / "adapter_config.json";
  config.keys = read_json_file(config.file);
  config.rank = required_count(config.keys, "r", config.file);
  if (config.rank == 0) throw ConvertError(config.file, "key 'r' must be at least 1");
  const auto alpha = json_number(config.keys, "lora_alpha", config.file);
  if (!alpha) throw ConvertError(config.file, "key 'lora_alpha' is missing");
  config.alpha = *alpha;
  config.rslora = json_flag(config.keys, "use_rslora", config.file).value_or(false);
  refuse_unsupported(config);
  return config;
}

// A pattern key names the module at `path` by the whole path or a tail of it
// after a dot ("q_proj", "layers.0.self_attn.q_proj"). Keys written as
// regular expressions are refused rather than evaluated.
bool key_matches(const AdapterConfig& config, const char* pattern_name, const std::string& key,
                 const std::string& path) {
  if (key.find_first_of("\\^$*+?()[]{}|") != std::string::npos) {
    throw ConvertError(config.file, std::string(pattern_name) + " key '" + key +
                                        "' is a regular expression; name the modules instead (e.g. q_proj or "
                                        "model.layers.0.self_attn.q_proj)");
  }
  const std::size_t tail = path.size() - std::min(path.size(), key.size());
  return path.ends_with(key) && (tail == 0 || path[tail - 1] == '.');
}

// The value that `pattern_name` (rank_pattern or alpha_pattern) gives the
// module at `path`, or nullptr. Keys that match with different values are
// refused, since nothing orders them.
const json* pattern_value(const AdapterConfig& config, const char* pattern_name, const std::string& path) {
  const auto patterns = config.keys.find(pattern_name);
  if (patterns == config.keys.end() || patterns->is_null()) return nullptr;
  if (!patterns->is_object()) {
    throw ConvertError(config.file, std::string("key '") + pattern_name + "' must be an object");
  }
  const json* chosen = nullptr;
  std::string chosen_key;
  for (const auto& [key, value] : patterns->items()) {
    if (!key_matches(config, pattern_name, key, path)) continue;
    if (chosen && *chosen != value) {
      throw ConvertError(config.file, std::string(pattern_name) + " keys '" + chosen_key + "' and '" + key +
                                          "' both match " + path + " with different values");
    }
    chosen = &value;
    chosen_key = key;
  }
  return chosen;
}

// The rank and scale that the config gives the module at `key`.
Module configured_module(const AdapterConfig& config, const ModuleKey& key) {
  const std::string path = module_path(key);
  Module module;
  module.rank = config.rank;
  double alpha = config.alpha;
  if (const json* rank = pattern_value(config, "rank_pattern", path)) {
    if (!rank->is_number_unsigned() || rank->get<std::uint64_t>() == 0) {
      throw ConvertError(config.file, "rank_pattern gives " + path + " rank " + rank->dump() +
                                          "; a rank is a whole number of 1 or more");
    }
    module.rank = rank->get<std::uint64_t>();
  }
  if (const json* pattern_alpha = pattern_value(config, "alpha_pattern", path)) {
    if (!pattern_alpha->is_number() || !std::isfinite(pattern_alpha->get<double>())) {
      throw ConvertError(config.file, "alpha_pattern gives " + path + " lora_alpha " + pattern_alpha->dump() +
                                          ", which is not a finite number");
    }
    alpha = pattern_alpha->get<double>();
  }
  const double rank = static_cast<double>(module.rank);
  module.scale = alpha / (config.rslora ? std::sqrt(rank) : rank);
  return module;
}

// "<layer>.<module>.lora_<A|B>.weight" after the prefix, with the layer in
// its plain decimal form.
std::optional<std::pair<ModuleKey, bool>> parse_factor_name(std::string_view name) {
  if (!name.starts_with(kLayerPrefix)) return std::nullopt;
  name.remove_prefix(kLayerPrefix.size());
  const std::size_t dot = name.find('.');
  const std::string_view digits = name.substr(0, dot);
  std::uint64_t layer = 0;
  const std::from_chars_result read = std::from_chars(digits.data(), digits.data() + digits.size(), layer);
  if (dot == std::string_view::npos || read.ec != std::errc{} || digits != std::to_string(layer)) return std::nullopt;
  name.remove_prefix(dot + 1);
  for (std::uint32_t t = 0; t < tools::kLoraTargetCount; ++t) {
    if (!name.starts_with(kModules[t])) continue;
    const std::string_view factor = name.substr(kModules[t].size());
    if (factor == ".lora_A.weight" || factor == ".lora_B.weight") {
      return std::make_pair(ModuleKey{layer, t}, factor == ".lora_B.weight");
    }
  }
  return std::nullopt;
}

// Every tensor of the file sorted into its module; anything else is refused.
std::map<ModuleKey, Module> collect_modules(const SafetensorsCheckpoint& file, const AdapterConfig& config,
                                            const InitConfig& model) {
  std::map<ModuleKey, Module> modules;
  for (const auto& [name, tensor] : file.tensors) {
    const auto parsed = parse_factor_name(name);
    if (!parsed) {
      throw ConvertError(tensor.file,
                         "tensor " + name + " is not the lora_A or lora_B weight of a layer's " + kModuleList);
    }
    const auto [key, is_b] = *parsed;
    if (key.first >= model.num_layers) {
      throw ConvertError(tensor.file, "tensor " + name + " is for layer " + std::to_string(key.first) +
                                          ", but the model has " + std::to_string(model.num_layers) + " layers");
    }
    if (!modules.count(key)) modules[key] = configured_module(config, key);
    (is_b ? modules[key].b : modules[key].a) = &tensor;
  }
  if (modules.empty()) throw ConvertError(file.files.front().path(), "holds no LoRA factors");
  return modules;
}

std::string shape_text(const std::vector<std::uint64_t>& shape) {
  std::string text;
  for (const std::uint64_t extent : shape) text += (text.empty() ? "[" : ", ") + std::to_string(extent);
  return text + "]";
}

void check_factor(const SourceTensor& tensor, const std::vector<std::uint64_t>& expected,
                  const LayerTensor& projection) {
  if (tensor.type != SourceType::F32 && tensor.type != SourceType::F16 && tensor.type != SourceType::BF16) {
    throw ConvertError(tensor.file, "tensor " + tensor.name + " has dtype " + tensor.type_name +
                                        "; LoRA factors must be F32, F16 or BF16");
  }
  if (tensor.shape != expected) {
    throw ConvertError(tensor.file, "tensor " + tensor.name + " has shape " + shape_text(tensor.shape) + ", expected " +
                                        shape_text(expected) + " (rank from adapter_config.json, " +
                                        std::to_string(projection.in_width) + " -> " +
                                        std::to_string(projection.out_width) + " projection of the model)");
  }
}

void check_module(const ModuleKey& key, const Module& module, const LayerTensor& projection, const fs::path& file) {
  if (!module.a || !module.b) {
    throw ConvertError(file,
                       "tensor " + tensor_name(key, !module.a) + " has no matching " + tensor_name(key, !module.b));
  }
  check_factor(*module.a, {module.rank, projection.in_width}, projection);
  check_factor(*module.b, {projection.out_width, module.rank}, projection);
}

float finite_value(float value, const SourceTensor& tensor) {
  if (!std::isfinite(value)) throw ConvertError(tensor.file, "tensor " + tensor.name + " holds a non-finite value");
  return value;
}

// A as in x rank and s * B as rank x out, both transposed from the adapter's
// layout; ranks beyond the module's own stay zero.
tools::LoraFactors file_factors(const Module& module, const LayerTensor& projection, std::uint64_t rank) {
  const std::uint64_t in = projection.in_width, out = projection.out_width;
  tools::LoraFactors factors{std::vector<float>(in * rank, 0.0f), std::vector<float>(rank * out, 0.0f)};
  const SourceMatrix a(*module.a), b(*module.b);
  std::vector<float> row(in);
  for (std::uint64_t k = 0; k < module.rank; ++k) {
    a.real_row(k, row.data());
    for (std::uint64_t j = 0; j < in; ++j) factors.a[j * rank + k] = finite_value(row[j], *module.a);
  }
  row.resize(module.rank);
  for (std::uint64_t j = 0; j < out; ++j) {
    b.real_row(j, row.data());
    for (std::uint64_t k = 0; k < module.rank; ++k) {
      factors.b[k * out + j] = finite_value(static_cast<float>(module.scale * row[k]), *module.b);
    }
  }
  return factors;
}

}  // namespace

AdapterSummary convert_peft_adapter(const fs::path& adapter_dir, const InitConfig& model, const fs::path& out_path) {
  const AdapterConfig config = read_adapter_config(adapter_dir);
  const SafetensorsCheckpoint file = read_safetensors_file(adapter_dir / "adapter_model.safetensors");
  const std::map<ModuleKey, Module> modules = collect_modules(file, config, model);
  const std::vector<LayerTensor> projections = tools::lora_target_projections(model);
  AdapterSummary summary;
  for (const auto& [key, module] : modules) {
    check_module(key, module, projections[key.second], file.files.front().path());
    summary.rank = std::max(summary.rank, static_cast<std::uint32_t>(module.rank));
  }
  for (const auto& [key, module] : modules) summary.padded_modules += module.rank < summary.rank ? 1 : 0;
  summary.modules = modules.size();
  const auto factors = [&](std::uint64_t layer, std::uint32_t target, const LayerTensor& projection) {
    const auto found = modules.find({layer, target});
    if (found == modules.end()) return std::optional<tools::LoraFactors>();
    return std::optional(file_factors(found->second, projection, summary.rank));
  };
  tools::write_lora_records(out_path, model, summary.rank, factors);
  return summary;
}

}  // namespace quorvel::convert
