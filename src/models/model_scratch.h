// The model's scratch buffers, sized once from the config and the thread
// count, so that nothing is allocated per token.
#pragma once

#include <cstdint>

#include "config/init_config.h"
#include "runtime/aligned_buffer.h"
#include "runtime/bf16.h"
#include "sampling/sampler.h"

namespace quorvel {

inline constexpr std::uint64_t kMaxTopK = 256;

// The widest row that the activation and projection buffers receive: rows of
// hidden_dim (the residual stream, O and down outputs), of num_heads x
// head_dim (queries and attention outputs) and of intermediate_dim (the
// feed-forward rows). Published models have intermediate_dim >= both others,
// but the engine serves every shape, so each such buffer holds the widest.
std::uint64_t activation_row_width(const InitConfig& config);

class ModelScratch {
 public:
  // Sizes use the current thread_count(): apply "num_threads" first.
  explicit ModelScratch(const InitConfig& config);

  // The bytes that the buffers of a config take, with `threads` pool threads.
  static std::uint64_t bytes_needed(const InitConfig& config, std::uint64_t threads);

  // (D + kAttentionBlock) floats per query head.
  float* attention() const { return attention_.get(); }
  bf16* projection_a() const { return projection_a_.get(); }  // W x M values, W = activation_row_width
  bf16* projection_b() const { return projection_b_.get(); }  // W x M values
  float* row_scales() const { return row_scales_.get(); }  // one per row, M
  std::int8_t* codes() const { return codes_.get(); }      // W x M quantized activations
  float* logits() const { return logits_.get(); }          // V32 floats
  SamplingWorkspace sampling() const { return {candidates_.get(), indices_.get(), kMaxTopK}; }

 private:
  AlignedPtr<float> attention_;
  AlignedPtr<bf16> projection_a_;
  AlignedPtr<bf16> projection_b_;
  AlignedPtr<float> row_scales_;
  AlignedPtr<std::int8_t> codes_;
  AlignedPtr<float> logits_;
  AlignedPtr<Candidate> candidates_;
  AlignedPtr<std::uint64_t> indices_;
};

}  // namespace quorvel
