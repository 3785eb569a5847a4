#include "tools/lib/lora_file_writer.h"

#include <algorithm>
#include <cmath>
#include <span>
#include <stdexcept>
#include <string>

#include "io/lora_header.h"
#include "runtime/bf16.h"
#include "tools/lib/binary_writer.h"
#include "tools/lib/tensor_layout.h"
#include "tools/lib/weight_random.h"

namespace quorvel::tools {

const std::array<std::string_view, kLoraTargetCount> kLoraTargetNames = {"k",    "v",    "q",   "o",
                                                                          "ffn1", "ffn2", "down"};

namespace {

// A uniform value in [-1, 1) has RMS 1 / sqrt(3).
const double kUniformToRms = std::sqrt(3.0);

std::uint32_t target_index(std::string_view name) {
  for (std::uint32_t i = 0; i < kLoraTargetCount; ++i) {
    if (kLoraTargetNames[i] == name) return i;
  }
  throw std::invalid_argument("unknown LoRA target '" + std::string(name) +
                              "' (expected all, none or k, v, q, o, ffn1, ffn2, down)");
}

// The projections of a layer in file order are its LoRA targets in record
// order; the norms between them have no record.
std::vector<LayerTensor> lora_targets(const InitConfig& config) {
  std::vector<LayerTensor> targets;
  for (const LayerTensor& tensor : layer_tensors(config)) {
    if (tensor.role != TensorRole::NORM) targets.push_back(tensor);
  }
  return targets;
}

const LoraTargetSet& layer_targets(const LoraFileOptions& options, std::uint64_t layer) {
  const auto own = options.layer_targets.find(layer);
  return own != options.layer_targets.end() ? own->second : options.targets;
}

void write_header(BinaryWriter& out, const InitConfig& config, std::uint32_t rank) {
  out.write_bytes("QVLA", 4);
  out.write_value(kLoraFileVersion);
  out.write_value(std::uint32_t{0});  // reserved
  out.write_value(rank);
  out.write_value(static_cast<std::uint32_t>(config.num_layers));
  out.write_value(static_cast<std::int32_t>(kLoraTargetCount));
}

// `rows` rows of `cols` bf16 values of RMS `rms`; rms 0 writes +0 values.
void write_factor(BinaryWriter& out, WeightRandom& random, std::uint64_t rows, std::uint64_t cols, double rms) {
  const auto half_width = static_cast<float>(rms * kUniformToRms);
  std::vector<bf16> row(cols, bf16{0});
  for (std::uint64_t r = 0; r < rows; ++r) {
    if (rms != 0.0) {
      for (bf16& value : row) value = narrow_nearest_even(half_width * random.uniform());
    }
    out.write_values(std::span<const bf16>(row));
  }
}

void write_target(BinaryWriter& out, WeightRandom& random, const LayerTensor& target, bool has_lora,
                  const LoraFileOptions& options) {
  out.write_value(static_cast<std::uint8_t>(has_lora ? 1 : 0));
  if (!has_lora) return;
  const double rank = std::max(1.0, static_cast<double>(options.rank));
  write_factor(out, random, target.in_width, options.rank, 1.0 / std::sqrt(static_cast<double>(target.in_width)));
  write_factor(out, random, options.rank, target.out_width, options.zero_b ? 0.0 : options.scale / std::sqrt(rank));
}

}  // namespace

LoraTargetSet parse_lora_targets(std::string_view text) {
  LoraTargetSet set{};
  if (text == "all") set.fill(true);
  if (text == "all" || text == "none" || text.empty()) return set;
  for (std::size_t start = 0;;) {
    const std::size_t comma = text.find(',', start);
    set[target_index(text.substr(start, comma == std::string_view::npos ? comma : comma - start))] = true;
    if (comma == std::string_view::npos) return set;
    start = comma + 1;
  }
}

std::optional<std::string> unwritable_lora_targets(const InitConfig& config, const LoraFileOptions& options) {
  if (options.layer_targets.empty()) return std::nullopt;
  const std::uint64_t last = options.layer_targets.rbegin()->first;
  if (last < config.num_layers) return std::nullopt;
  return "LoRA targets given for layer " + std::to_string(last) + ", but the model has " +
         std::to_string(config.num_layers) + " layers";
}

void write_lora_file(const std::filesystem::path& path, const InitConfig& config, const LoraFileOptions& options) {
  if (const auto problem = unwritable_lora_targets(config, options)) throw std::invalid_argument(*problem);
  const std::vector<LayerTensor> targets = lora_targets(config);
  BinaryWriter out(path);
  WeightRandom random(options.seed);
  write_header(out, config, options.rank);
  for (std::uint64_t layer = 0; layer < config.num_layers; ++layer) {
    for (std::uint32_t t = 0; t < kLoraTargetCount; ++t) {
      write_target(out, random, targets[t], layer_targets(options, layer)[t], options);
    }
  }
  out.finish();
}

}  // namespace quorvel::tools
