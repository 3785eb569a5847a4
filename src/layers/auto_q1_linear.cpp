#include "layers/auto_q1_linear.h"

#include <algorithm>
#include <string>

#include "layers/payload_read.h"
#include "runtime/kernel_base.h"
#include "runtime/parallel_rows.h"

namespace quorvel::layers {

namespace {

using formats::BlockQ1_0;
using formats::Q1_0TileBlock;

const PayloadText kWeightsText{"Could not read q1_0_128 weights: read_bytes (", "Failed to read q1_0_128 weights"};

// The plain rows pass through a batch buffer of whole tiles
// (source_batch_rows), so that the layer keeps only the tiles; the workers
// regroup a share of each batch.
std::uint64_t tile_batch_rows(std::uint64_t in_shape, std::uint64_t out_shape) {
  return source_batch_rows(AutoQ1Linear::weight_row_bytes(in_shape), out_shape, Q1_0TileBlock::kRows);
}

}  // namespace

AutoQ1Linear::AutoQ1Linear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape,
                           std::uint64_t num_heads, bool has_bias, QuantFormat lora_format)
    : BlockLinear(in_shape, out_shape, num_heads, has_bias, lora_format, formats::kQ1_0Weights) {
  require_multiples_of_128("AutoQ1Linear");
  if (kernels::kernels().tiles_q1_0_rows()) {
    read_tiles(stream);
  } else {
    read_weights(stream, kWeightsText);
  }
  read_bias(stream);
}

std::uint64_t AutoQ1Linear::weight_row_bytes(std::uint64_t in_shape) {
  return formats::kQ1_0Weights.layout.row_bytes(in_shape);
}

std::uint64_t AutoQ1Linear::source_batch_bytes(std::uint64_t in_shape, std::uint64_t out_shape) {
  return size_mul(tile_batch_rows(in_shape, out_shape), weight_row_bytes(in_shape));
}

void AutoQ1Linear::read_tiles(std::istream& stream) {
  constexpr std::uint64_t kRows = Q1_0TileBlock::kRows;
  const std::uint64_t blocks = in_shape() / BlockQ1_0::kValues;
  const std::uint64_t row_bytes = weight_row_bytes(in_shape());
  const std::uint64_t total_bytes = size_mul(out_shape(), row_bytes);
  const std::uint64_t batch_rows = tile_batch_rows(in_shape(), out_shape());
  tiles_ = allocate_aligned_elements<Q1_0TileBlock>(size_mul(formats::q1_0_tile_count(out_shape()), blocks));
  const AlignedPtr<BlockQ1_0> source = allocate_aligned_elements<BlockQ1_0>(size_mul(batch_rows, blocks));
  for (std::uint64_t row = 0; row < out_shape(); row += batch_rows) {
    const std::uint64_t rows = std::min(batch_rows, out_shape() - row);
    read_payload_piece(stream, source.get(), {row * row_bytes, rows * row_bytes, total_bytes}, kWeightsText);
    parallel_rows(rows, {.unit_rows = kRows}, [&](std::uint64_t first, std::uint64_t n) {
      formats::tile_q1_0_rows(source.get() + first * blocks, n, blocks, tiles_.get() + (row + first) / kRows * blocks);
    });
  }
}

std::uint64_t AutoQ1Linear::rows_per_unit() const {
  return tiles_ ? Q1_0TileBlock::kRows : AutoLinear::rows_per_unit();
}

void AutoQ1Linear::multiply_rows(const ActivationRow& x, std::uint64_t first_row, std::uint64_t rows,
                                 bf16* out) const {
  if (!tiles_) {
    BlockLinear::multiply_rows(x, first_row, rows, out);
    return;
  }
  const Q1_0TileBlock* first = tiles_.get() + first_row / Q1_0TileBlock::kRows * (in_shape() / BlockQ1_0::kValues);
  kernels::kernels().gemm_q1_0_tiles(first, x.codes, &x.scale, out, 0, 1, rows, in_shape());
}

void AutoQ1Linear::multiply_tokens(const std::int8_t* x_q, const float* x_scale, std::uint64_t n_tokens,
                                   bf16* out) const {
  if (!tiles_) {
    BlockLinear::multiply_tokens(x_q, x_scale, n_tokens, out);
    return;
  }
  kernels::kernels().gemm_q1_0_tiles(tiles_.get(), x_q, x_scale, out, out_shape(), n_tokens, out_shape(), in_shape());
}

}  // namespace quorvel::layers
