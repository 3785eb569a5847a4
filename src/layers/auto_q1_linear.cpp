#include "layers/auto_q1_linear.h"

#include "runtime/formats/format_table.h"

namespace quorvel::layers {

AutoQ1Linear::AutoQ1Linear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape,
                           std::uint64_t num_heads, bool has_bias, QuantFormat lora_format)
    : BlockLinear(in_shape, out_shape, num_heads, has_bias, lora_format, formats::kQ1_0Weights) {
  require_multiples_of_128("AutoQ1Linear");
  read_weights(stream, {"Could not read q1_0_128 weights: read_bytes (", "Failed to read q1_0_128 weights"});
  read_bias(stream);
}

std::uint64_t AutoQ1Linear::weight_row_bytes(std::uint64_t in_shape) {
  return formats::kQ1_0Weights.layout.row_bytes(in_shape);
}

}  // namespace quorvel::layers
