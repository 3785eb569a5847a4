// Logits over the tiled int8 unembedding table (formats/i8_matrix.h): each
// tile row of 32 weight rows is walked eight rows at a time over all its
// 32 x 32 tiles, the products widened 8 -> 16 bits (one per lane) and added
// pairwise into 32-bit lanes; then ((float)sum * x_scale) * row_scale.
#include <arm_neon.h>

#include "runtime/arm/neon_int8_lanes.h"
#include "runtime/arm/neon_kernels.h"
#include "runtime/formats/i8_matrix.h"

namespace quorvel::kernels::arm {

namespace {

using formats::kI8Tile;

constexpr size_t kRowsPerPass = 8;

// Adds row . x over 32 columns to the lanes of `sum`.
int32x4_t add_row_chunk(int32x4_t sum, const std::int8_t* row, int8x16_t x_low, int8x16_t x_high) {
  const int8x16_t low = vld1q_s8(row);
  const int8x16_t high = vld1q_s8(row + 16);
  sum = vpadalq_s16(sum, vmull_s8(vget_low_s8(low), vget_low_s8(x_low)));
  sum = vpadalq_s16(sum, vmull_high_s8(low, x_low));
  sum = vpadalq_s16(sum, vmull_s8(vget_low_s8(high), vget_low_s8(x_high)));
  return vpadalq_s16(sum, vmull_high_s8(high, x_high));
}

// Exact integer sums of eight consecutive rows of one tile row; `tiles`
// points at the first row's 32 bytes in the first tile.
void tile_row_sums8(const std::int8_t* tiles, const std::int8_t* x, size_t k, std::int32_t* sums) {
  int32x4_t lanes[kRowsPerPass];
  for (int32x4_t& l : lanes) l = vdupq_n_s32(0);
  for (size_t c = 0; c < k; c += kI8Tile, tiles += kI8Tile * kI8Tile) {
    const int8x16_t x_low = vld1q_s8(x + c);
    const int8x16_t x_high = vld1q_s8(x + c + 16);
#pragma GCC unroll 8
    for (size_t i = 0; i < kRowsPerPass; ++i) lanes[i] = add_row_chunk(lanes[i], tiles + i * kI8Tile, x_low, x_high);
  }
  vst1q_s32(sums, row_totals(lanes[0], lanes[1], lanes[2], lanes[3]));
  vst1q_s32(sums + 4, row_totals(lanes[4], lanes[5], lanes[6], lanes[7]));
}

}  // namespace

// rows and k are multiples of 32.
void NEONKernels::gemv_i8_f32(const std::int8_t* w, const float* row_scales, const std::int8_t* x, float x_scale,
                              float* out, size_t rows, size_t k) const {
  std::int32_t sums[kRowsPerPass];
  for (size_t r = 0; r < rows; r += kRowsPerPass) {
    // Row r is row r % 32 of the tile row that starts at (r / 32) * 32 * k.
    tile_row_sums8(w + (r / kI8Tile) * kI8Tile * k + (r % kI8Tile) * kI8Tile, x, k, sums);
    for (size_t i = 0; i < kRowsPerPass; ++i) {
      out[r + i] = (static_cast<float>(sums[i]) * x_scale) * row_scales[r + i];
    }
  }
}

}  // namespace quorvel::kernels::arm
