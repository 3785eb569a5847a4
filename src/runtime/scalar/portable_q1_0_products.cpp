// q1_0_128 products: weight rows of consecutive blocks against int8 activations.
#include "runtime/formats/q1_0.h"
#include "runtime/formats/q1_0_tiles.h"
#include "runtime/scalar/portable_block_products.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

namespace {

using formats::BlockQ1_0;
using formats::Q1_0TileBlock;

const BlockQ1_0* blocks(const void* w) { return static_cast<const BlockQ1_0*>(w); }

// One token over tiled rows: row r's blocks are the tile blocks of its tile, row r % 16 of each.
void tile_rows_product(const Q1_0TileBlock* tiles, const std::int8_t* x, float x_scale, bf16* out, std::size_t rows,
                       std::size_t k) {
  const std::size_t row_blocks = portable::blocks_per_row<Q1_0TileBlock>(k);
  for (std::size_t r = 0; r < rows; ++r) {
    const Q1_0TileBlock* tile = tiles + r / Q1_0TileBlock::kRows * row_blocks;
    const std::size_t lane = r % Q1_0TileBlock::kRows;
    float acc = 0.0f;
    for (std::size_t col = 0, b = 0; col < k; col += Q1_0TileBlock::kValues, ++b) {
      const std::size_t n = std::min(Q1_0TileBlock::kValues, k - col);
      acc = acc + widen(tile[b].d[lane]) * static_cast<float>(formats::tile_row_sum(tile[b], lane, x + col, n));
    }
    portable::store_product(acc * x_scale, out[r]);
  }
}

}  // namespace

void PortableKernels::gemm_q1_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                                size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  portable::gemm_block_rows(blocks(w), x, x_scales, out, out_stride, n_tokens, rows, k, portable::kQ1RowsPerGroup);
}

void PortableKernels::gemv_q1_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                                size_t k) const {
  portable::gemv_block_rows(blocks(w), x, x_scale, out, rows, k, portable::kQ1RowsPerGroup);
}

void PortableKernels::gemv_q1_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                    size_t k) const {
  portable::gemv_block_rows(blocks(w), x, x_scale, out, rows, k, portable::kQ1RowsPerGroup);
}

void PortableKernels::gemm_q1_0_tiles(const void* tiles, const std::int8_t* x, const float* x_scales, bf16* out,
                                      size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  for (std::size_t t = 0; t < n_tokens; ++t) {
    tile_rows_product(static_cast<const Q1_0TileBlock*>(tiles), x + t * k, x_scales[t], out + t * out_stride, rows, k);
  }
}

bool PortableKernels::tiles_q1_0_rows() const { return false; }

}  // namespace quorvel::kernels
