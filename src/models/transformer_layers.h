// The five architectures' transformer layers. Each reads its payload in its
// own order (the model file has no index, so this order is the layout); the
// forward pass is the shared one.
#pragma once

#include <iosfwd>

#include "layers/auto_bit_linear.h"
#include "layers/auto_q8_0_linear.h"
#include "layers/kv_cache_linear.h"
#include "layers/auto_q1_linear.h"
#include "layers/packed_block_linear.h"
#include "models/transformer_layer.h"

namespace quorvel::layers {

using TernaryProjections = ProjectionFamily<KBitLinear, VBitLinear, AutoBitLinear>;
using Q1Projections = ProjectionFamily<KQ1Linear, VQ1Linear, AutoQ1Linear>;
using Q1_58Projections = ProjectionFamily<KQ1_58Linear, VQ1_58Linear, AutoQ1_58Linear>;
using Q8_0Projections = ProjectionFamily<KQ8_0Linear, VQ8_0Linear, AutoQ8_0Linear>;

// Ternary projections with RMS sub-norms before the output and down
// projections.
class TransformerLayerBitNet final : public TransformerLayer<TernaryProjections> {
 public:
  TransformerLayerBitNet(std::istream& stream, const InitConfig& config);
};

// Ternary projections, no sub-norms, no per-head norms.
class TransformerLayerLlama final : public TransformerLayer<TernaryProjections> {
 public:
  TransformerLayerLlama(std::istream& stream, const InitConfig& config);
};

// The layers with per-head RMS norms on the queries and the new keys share
// one reading order; only the weight format and the gating rule differ.
template <typename Family, bool kAlwaysSilu>
class HeadNormLayer : public TransformerLayer<Family> {
 public:
  HeadNormLayer(std::istream& stream, const InitConfig& config);
};

class TransformerLayerBonsai final : public HeadNormLayer<Q1Projections, false> {
 public:
  using HeadNormLayer::HeadNormLayer;
};

class TransformerLayerBonsaiTernary final : public HeadNormLayer<Q1_58Projections, false> {
 public:
  using HeadNormLayer::HeadNormLayer;
};

// Qwen3 gates with silu whatever the config's "activation" says.
class TransformerLayerQwen3 final : public HeadNormLayer<Q8_0Projections, true> {
 public:
  using HeadNormLayer::HeadNormLayer;
};

}  // namespace quorvel::layers
