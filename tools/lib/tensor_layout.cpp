#include "tools/lib/tensor_layout.h"

#include <stdexcept>

namespace quorvel::tools {
namespace {

constexpr std::uint64_t kBlockWidth = 128;

LayerTensor norm(LayerSlot slot, std::uint64_t width) { return {slot, TensorRole::NORM, width, width, false}; }

LayerTensor projection(LayerSlot slot, std::uint64_t in, std::uint64_t out, bool has_bias) {
  return {slot, TensorRole::PROJECTION, in, out, has_bias};
}

LayerTensor residual_output(LayerSlot slot, std::uint64_t in, std::uint64_t out) {
  return {slot, TensorRole::RESIDUAL_OUTPUT, in, out, false};
}

[[noreturn]] void unknown_arch(std::int32_t arch) {
  throw std::invalid_argument("Unknown architecture type: " + std::to_string(arch));
}

}  // namespace

const char* weight_format_name(WeightFormat format) {
  constexpr const char* kNames[] = {"ternary", "q1_0_128", "q1.58", "bf16"};
  return kNames[static_cast<int>(format)];
}

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
  const std::uint64_t I = config.intermediate_dim, D = config.head_dim;
  const bool bias = config.has_qkv_bias;
  using enum LayerSlot;
  const LayerTensor attention_norm = norm(ATTENTION_NORM, d), ffn_norm = norm(FFN_NORM, d);
  const LayerTensor k = projection(K, d, kv_width, bias), v = projection(V, d, kv_width, bias);
  const LayerTensor q = projection(Q, d, attention_width, bias);
  const LayerTensor o = residual_output(O, attention_width, d);
  const LayerTensor gate = projection(GATE, d, I, false), up = projection(UP, d, I, false);
  const LayerTensor down = residual_output(DOWN, I, d);
  switch (config.arch_type) {
    case 1:  // both sub-norms, whatever the has_*_sub_norm keys say
      return {attention_norm, norm(ATTENTION_SUB_NORM, attention_width), k, v, q, o, ffn_norm, gate, up,
              norm(FFN_SUB_NORM, I), down};
    case 2:
    case 3:
      return {attention_norm, k, v, q, o, ffn_norm, gate, up, down};
    case 4:
    case 5:
    case 6:  // the two per-head norms sit between Q and O
      return {attention_norm, k, v, q, norm(Q_NORM, D), norm(K_NORM, D), o, ffn_norm, gate, up, down};
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
