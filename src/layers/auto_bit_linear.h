// Ternary weights with one per-matrix scale, gamma (formats/ternary.h).
#pragma once

#include <cstdint>
#include <iosfwd>

#include "layers/auto_linear.h"

namespace quorvel::layers {

class AutoBitLinear : public AutoLinear {
 public:
  // Payload: gamma (8-byte double), then in_shape * out_shape / 4 weight
  // bytes, then the bias. Both shapes must be multiples of 128.
  AutoBitLinear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape, std::uint64_t num_heads,
                bool has_bias, QuantFormat lora_format);

  // Bytes of one output row of weights in memory (four codes a byte).
  static std::uint64_t weight_row_bytes(std::uint64_t in_shape) { return in_shape / 4; }

  // Kept and used as a double: the kernels scale each integer row sum in
  // double precision, and narrowing gamma to float would change results.
  double gamma() const { return gamma_; }
  const std::uint8_t* weights() const { return weights_.get(); }

 protected:
  std::int32_t code_sum(const std::int8_t* codes) const override;
  void multiply_rows(const ActivationRow& x, std::uint64_t first_row, std::uint64_t rows, bf16* out) const override;
  void multiply_tokens(const std::int8_t* x_q, const float* x_scale, std::uint64_t n_tokens,
                       bf16* out) const override;

 private:
  AlignedPtr<std::uint8_t> weights_;
  double gamma_ = 0.0;
};

}  // namespace quorvel::layers
