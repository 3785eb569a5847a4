#include "layers/packed_block_linear.h"

#include <string>

namespace quorvel::layers {

template <const formats::WeightFormat& kFormat, LayerName kClassName>
PackedBlockLinear<kFormat, kClassName>::PackedBlockLinear(std::istream& stream, std::uint64_t in_shape,
                                                          std::uint64_t out_shape, std::uint64_t num_heads,
                                                          bool has_bias, QuantFormat lora_format)
    : BlockLinear(in_shape, out_shape, num_heads, has_bias, lora_format, kFormat) {
  require_multiples_of_128(kClassName.chars);
  const std::string weights = std::string(kFormat.name) + " weights";
  read_weights(stream, {"Could not read " + weights + ": read_bytes (", "Failed to read " + weights});
  read_bias(stream);
}

template class PackedBlockLinear<formats::kQ1_58Weights, "AutoQ1_58Linear">;

}  // namespace quorvel::layers
