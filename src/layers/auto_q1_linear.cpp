#include "layers/auto_q1_linear.h"

#include "runtime/formats/q1_0.h"

namespace quorvel::layers {

AutoQ1Linear::AutoQ1Linear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape,
                           std::uint64_t num_heads, bool has_bias, QuantFormat lora_format)
    : BlockLinear(in_shape, out_shape, num_heads, has_bias, lora_format,
                  weight_row_bytes(in_shape), &kernels::KernelBase::gemv_q1_0,
                  &kernels::KernelBase::gemm_q1_0) {
  require_multiples_of_128("AutoQ1Linear");
  read_weights(stream, {"Could not read q1_0_128 weights: read_bytes (", "Failed to read q1_0_128 weights"});
  read_bias(stream);
}

std::uint64_t AutoQ1Linear::weight_row_bytes(std::uint64_t in_shape) {
  return size_mul(in_shape / formats::kQ1_0BlockValues, sizeof(formats::BlockQ1_0));
}

}  // namespace quorvel::layers
