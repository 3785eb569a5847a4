// Rotary position embedding: rotates every head of the query and key rows by
// angles that depend on the token's position. The cosines and sines are not
// computed here; they are the precomputed tables that follow the RoPE cache
// file's header. One object serves every transformer layer of a model.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "runtime/aligned_buffer.h"
#include "runtime/bf16.h"

namespace quorvel::layers {

class RotaryEmbedding {
 public:
  // Reads the cosine table, then the sine table: max_context rows of
  // head_dim floats each, row p for position p.
  RotaryEmbedding(std::istream& stream, std::uint64_t head_dim, std::uint64_t max_context);

  // Rotates, in place, n token rows of num_heads * head_dim values at x;
  // token t is at position start_pos + t. Throws "RoPE: exceeded max context
  // size" (rotating nothing) when the positions run past the tables.
  void apply(bf16* x, std::uint64_t num_heads, std::uint64_t n, std::uint64_t start_pos) const;

  std::uint64_t head_dim() const { return head_dim_; }
  std::uint64_t max_context() const { return max_context_; }
  const float* cos() const { return cos_.get(); }
  const float* sin() const { return sin_.get(); }

 private:
  AlignedPtr<float> cos_;
  AlignedPtr<float> sin_;
  std::uint64_t head_dim_;
  std::uint64_t max_context_;
};

}  // namespace quorvel::layers
