#include "tools/lib/tensor_layout.h"

#include <stdexcept>

namespace quorvel::tools {
namespace {

constexpr std::uint64_t kBlockWidth = 128;

LayerTensor norm(std::uint64_t width) { return {TensorRole::NORM, width, width, false}; }

LayerTensor projection(std::uint64_t in, std::uint64_t out, bool has_bias) {
  return {TensorRole::PROJECTION, in, out, has_bias};
}

LayerTensor residual_output(std::uint64_t in, std::uint64_t out) {
  return {TensorRole::RESIDUAL_OUTPUT, in, out, false};
}

[[noreturn]] void unknown_arch(std::int32_t arch) {
  throw std::invalid_argument("Unknown architecture type: " + std::to_string(arch));
}

}  // namespace

WeightFormat projection_format(std::int32_t arch) {
  switch (arch) {
    case 1:
    case 2:
    case 3:
      return WeightFormat::TERNARY;
    case 4:
      return WeightFormat::Q1_0;
    case 5:
      return WeightFormat::Q1_58;
    case 6:
      return WeightFormat::BF16;
  }
  unknown_arch(arch);
}

WeightFormat table_format(std::int32_t arch) {
  const WeightFormat projections = projection_format(arch);
  return projections == WeightFormat::TERNARY ? WeightFormat::BF16 : projections;
}

std::vector<LayerTensor> layer_tensors(const InitConfig& config) {
  const std::uint64_t d = config.hidden_dim;
  const std::uint64_t attention_width = config.head_dim * config.num_heads;
  const std::uint64_t kv_width = config.head_dim * config.num_kv_heads;
  const LayerTensor kv = projection(d, kv_width, config.has_qkv_bias);  // K, then V
  const LayerTensor q = projection(d, attention_width, config.has_qkv_bias);
  const LayerTensor o = residual_output(attention_width, d);
  const LayerTensor ffn = projection(d, config.intermediate_dim, false);
  const LayerTensor down = residual_output(config.intermediate_dim, d);
  switch (config.arch_type) {
    case 1:  // both sub-norms, whatever the has_*_sub_norm keys say
      return {norm(d), norm(attention_width), kv, kv, q, o, norm(d), ffn, ffn, norm(config.intermediate_dim), down};
    case 2:
    case 3:
      return {norm(d), kv, kv, q, o, norm(d), ffn, ffn, down};
    case 4:
    case 5:
    case 6:  // the two per-head norms sit between Q and O
      return {norm(d), kv, kv, q, norm(config.head_dim), norm(config.head_dim), o, norm(d), ffn, ffn, down};
  }
  unknown_arch(config.arch_type);
}

std::optional<std::string> unwritable_shape(const InitConfig& config) {
  if (projection_format(config.arch_type) == WeightFormat::BF16) return std::nullopt;
  for (const LayerTensor& tensor : layer_tensors(config)) {
    if (tensor.role != TensorRole::NORM && tensor.in_width % kBlockWidth != 0) {
      return "arch " + std::to_string(config.arch_type) + " packs weights in groups of 128 along a row, " +
             "but a projection has input width " + std::to_string(tensor.in_width) +
             " (hidden_dim, num_heads * head_dim and intermediate_dim must be multiples of 128)";
    }
  }
  return std::nullopt;
}

}  // namespace quorvel::tools
