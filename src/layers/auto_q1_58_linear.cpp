#include "layers/auto_q1_58_linear.h"

#include "runtime/formats/q1_58.h"

namespace quorvel::layers {

AutoQ1_58Linear::AutoQ1_58Linear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape,
                                 std::uint64_t num_heads, bool has_bias, QuantFormat lora_format)
    : BlockLinear(in_shape, out_shape, num_heads, has_bias, lora_format,
                  weight_row_bytes(in_shape),
                  &kernels::KernelBase::gemv_q1_58, &kernels::KernelBase::gemm_q1_58) {
  require_multiples_of_128("AutoQ1_58Linear");
  read_weights(stream, {"Could not read q1.58 weights: read_bytes (", "Failed to read q1.58 weights"});
  read_bias(stream);
}

std::uint64_t AutoQ1_58Linear::weight_row_bytes(std::uint64_t in_shape) {
  return size_mul(in_shape / formats::kQ1_58BlockValues, sizeof(formats::BlockQ1_58));
}

}  // namespace quorvel::layers
