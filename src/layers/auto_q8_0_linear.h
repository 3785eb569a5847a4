// q8_0 weights: stored in the file as bf16 and quantized to blocks of 32
// int8 codes with an f32 scale when the layer is loaded.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "layers/block_linear.h"

namespace quorvel::layers {

class AutoQ8_0Linear : public BlockLinear {
 public:
  // Payload: out_shape rows of in_shape bf16 values, then the bias. Any
  // shape; a row takes ceil(in_shape / 32) blocks of 36 bytes in memory.
  AutoQ8_0Linear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape, std::uint64_t num_heads,
                 bool has_bias, QuantFormat lora_format);

  // Bytes of one output row of weights in memory.
  static std::uint64_t weight_row_bytes(std::uint64_t in_shape);

 private:
  void quantize_from(const bf16* source);
};

}  // namespace quorvel::layers
