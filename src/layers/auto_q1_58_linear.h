// "q1.58" weights: ternary codes with a bf16 scale per 128 weights.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "layers/block_linear.h"

namespace quorvel::layers {

class AutoQ1_58Linear : public BlockLinear {
 public:
  // Payload: out_shape * (in_shape / 128) blocks of 34 bytes, then the bias.
  // Both shapes must be multiples of 128.
  AutoQ1_58Linear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape, std::uint64_t num_heads,
                  bool has_bias, QuantFormat lora_format);

  // Bytes of one output row of weights in memory.
  static std::uint64_t weight_row_bytes(std::uint64_t in_shape);
};

}  // namespace quorvel::layers
