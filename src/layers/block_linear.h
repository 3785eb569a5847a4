// The formats whose rows are sequences of fixed-size blocks (q1_0_128, q1.58,
// q8_0) multiply the same way: only the kernel pair and the row size differ,
// so they share this base and each subclass only reads its weights.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>

#include "layers/auto_linear.h"
#include "layers/payload_read.h"
#include "runtime/kernel_base.h"

namespace quorvel::layers {

class BlockLinear : public AutoLinear {
 public:
  const std::uint8_t* weights() const { return weights_.get(); }
  std::uint64_t row_bytes() const { return row_bytes_; }

 protected:
  using RowProduct = void (kernels::KernelBase::*)(const void* w, const std::int8_t* x, float x_scale, bf16* out,
                                                   std::size_t rows, std::size_t k) const;
  using TokenProduct = void (kernels::KernelBase::*)(const void* w, const std::int8_t* x, const float* x_scales,
                                                     bf16* out, std::size_t out_stride, std::size_t n_tokens,
                                                     std::size_t rows, std::size_t k) const;

  BlockLinear(std::uint64_t in_shape, std::uint64_t out_shape, std::uint64_t num_heads, bool has_bias,
              QuantFormat lora_format, std::uint64_t row_bytes, RowProduct row_product, TokenProduct token_product);

  // Allocates out_shape rows of row_bytes bytes (uninitialised).
  std::uint8_t* allocate_weights();
  // Allocates the weights and fills them straight from the stream.
  void read_weights(std::istream& stream, const PayloadText& text);

  void multiply_rows(const ActivationRow& x, std::uint64_t first_row, std::uint64_t rows, bf16* out) const override;
  void multiply_tokens(const std::int8_t* x_q, const float* x_scale, std::uint64_t n_tokens,
                       bf16* out) const override;

 private:
  AlignedPtr<std::uint8_t> weights_;
  std::uint64_t row_bytes_;
  RowProduct row_product_;
  TokenProduct token_product_;
};

}  // namespace quorvel::layers
