#include "models/model_scratch.h"

#include <algorithm>

#include "runtime/kernel_base.h"
#include "runtime/thread_pool.h"

namespace quorvel {
namespace {

// Element counts of the buffers, in their order; the caller multiplies each
// by its element size.
struct ScratchCounts {
  std::uint64_t attention;    // floats
  std::uint64_t activations;  // per buffer: bf16 values, or int8 codes
  std::uint64_t row_scales;   // floats
  std::uint64_t padded_vocab;
  std::uint64_t candidates;
};

ScratchCounts scratch_counts(const InitConfig& config, std::uint64_t threads) {
  const std::uint64_t positions = config.max_position_embeddings;
  return {size_mul(size_add(config.head_dim, kernels::kAttentionBlock), config.num_heads),
          size_mul(activation_row_width(config), positions), positions, size_round_up(config.vocab_size, 32),
          size_mul(kMaxTopK, threads)};
}

}  // namespace

std::uint64_t activation_row_width(const InitConfig& config) {
  return std::max({config.hidden_dim, config.intermediate_dim, size_mul(config.num_heads, config.head_dim)});
}

std::uint64_t ModelScratch::bytes_needed(const InitConfig& config, std::uint64_t threads) {
  const ScratchCounts counts = scratch_counts(config, threads);
  return size_add(size_mul(counts.attention, sizeof(float)), size_mul(counts.activations, 2 * sizeof(bf16) + 1),
                  size_mul(counts.row_scales, sizeof(float)),
                  size_mul(counts.padded_vocab, sizeof(float) + sizeof(std::uint64_t)),
                  size_mul(counts.candidates, sizeof(Candidate)));
}

ModelScratch::ModelScratch(const InitConfig& config) {
  const ScratchCounts counts = scratch_counts(config, thread_count());
  attention_ = allocate_aligned_elements<float>(counts.attention);
  projection_a_ = allocate_aligned_elements<bf16>(counts.activations);
  projection_b_ = allocate_aligned_elements<bf16>(counts.activations);
  row_scales_ = allocate_aligned_elements<float>(counts.row_scales);
  codes_ = allocate_aligned_elements<std::int8_t>(counts.activations);
  logits_ = allocate_aligned_elements<float>(counts.padded_vocab);
  candidates_ = allocate_aligned_elements<Candidate>(counts.candidates);
  indices_ = allocate_aligned_elements<std::uint64_t>(counts.padded_vocab);
}

}  // namespace quorvel
