// q1_0_128 projection weights (one sign bit per weight, a bf16 scale per 128
// weights). Where the kernel set multiplies rows tiled by sixteen faster
// (formats/q1_0_tiles.h: the x86-64 sets), the rows are regrouped once at
// load and only the tiles are kept; elsewhere they stay as the file stores
// them. Either way the products give the same bits.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "layers/block_linear.h"
#include "runtime/formats/q1_0_tiles.h"

namespace quorvel::layers {

class AutoQ1Linear : public BlockLinear {
 public:
  // Payload: out_shape * (in_shape / 128) blocks, then the bias. Both shapes
  // must be multiples of 128.
  AutoQ1Linear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape, std::uint64_t num_heads,
               bool has_bias, QuantFormat lora_format);

  // Bytes of one output row of weights in memory (plain or tiled alike).
  static std::uint64_t weight_row_bytes(std::uint64_t in_shape);

  // The most bytes of plain rows held at once while the rows are regrouped
  // at load.
  static std::uint64_t source_batch_bytes(std::uint64_t in_shape, std::uint64_t out_shape);

  // The tiles, or nullptr where the rows stay plain (weights() then holds them).
  const formats::Q1_0TileBlock* tiles() const { return tiles_.get(); }

 protected:
  std::uint64_t rows_per_unit() const override;
  void multiply_rows(const ActivationRow& x, std::uint64_t first_row, std::uint64_t rows, bf16* out) const override;
  void multiply_tokens(const std::int8_t* x_q, const float* x_scale, std::uint64_t n_tokens,
                       bf16* out) const override;

 private:
  void read_tiles(std::istream& stream);

  AlignedPtr<formats::Q1_0TileBlock> tiles_;
};

}  // namespace quorvel::layers
