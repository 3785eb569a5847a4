// The int8 unembedding product on AVX-512 VNNI. It streams the whole
// vocabulary table every token, so it must run at memory bandwidth: a 32 x 32
// tile is sixteen 64-byte vectors (two rows each), each flipped to w + 128
// (VPDPBUSD's unsigned operand) and multiplied by the 32 activations of the
// tile's columns, repeated in both halves. The flip adds 128 * sum(x) to
// every row, subtracted once at the end; the 32-bit lanes may wrap on the
// way, but the exact row sum fits 32 bits, so the wrapped arithmetic ends on it.
#include "runtime/formats/i8_matrix.h"
#include "runtime/x86/avx512_kernels.h"
#include "runtime/x86/avx512_lanes.h"

namespace quorvel::kernels::x86 {
namespace {

using formats::kI8Tile;

std::int32_t activation_sum(const std::int8_t* x, std::size_t k) {
  std::int32_t sum = 0;
  for (std::size_t i = 0; i < k; ++i) sum += x[i];
  return sum;
}

// Exact row sums of the 32 rows of one tile row: lanes 0..15 of rows[0] and rows[1].
void tile_row_sums(const std::int8_t* tiles, const std::int8_t* x, std::size_t k, std::int32_t x_sum,
                   __m512i (&rows)[2]) {
  __m512i acc[avx512::kLanes];
  #pragma GCC unroll 16
  for (__m512i& a : acc) a = _mm512_setzero_si512();
  const __m512i flip = _mm512_set1_epi8(static_cast<char>(0x80));
  for (std::size_t c = 0; c < k; c += kI8Tile, tiles += kI8Tile * kI8Tile) {
    const __m512i xv = _mm512_broadcast_i64x4(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(x + c)));
    #pragma GCC unroll 16
    for (int i = 0; i < avx512::kLanes; ++i) {
      const __m512i w = _mm512_loadu_si512(tiles + 64 * i);
      acc[i] = _mm512_dpbusd_epi32(acc[i], _mm512_xor_si512(w, flip), xv);
    }
  }
  __m512i even, odd;  // rows 0, 2, ..., 30 and 1, 3, ..., 31
  avx512::sum_halves(acc, even, odd);
  const __m512i bias = _mm512_set1_epi32(static_cast<std::int32_t>(static_cast<std::uint32_t>(x_sum) << 7));
  even = _mm512_sub_epi32(even, bias);
  odd = _mm512_sub_epi32(odd, bias);
  const __m512i first_half = _mm512_set_epi32(23, 7, 22, 6, 21, 5, 20, 4, 19, 3, 18, 2, 17, 1, 16, 0);
  const __m512i second_half = _mm512_set_epi32(31, 15, 30, 14, 29, 13, 28, 12, 27, 11, 26, 10, 25, 9, 24, 8);
  rows[0] = _mm512_permutex2var_epi32(even, first_half, odd);
  rows[1] = _mm512_permutex2var_epi32(even, second_half, odd);
}

}  // namespace

// rows and k are multiples of 32; out[r] = ((float)sum * x_scale) * row_scales[r].
void Avx512Kernels::gemv_i8_f32(const std::int8_t* w, const float* row_scales, const std::int8_t* x, float x_scale,
                                float* out, size_t rows, size_t k) const {
  const std::int32_t x_sum = activation_sum(x, k);
  const __m512 scale = _mm512_set1_ps(x_scale);
  for (std::size_t r = 0; r < rows; r += kI8Tile) {
    __m512i sums[2];
    tile_row_sums(w + r * k, x, k, x_sum, sums);
    #pragma GCC unroll 16
    for (int half = 0; half < 2; ++half) {
      const std::size_t at = r + 16 * static_cast<std::size_t>(half);
      const __m512 scaled = _mm512_mul_ps(_mm512_cvtepi32_ps(sums[half]), scale);
      _mm512_storeu_ps(out + at, _mm512_mul_ps(scaled, _mm512_loadu_ps(row_scales + at)));
    }
  }
}

}  // namespace quorvel::kernels::x86
