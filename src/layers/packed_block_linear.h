// Weights stored in the model file exactly as they are multiplied: rows of
// 128-weight blocks, one ternary code ("q1.58") per weight and a bf16 scale
// per block (q1_0_128 has a layer of its own, auto_q1_linear.h, which may
// regroup its rows). The format table entry gives the layout, the kernels
// and the format's name in messages.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "layers/block_linear.h"
#include "layers/layer_name.h"

namespace quorvel::layers {

template <const formats::WeightFormat& kFormat, LayerName kClassName>
class PackedBlockLinear : public BlockLinear {
 public:
  // Payload: out_shape * (in_shape / 128) blocks, then the bias. Both shapes
  // must be multiples of 128.
  PackedBlockLinear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape, std::uint64_t num_heads,
                    bool has_bias, QuantFormat lora_format);

  // Bytes of one output row of weights in memory.
  static std::uint64_t weight_row_bytes(std::uint64_t in_shape) { return kFormat.layout.row_bytes(in_shape); }
};

using AutoQ1_58Linear = PackedBlockLinear<formats::kQ1_58Weights, "AutoQ1_58Linear">;

extern template class PackedBlockLinear<formats::kQ1_58Weights, "AutoQ1_58Linear">;

}  // namespace quorvel::layers
