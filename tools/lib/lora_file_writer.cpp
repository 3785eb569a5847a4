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

const std::array<std::string_view, kLoraTargetCount> kLoraTargetNames = {"k", "v", "q", "o", "ffn1", "ffn2", "down"};

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

void write_factor(BinaryWriter& out, const std::vector<float>& values, std::uint64_t rows, std::uint64_t cols,
                  const char* name) {
  if (values.size() != rows * cols) {
    throw std::invalid_argument(std::string("LoRA factor ") + name + " holds " + std::to_string(values.size()) +
                                " values, expected " + std::to_string(rows) + " x " + std::to_string(cols));
  }
  std::vector<bf16> narrowed(values.size());
  std::transform(values.begin(), values.end(), narrowed.begin(), narrow_nearest_even);
  out.write_values(std::span<const bf16>(narrowed));
}

void write_record(BinaryWriter& out, const std::optional<LoraFactors>& factors, const LayerTensor& projection,
                  std::uint32_t rank) {
  out.write_value(static_cast<std::uint8_t>(factors ? 1 : 0));
  if (!factors) return;
  write_factor(out, factors->a, projection.in_width, rank, "A");
  write_factor(out, factors->b, rank, projection.out_width, "B");
}

// `rows` x `cols` values of RMS `rms`, uniformly spread; rms 0 gives zeros
// and draws nothing.
std::vector<float> random_factor(WeightRandom& random, std::uint64_t rows, std::uint64_t cols, double rms) {
  std::vector<float> values(rows * cols, 0.0f);
  const auto half_width = static_cast<float>(rms * kUniformToRms);
  if (rms != 0.0) {
    for (float& value : values) value = half_width * random.uniform();
  }
  return values;
}

LoraFactors random_factors(WeightRandom& random, const LayerTensor& projection, const LoraFileOptions& options) {
  const double rank = std::max(1.0, static_cast<double>(options.rank));
  const double b_rms = options.zero_b ? 0.0 : options.scale / std::sqrt(rank);
  LoraFactors factors;
  factors.a = random_factor(random, projection.in_width, options.rank,
                            1.0 / std::sqrt(static_cast<double>(projection.in_width)));
  factors.b = random_factor(random, options.rank, projection.out_width, b_rms);
  return factors;
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

std::vector<LayerTensor> lora_target_projections(const InitConfig& config) {
  std::vector<LayerTensor> projections;
  for (const LayerTensor& tensor : layer_tensors(config)) {
    if (tensor.role != TensorRole::NORM) projections.push_back(tensor);
  }
  return projections;
}

void write_lora_records(const std::filesystem::path& path, const InitConfig& config, std::uint32_t rank,
                        const LoraFactorSource& factors) {
  const std::vector<LayerTensor> projections = lora_target_projections(config);
  BinaryWriter out(path);
  write_header(out, config, rank);
  for (std::uint64_t layer = 0; layer < config.num_layers; ++layer) {
    for (std::uint32_t t = 0; t < kLoraTargetCount; ++t) {
      write_record(out, factors(layer, t, projections[t]), projections[t], rank);
    }
  }
  out.finish();
}

void write_lora_file(const std::filesystem::path& path, const InitConfig& config, const LoraFileOptions& options) {
  if (const auto problem = unwritable_lora_targets(config, options)) throw std::invalid_argument(*problem);
  WeightRandom random(options.seed);
  const auto factors = [&](std::uint64_t layer, std::uint32_t target, const LayerTensor& projection) {
    if (!layer_targets(options, layer)[target]) return std::optional<LoraFactors>();
    return std::optional(random_factors(random, projection, options));
  };
  write_lora_records(path, config, options.rank, factors);
}

}  // namespace quorvel::tools
