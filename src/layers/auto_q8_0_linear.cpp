#include "layers/auto_q8_0_linear.h"

#include <algorithm>

#include "runtime/formats/format_table.h"
#include "runtime/kernel_base.h"
#include "runtime/parallel_rows.h"
#include "runtime/thread_pool.h"

namespace quorvel::layers {
namespace {

const PayloadText kSourceText{"Could not read Q8_0 source BF16 weights: read_bytes (",
                              "Failed to read Q8_0 source BF16 weights"};

// Tokens of a tile of the several-token product (see the header).
constexpr std::uint64_t kTileTokens = 8;

// The bf16 source rows held at once (source_batch_rows).
std::uint64_t bf16_batch_rows(std::uint64_t in_shape, std::uint64_t out_shape) {
  return source_batch_rows(size_mul(in_shape, sizeof(bf16)), out_shape);
}

}  // namespace

AutoQ8_0Linear::AutoQ8_0Linear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape,
                               std::uint64_t num_heads, bool has_bias, QuantFormat lora_format)
    : BlockLinear(in_shape, out_shape, num_heads, has_bias, lora_format, formats::kQ8_0Weights) {
  quantize_from(stream);
  read_bias(stream);
}

std::uint64_t AutoQ8_0Linear::weight_row_bytes(std::uint64_t in_shape) {
  return formats::kQ8_0Weights.layout.row_bytes(in_shape);
}

std::uint64_t AutoQ8_0Linear::source_batch_bytes(std::uint64_t in_shape, std::uint64_t out_shape) {
  return size_mul(bf16_batch_rows(in_shape, out_shape), in_shape, sizeof(bf16));
}

struct AutoQ8_0Linear::Tiling {
  std::uint64_t rows;         // output rows of a tile
  std::uint64_t token_tiles;  // tiles across the tokens, for each row range
};

void AutoQ8_0Linear::multiply_several_tokens(const std::int8_t* x_q, const float* x_scale, std::uint64_t n,
                                             bf16* out) const {
  const kernels::CpuFeatures features = kernels::kernels().features();
  if (features.has_dot_product == 0 && features.has_int8_matrix == 0) {
    AutoLinear::multiply_several_tokens(x_q, x_scale, n, out);
    return;
  }
  const bool few_workers = thread_count() < 16;
  const Tiling tiling{few_workers ? 64u : 128u, size_ceil_div(n, kTileTokens)};
  const std::uint64_t tiles = size_mul(size_ceil_div(out_shape(), tiling.rows), tiling.token_tiles);
  parallel_rows(tiles, {.chunk_units = few_workers ? 1u : 2u}, [&](std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t tile = first; tile < first + count; ++tile) multiply_tile(tiling, tile, x_q, x_scale, n, out);
  });
}

// Tile t covers token tile t mod token_tiles of row range t / token_tiles.
void AutoQ8_0Linear::multiply_tile(const Tiling& tiling, std::uint64_t tile, const std::int8_t* x_q,
                                   const float* x_scale, std::uint64_t n, bf16* out) const {
  const std::uint64_t first_row = tile / tiling.token_tiles * tiling.rows;
  const std::uint64_t first_token = tile % tiling.token_tiles * kTileTokens;
  const std::uint64_t rows = std::min(tiling.rows, out_shape() - first_row);
  const std::uint64_t tokens = std::min(kTileTokens, n - first_token);
  kernels::kernels().gemm_q8_0(weights() + first_row * row_bytes(), x_q + first_token * in_shape(),
                               x_scale + first_token, out + first_token * out_shape() + first_row, out_shape(),
                               tokens, rows, in_shape());
}

void AutoQ8_0Linear::quantize_from(std::istream& stream) {
  const std::uint64_t source_row_bytes = size_mul(in_shape(), sizeof(bf16));
  const std::uint64_t source_bytes = size_mul(out_shape(), source_row_bytes);
  std::uint8_t* blocks = allocate_weights();
  const std::uint64_t batch_rows = bf16_batch_rows(in_shape(), out_shape());
  const AlignedPtr<bf16> source = allocate_aligned<bf16>(source_batch_bytes(in_shape(), out_shape()));
  std::uint64_t row = 0;
  do {
    const std::uint64_t rows = std::min(batch_rows, out_shape() - row);
    const std::uint64_t offset = row * source_row_bytes;
    read_payload_piece(stream, source.get(), {offset, rows * source_row_bytes, source_bytes}, kSourceText);
    quantize_rows(source.get(), row, rows, blocks);
    row += rows;
  } while (row < out_shape());
}

void AutoQ8_0Linear::quantize_rows(const bf16* source, std::uint64_t first_row, std::uint64_t rows,
                                   std::uint8_t* blocks) const {
  const auto& kernel_set = kernels::kernels();
  parallel_rows(rows, {}, [&](std::uint64_t first, std::uint64_t count) {
    std::uint8_t* out = blocks + (first_row + first) * row_bytes();
    // The quantizer leaves the codes of an all-zero block untouched; clearing
    // first keeps the table the same from run to run.
    kernel_set.fill_bytes(out, 0, count * row_bytes());
    kernel_set.quantize_rows_q8_0(source + first * in_shape(), count, in_shape(), out);
  });
}

}  // namespace quorvel::layers
