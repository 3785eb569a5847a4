// What a model file holds per architecture: the weight format of its tables
// and projections, and the tensors of one transformer layer in the order the
// layer reads them. The file has no index, so this order is the layout.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/init_config.h"

namespace quorvel::tools {

enum class WeightFormat {
  TERNARY,  // per-matrix gamma, then 2-bit codes
  Q1_0,     // "q1_0_128" blocks
  Q1_58,    // "q1.58" blocks
  BF16,     // plain bf16 (tables of arch 1, 2, 3, 6; q8_0 sources of arch 6)
};

// "ternary", "q1_0_128", "q1.58" or "bf16".
const char* weight_format_name(WeightFormat format);

enum class TensorRole {
  NORM,             // width bf16 weights
  PROJECTION,       // feeds attention or the gating (Q, K, V, FFN 1, FFN 2)
  RESIDUAL_OUTPUT,  // adds into the residual stream (O, down)
};

// Which tensor of a layer an entry is: what checkpoints name it by.
enum class LayerSlot {
  ATTENTION_NORM,
  ATTENTION_SUB_NORM,  // BitNet: on the attention output, before O
  K,
  V,
  Q,
  Q_NORM,  // per-head norms (arch 4, 5, 6): the query's, then the key's
  K_NORM,
  O,
  FFN_NORM,
  GATE,  // FFN 1
  UP,    // FFN 2
  FFN_SUB_NORM,  // BitNet: on the gated activation, before down
  DOWN,
};

struct LayerTensor {
  LayerSlot slot;
  TensorRole role;
  std::uint64_t in_width;   // a norm's width
  std::uint64_t out_width;  // equals in_width for a norm
  bool has_bias;
};

// Both throw std::invalid_argument for a code outside 1..6.
WeightFormat projection_format(std::int32_t arch);
WeightFormat table_format(std::int32_t arch);

// One layer's tensors in read order, for the config's architecture.
std::vector<LayerTensor> layer_tensors(const InitConfig& config);

// Why the config's shapes cannot be stored in its architecture's formats
// (block formats pack 128 weights per group along a row), or nullopt.
std::optional<std::string> unwritable_shape(const InitConfig& config);

}  // namespace quorvel::tools
