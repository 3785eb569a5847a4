#include "layers/block_linear.h"

namespace quorvel::layers {

BlockLinear::BlockLinear(std::uint64_t in_shape, std::uint64_t out_shape, std::uint64_t num_heads, bool has_bias,
                         QuantFormat lora_format, const formats::WeightFormat& format)
    : AutoLinear(in_shape, out_shape, num_heads, has_bias, lora_format),
      format_(format),
      row_bytes_(format.layout.row_bytes(in_shape)) {}

std::uint8_t* BlockLinear::allocate_weights() {
  weights_ = allocate_aligned<std::uint8_t>(size_mul(out_shape(), row_bytes_));
  return weights_.get();
}

void BlockLinear::read_weights(std::istream& stream, const PayloadText& text) {
  read_payload(stream, allocate_weights(), size_mul(out_shape(), row_bytes_), text);
}

void BlockLinear::multiply_rows(const ActivationRow& x, std::uint64_t first_row, std::uint64_t rows,
                                bf16* out) const {
  (kernels::kernels().*format_.gemv)(weights_.get() + first_row * row_bytes_, x.codes, x.scale, out, rows,
                                     in_shape());
}

void BlockLinear::multiply_tokens(const std::int8_t* x_q, const float* x_scale, std::uint64_t n_tokens,
                                  bf16* out) const {
  (kernels::kernels().*format_.gemm)(weights_.get(), x_q, x_scale, out, out_shape(), n_tokens, out_shape(),
                                     in_shape());
}

}  // namespace quorvel::layers
