// Runs the forward pass of a loaded model for the request loop: embedding,
// every transformer layer, the final norm, and the unembedding with sampling.
#pragma once

#include <cstdint>

#include "engine/request_loop.h"
#include "models/model_base.h"
#include "runtime/aligned_buffer.h"

namespace quorvel {

class ModelRunner final : public TokenModel {
 public:
  // Allocates the two activation buffers (activation_row_width x context
  // bf16 values each): the residual rows and the layers' working space.
  explicit ModelRunner(ModelBase& model);

  void set_position(std::uint64_t position) override;
  void forward(const std::int64_t* tokens, std::uint64_t n) override;
  std::int64_t sample(const std::int64_t* history, std::uint64_t history_len, const SamplingParams& params) override;

 private:
  ModelBase& model_;
  AlignedPtr<bf16> rows_;
  AlignedPtr<bf16> work_;
  std::uint64_t rows_filled_ = 0;  // rows of the latest forward
};

}  // namespace quorvel
