#include "models/model_base.h"

#include <iostream>
#include <stdexcept>
#include <string>

#include "io/little_endian.h"
#include "layers/embedding_q1.h"
#include "models/transformer_layers.h"

namespace quorvel {
namespace {

std::unique_ptr<layers::EmbeddingBase> read_embedding(std::istream& tensors, const InitConfig& config) {
  const auto arch = static_cast<ArchType>(config.arch_type);
  const bool tied = config.tie_word_embeddings;
  if (arch == ArchType::BONSAI_TERNARY) {
    return std::make_unique<layers::EmbeddingQ1_58>(tensors, config.vocab_size, config.hidden_dim, tied);
  }
  if (arch == ArchType::BONSAI) {
    return std::make_unique<layers::EmbeddingQ1_0>(tensors, config.vocab_size, config.hidden_dim, tied);
  }
  return std::make_unique<layers::Embedding>(tensors, config.vocab_size, config.hidden_dim, tied,
                                             config.unembed_quant);
}

// The model classes differ only in the layer class they build.
template <typename Layer>
class Model final : public ModelBase {
 public:
  Model(std::istream& tensors, std::istream& rope, const InitConfig& config) : ModelBase(tensors, rope, config) {
    read_layers<Layer>(tensors);
  }
};

}  // namespace

ModelBase::ModelBase(std::istream& tensors, std::istream& rope, const InitConfig& config)
    : config_(config),
      embedding_(read_embedding(tensors, config)),
      final_norm_(std::make_unique<layers::RMSNorm>(static_cast<float>(config.norm_eps), tensors, config.hidden_dim)),
      rope_(rope, config.head_dim, config.max_position_embeddings),
      scratch_(config) {}

template <typename Layer>
void ModelBase::read_layers(std::istream& tensors) {
  layers_.reserve(config_.num_layers);
  for (std::uint64_t i = 0; i < config_.num_layers; ++i) {
    layers_.push_back(std::make_unique<Layer>(tensors, config_));
    if (tensors.fail()) throw std::runtime_error("Model file truncated at layer " + std::to_string(i));
  }
}

void ModelBase::load_lora(std::istream& lora) {
  const auto rank = read_le<std::uint32_t>(lora);
  const auto num_layers = read_le<std::uint32_t>(lora);
  const auto targets_per_layer = static_cast<std::int32_t>(read_le<std::uint32_t>(lora));
  if (lora.fail()) throw std::runtime_error("Failed to read LoRA header");
  if (num_layers != config_.num_layers) {
    throw std::runtime_error("LoRA num_layers mismatch: file has " + std::to_string(num_layers) +
                             " but model has " + std::to_string(config_.num_layers));
  }
  if (targets_per_layer != static_cast<std::int32_t>(layers::kLoraTargetsPerLayer)) {
    throw std::runtime_error("Unsupported LoRA targets_per_layer: " + std::to_string(targets_per_layer) +
                             " (expected 7)");
  }
  std::cerr << "  LoRA rank: " << rank << ", layers: " << num_layers << ", targets/layer: " << targets_per_layer
            << std::endl;
  for (std::uint64_t i = 0; i < layers_.size(); ++i) {
    layers_[i]->attach_lora(lora, rank);
    if (lora.fail()) throw std::runtime_error("LoRA file truncated at layer " + std::to_string(i));
  }
}

using ModelBitNet = Model<layers::TransformerLayerBitNet>;
using ModelLlama = Model<layers::TransformerLayerLlama>;
using ModelBonsai = Model<layers::TransformerLayerBonsai>;
using ModelBonsaiTernary = Model<layers::TransformerLayerBonsaiTernary>;
using ModelQwen3 = Model<layers::TransformerLayerQwen3>;

std::unique_ptr<ModelBase> create_model(std::istream& tensors, std::istream& rope, const InitConfig& config) {
  switch (static_cast<ArchType>(config.arch_type)) {
    case ArchType::BITNET: return std::make_unique<ModelBitNet>(tensors, rope, config);
    case ArchType::LLAMA:
    case ArchType::QWEN3_5: return std::make_unique<ModelLlama>(tensors, rope, config);
    case ArchType::BONSAI: return std::make_unique<ModelBonsai>(tensors, rope, config);
    case ArchType::BONSAI_TERNARY: return std::make_unique<ModelBonsaiTernary>(tensors, rope, config);
    case ArchType::QWEN3: return std::make_unique<ModelQwen3>(tensors, rope, config);
  }
  throw std::runtime_error("Unknown architecture type: " + std::to_string(config.arch_type));
}

}  // namespace quorvel
