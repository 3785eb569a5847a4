// The int8 unembedding product on AVX2. A tile row (32 rows) is taken eight
// rows at a time, each row's 32 codes of a tile in one vector; VPMADDUBSW
// takes |w| and x carrying w's sign (two products of at most 128 * 127 per
// 16-bit lane), VPMADDWD widens to 32 bits. The eight rows of a pass are
// reduced once at the end.
#include "runtime/formats/i8_matrix.h"
#include "runtime/x86/avx2_kernels.h"
#include "runtime/x86/avx2_lanes.h"

namespace quorvel::kernels::x86 {
namespace {

using formats::kI8Tile;

// Exact sums of the eight rows starting at row `first` of a tile row.
__m256i pass_row_sums(const std::int8_t* tiles, std::size_t first, const std::int8_t* x, std::size_t k) {
  __m256i acc[avx2::kLanes];
  #pragma GCC unroll 16
  for (__m256i& a : acc) a = _mm256_setzero_si256();
  for (std::size_t c = 0; c < k; c += kI8Tile, tiles += kI8Tile * kI8Tile) {
    const __m256i xv = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(x + c));
    #pragma GCC unroll 16
    for (int i = 0; i < avx2::kLanes; ++i) {
      const __m256i w = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(tiles + (first + i) * kI8Tile));
      const __m256i products = _mm256_maddubs_epi16(_mm256_abs_epi8(w), _mm256_sign_epi8(xv, w));
      acc[i] = _mm256_add_epi32(acc[i], avx2::widen_pairs(products));
    }
  }
  return avx2::sum_lanes(acc);
}

}  // namespace

// rows and k are multiples of 32; out[r] = ((float)sum * x_scale) * row_scales[r].
void Avx2Kernels::gemv_i8_f32(const std::int8_t* w, const float* row_scales, const std::int8_t* x, float x_scale,
                              float* out, size_t rows, size_t k) const {
  const __m256 scale = _mm256_set1_ps(x_scale);
  for (std::size_t r = 0; r < rows; r += kI8Tile) {
    for (std::size_t first = 0; first < kI8Tile; first += avx2::kLanes) {
      const __m256 scaled = _mm256_mul_ps(_mm256_cvtepi32_ps(pass_row_sums(w + r * k, first, x, k)), scale);
      _mm256_storeu_ps(out + r + first, _mm256_mul_ps(scaled, _mm256_loadu_ps(row_scales + r + first)));
    }
  }
}

}  // namespace quorvel::kernels::x86
