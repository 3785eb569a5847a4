// A loaded model: the token embedding, the final norm, the rotary tables,
// the scratch buffers and the stack of transformer layers. Construction reads
// the tensor stream front to back, each object reading its own payload, so
// the construction order is the file layout.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <vector>

#include "config/init_config.h"
#include "layers/embedding.h"
#include "layers/norm.h"
#include "layers/rotary_embedding.h"
#include "models/model_scratch.h"
#include "models/transformer_layer.h"

namespace quorvel {

class ModelBase {
 public:
  virtual ~ModelBase() = default;
  ModelBase(const ModelBase&) = delete;
  ModelBase& operator=(const ModelBase&) = delete;

  const InitConfig& config() const { return config_; }
  layers::EmbeddingBase& embedding() const { return *embedding_; }
  const layers::Norm& final_norm() const { return *final_norm_; }
  const layers::RotaryEmbedding& rope() const { return rope_; }
  const ModelScratch& scratch() const { return scratch_; }
  const std::vector<std::unique_ptr<layers::TransformerLayerBase>>& layers() const { return layers_; }

  // Reads the LoRA adapter file from offset 12 (after the header check):
  // rank, num_layers and targets_per_layer, then hands the stream to every
  // layer in order. Writes "  LoRA rank: <r>, layers: <n>, targets/layer:
  // <t>" to standard error before the layers. Throws "Failed to read LoRA
  // header", "LoRA num_layers mismatch: file has <f> but model has <m>",
  // "Unsupported LoRA targets_per_layer: <t> (expected 7)", a target
  // record's own message, or "LoRA file truncated at layer <i>" when the
  // stream has failed after layer i.
  void load_lora(std::istream& lora);

 protected:
  // Reads the embedding and the final norm from `tensors` and the rotary
  // tables from `rope`; the subclass then reads its layers with read_layers.
  ModelBase(std::istream& tensors, std::istream& rope, const InitConfig& config);

  // Appends num_layers layers made by make_layer(tensors, config), testing
  // the stream after each: "Model file truncated at layer <i>".
  template <typename Layer>
  void read_layers(std::istream& tensors);

 private:
  const InitConfig& config_;
  std::unique_ptr<layers::EmbeddingBase> embedding_;
  std::unique_ptr<layers::Norm> final_norm_;
  layers::RotaryEmbedding rope_;
  ModelScratch scratch_;
  std::vector<std::unique_ptr<layers::TransformerLayerBase>> layers_;
};

// Builds the model class of config.arch_type; throws "Unknown architecture
// type: <code>" for codes outside 1..6. `tensors` is positioned at the first
// payload byte after the section table, `rope` after its header.
std::unique_ptr<ModelBase> create_model(std::istream& tensors, std::istream& rope, const InitConfig& config);

}  // namespace quorvel
