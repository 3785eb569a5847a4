// Unembedding (logits) products: f32 outputs over output tables arranged in
// groups of 32 rows (formats/unembed_layout.h), one int8 activation row.
#include "runtime/formats/i8_matrix.h"
#include "runtime/formats/q4_0.h"
#include "runtime/formats/q5_0.h"
#include "runtime/formats/q6_k.h"
#include "runtime/formats/q8_0.h"
#include "runtime/scalar/portable_block_products.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

namespace {

using formats::kI8Tile;

// One tile row of the int8 table: 32 rows accumulated in 32-bit integers
// over every 32 x 32 tile, then ((float)sum * x_scale) * row_scale.
void gemv_i8_tile_row(const std::int8_t* tiles, const float* row_scales, const std::int8_t* x, float x_scale,
                      float* out, std::size_t k) {
  std::int32_t sums[kI8Tile] = {};
  for (std::size_t c = 0; c < k; c += kI8Tile, tiles += kI8Tile * kI8Tile) {
    for (std::size_t i = 0; i < kI8Tile; ++i) {
      for (std::size_t j = 0; j < kI8Tile; ++j) sums[i] += tiles[i * kI8Tile + j] * x[c + j];
    }
  }
  for (std::size_t i = 0; i < kI8Tile; ++i) out[i] = (static_cast<float>(sums[i]) * x_scale) * row_scales[i];
}

}  // namespace

// rows and k are multiples of 32.
void PortableKernels::gemv_i8_f32(const std::int8_t* w, const float* row_scales, const std::int8_t* x, float x_scale,
                                  float* out, size_t rows, size_t k) const {
  for (std::size_t r = 0; r < rows; r += kI8Tile) {
    gemv_i8_tile_row(w + r * k, row_scales + r, x, x_scale, out + r, k);
  }
}

void PortableKernels::gemv_q8_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                    size_t k) const {
  portable::gemv_grouped_rows_f32(static_cast<const formats::BlockQ8_0*>(w), x, x_scale, out, rows, k);
}

void PortableKernels::gemv_q4_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                    size_t k) const {
  portable::gemv_grouped_rows_f32(static_cast<const formats::BlockQ4_0*>(w), x, x_scale, out, rows, k);
}

void PortableKernels::gemv_q5_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                    size_t k) const {
  portable::gemv_grouped_rows_f32(static_cast<const formats::BlockQ5_0*>(w), x, x_scale, out, rows, k);
}

void PortableKernels::gemv_q6_k_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                    size_t k) const {
  portable::gemv_grouped_rows_f32(static_cast<const formats::BlockQ6_K*>(w), x, x_scale, out, rows, k);
}

}  // namespace quorvel::kernels
