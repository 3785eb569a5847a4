#include "models/model_scratch.h"

#include "runtime/thread_pool.h"

namespace quorvel {

ModelScratch::ModelScratch(const InitConfig& config)
    : max_positions_(config.max_position_embeddings),
      num_heads_(config.num_heads),
      intermediate_dim_(config.intermediate_dim),
      padded_vocab_((config.vocab_size + 31) & ~std::uint64_t{31}),
      head_dim_(config.head_dim) {
  // Element counts are plain products; only the byte sizes are overflow-checked.
  const std::uint64_t activations = intermediate_dim_ * max_positions_;
  attention_ = allocate_aligned_elements<float>((head_dim_ + 64) * num_heads_);
  projection_a_ = allocate_aligned_elements<bf16>(activations);
  projection_b_ = allocate_aligned_elements<bf16>(activations);
  row_scales_ = allocate_aligned_elements<float>(max_positions_);
  codes_ = allocate_aligned_elements<std::int8_t>(activations);
  logits_ = allocate_aligned_elements<float>(padded_vocab_);
  candidates_ = allocate_aligned_elements<Candidate>(max_top_k_ * thread_count());
  indices_ = allocate_aligned_elements<std::uint64_t>(padded_vocab_);
}

}  // namespace quorvel
