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

 protected:
  // Where the kernel set reports an 8-bit dot product (or integer matrix)
  // feature, the tokens and rows are split in tiles instead of token chunks:
  // tiles of 8 tokens by 128 output rows (64 below 16 workers), handed out
  // first come, first served, 2 at a time (1 below 16 workers). The tiles of
  // one row range follow each other, so its weights are read from memory
  // once for all tokens and not once per chunk of 4.
  void multiply_several_tokens(const std::int8_t* x_q, const float* x_scale, std::uint64_t n,
                               bf16* out) const override;

 private:
  struct Tiling;
  void multiply_tile(const Tiling& tiling, std::uint64_t tile, const std::int8_t* x_q, const float* x_scale,
                     std::uint64_t n, bf16* out) const;
  // Reads the bf16 source a batch of rows at a time and quantizes each
  // batch over the worker pool.
  void quantize_from(std::istream& stream);
  // Quantizes `rows` source rows into the weight rows from `first_row` on.
  void quantize_rows(const bf16* source, std::uint64_t first_row, std::uint64_t rows, std::uint8_t* blocks) const;
};

}  // namespace quorvel::layers
