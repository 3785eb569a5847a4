// The formats whose rows are sequences of fixed-size blocks (q1_0_128, q1.58,
// q8_0) multiply the same way: the format table gives the kernel pair and
// the row size, so they share this base and each subclass only reads its
// weights.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>

#include "layers/auto_linear.h"
#include "layers/payload_read.h"
#include "runtime/formats/format_table.h"

namespace quorvel::layers {

class BlockLinear : public AutoLinear {
 public:
  const std::uint8_t* weights() const { return weights_.get(); }
  std::uint64_t row_bytes() const { return row_bytes_; }

 protected:
  BlockLinear(std::uint64_t in_shape, std::uint64_t out_shape, std::uint64_t num_heads, bool has_bias,
              QuantFormat lora_format, const formats::WeightFormat& format);

  // Allocates out_shape rows of row_bytes bytes (uninitialised).
  std::uint8_t* allocate_weights();
  // Allocates the weights and fills them straight from the stream.
  void read_weights(std::istream& stream, const PayloadText& text);

  void multiply_rows(const ActivationRow& x, std::uint64_t first_row, std::uint64_t rows, bf16* out) const override;
  void multiply_tokens(const std::int8_t* x_q, const float* x_scale, std::uint64_t n_tokens,
                       bf16* out) const override;

 private:
  AlignedPtr<std::uint8_t> weights_;
  const formats::WeightFormat& format_;
  std::uint64_t row_bytes_;
};

}  // namespace quorvel::layers
