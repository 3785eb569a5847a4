#include "engine/model_runner.h"

namespace quorvel {

ModelRunner::ModelRunner(ModelBase& model) : model_(model) {
  const InitConfig& config = model.config();
  const std::uint64_t values = size_mul(activation_row_width(config), config.max_position_embeddings);
  rows_ = allocate_aligned_elements<bf16>(values);
  work_ = allocate_aligned_elements<bf16>(values);
}

void ModelRunner::set_position(std::uint64_t position) {
  for (const auto& layer : model_.layers()) layer->set_position(position);
}

void ModelRunner::forward(const std::int64_t* tokens, std::uint64_t n) {
  // Ids are signed on the wire; the embedding checks them as unsigned, so a
  // negative id is reported as a huge one and refused.
  model_.embedding().embed(reinterpret_cast<const std::uint64_t*>(tokens), n, rows_.get());
  for (const auto& layer : model_.layers()) {
    layer->forward(model_.rope(), rows_.get(), work_.get(), model_.scratch(), n);
  }
  model_.final_norm().forward(rows_.get(), n);
  rows_filled_ = n;
}

std::int64_t ModelRunner::sample(const std::int64_t* history, std::uint64_t history_len,
                                 const SamplingParams& params) {
  const ModelScratch& scratch = model_.scratch();
  const std::uint64_t id = model_.embedding().unembed(rows_.get(), rows_filled_, scratch.logits(),
                                                      scratch.sampling(), history, history_len, params);
  return static_cast<std::int64_t>(id);
}

}  // namespace quorvel
