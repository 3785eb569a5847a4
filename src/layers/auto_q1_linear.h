// "q1_0_128" weights: one sign bit per weight, a bf16 scale per 128 weights.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "layers/block_linear.h"

namespace quorvel::layers {

class AutoQ1Linear : public BlockLinear {
 public:
  // Payload: out_shape * (in_shape / 128) blocks of 18 bytes, then the bias.
  // Both shapes must be multiples of 128.
  AutoQ1Linear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape, std::uint64_t num_heads,
               bool has_bias, QuantFormat lora_format);

  // Bytes of one output row of weights in memory.
  static std::uint64_t weight_row_bytes(std::uint64_t in_shape);
};

}  // namespace quorvel::layers
