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

  // Bytes of the bf16 rows held while loading: the source passes through
  // batches of about 1 MiB of whole rows, at least one row.
  static std::uint64_t source_batch_bytes(std::uint64_t in_shape, std::uint64_t out_shape);

 private:
  // Reads the bf16 source a batch of rows at a time and quantizes each
  // batch over the worker pool.
  void quantize_from(std::istream& stream);
  // Quantizes `rows` source rows into the weight rows from `first_row` on.
  void quantize_rows(const bf16* source, std::uint64_t first_row, std::uint64_t rows, std::uint8_t* blocks) const;
};

}  // namespace quorvel::layers
