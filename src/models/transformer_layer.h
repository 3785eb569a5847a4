// A transformer layer updates the residual stream of n consecutive tokens in
// place: attention over the layer's K/V cache, then the gated feed-forward
// block. The five architectures share one forward pass; they differ in the
// weight format of their projections, in the norms they carry and in the
// order in which they read them from the model file.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>

#include "config/init_config.h"
#include "layers/auto_linear.h"
#include "layers/norm.h"
#include "layers/rotary_embedding.h"
#include "models/model_scratch.h"
#include "runtime/bf16.h"

namespace quorvel::layers {

// Every layer has seven projections, so every layer block of the LoRA
// adapter file has seven target records.
inline constexpr std::size_t kLoraTargetsPerLayer = 7;

class TransformerLayerBase {
 public:
  virtual ~TransformerLayerBase() = default;
  TransformerLayerBase(const TransformerLayerBase&) = delete;
  TransformerLayerBase& operator=(const TransformerLayerBase&) = delete;

  // x: n rows of hidden_dim values, updated in place. work: a buffer of the
  // same shape (and at least n rows of num_heads * head_dim).
  virtual void forward(const RotaryEmbedding& rope, bf16* x, bf16* work, const ModelScratch& scratch,
                       std::uint64_t n) = 0;
  // The next forward writes its keys and values at `position`.
  virtual void set_position(std::uint64_t position) = 0;
  // Reads this layer's block of the LoRA adapter file: one target record per
  // projection, in the order K, V, Q, O, FFN 1, FFN 2, down (the model
  // file's order without the norms), whatever the architecture.
  virtual void attach_lora(std::istream& stream, std::uint64_t rank) = 0;

 protected:
  TransformerLayerBase() = default;
};

// The weight family of a layer: the key/value cache projections and the
// plain projection class of one format.
template <typename K, typename V, typename Linear>
struct ProjectionFamily {
  using Key = K;
  using Value = V;
  using Plain = Linear;
};

// The shared forward pass. A concrete layer's constructor reads its payload
// in its own order through the read_* helpers.
template <typename Family>
class TransformerLayer : public TransformerLayerBase {
 public:
  void forward(const RotaryEmbedding& rope, bf16* x, bf16* work, const ModelScratch& scratch,
               std::uint64_t n) override;
  void set_position(std::uint64_t position) override;
  void attach_lora(std::istream& stream, std::uint64_t rank) override;

  // The seven projections in the order of their LoRA target records.
  std::array<AutoLinear*, kLoraTargetsPerLayer> projections_in_lora_order() const;

 protected:
  TransformerLayer(const InitConfig& config, bool always_silu);

  std::unique_ptr<RMSNorm> read_norm(std::istream& stream, std::uint64_t width) const;
  // K, V and Q, in that order.
  void read_attention_projections(std::istream& stream);
  void read_output_projection(std::istream& stream);
  // FFN 1 and FFN 2, in that order (down comes separately).
  void read_feed_forward_projections(std::istream& stream);
  void read_down_projection(std::istream& stream);

  std::unique_ptr<RMSNorm> attention_norm_;
  std::unique_ptr<RMSNorm> attention_sub_norm_;  // BitNet only
  std::unique_ptr<RMSNorm> query_norm_;          // per-head norms: Bonsai, Bonsai ternary, Qwen3
  std::unique_ptr<RMSNorm> key_norm_;
  std::unique_ptr<RMSNorm> feed_forward_norm_;
  std::unique_ptr<RMSNorm> feed_forward_sub_norm_;  // BitNet only
  std::unique_ptr<typename Family::Key> key_;
  std::unique_ptr<typename Family::Value> value_;
  std::unique_ptr<typename Family::Plain> query_;
  std::unique_ptr<typename Family::Plain> output_;
  std::unique_ptr<typename Family::Plain> gate_;  // FFN 1
  std::unique_ptr<typename Family::Plain> up_;    // FFN 2
  std::unique_ptr<typename Family::Plain> down_;

 private:
  // RMS norm of n rows of `width` in place, then their int8 codes and scales
  // in the scratch set; without a norm, the codes only.
  void quantize_rows(const RMSNorm* norm, bf16* rows, std::uint64_t n, std::uint64_t width,
                     const ModelScratch& scratch) const;
  void attention(bf16* query, bf16* out, const ModelScratch& scratch, std::uint64_t n) const;
  void gate_activation(const bf16* gate, bf16* up, std::uint64_t n) const;
  void add_residual(bf16* x, const bf16* delta, std::uint64_t n) const;

  const InitConfig& config_;
  bool always_silu_;
  std::uint64_t position_ = 0;  // tokens already in this layer's cache
};

}  // namespace quorvel::layers
