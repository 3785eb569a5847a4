// Attention and the bf16 row dot product in sixteen f32 lanes.
//
// The value step works as in attention_avx2.cpp, on tiles of 16 dimensions
// by 16 positions: rows j and j + 8 share a register ([j: positions 0-7,
// j + 8: positions 0-7, j: 8-15, j + 8: 8-15]), so one in-lane 8x8 transpose
// leaves each position's 16 values in one half, ready to widen; short tiles
// load with masks.
#include "runtime/x86/attention_lanes.h"
#include "runtime/x86/avx512_float_lanes.h"
#include "runtime/x86/avx512_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

using avx512::F32x16;

constexpr std::size_t kTileDims = 16;
constexpr std::size_t kTilePositions = 16;

__m256i load_positions(const bf16* p, std::size_t n) { return _mm256_maskz_loadu_epi16(F32x16::lanes_below(n), p); }

// Within each 128-bit quarter: element c of m[r] moves to element r of m[c].
void transpose_quarters(__m512i (&m)[8]) {
  __m512i t[8], u[8];
#pragma GCC unroll 4
  for (int i = 0; i < 4; ++i) {
    t[2 * i] = _mm512_unpacklo_epi16(m[2 * i], m[2 * i + 1]);
    t[2 * i + 1] = _mm512_unpackhi_epi16(m[2 * i], m[2 * i + 1]);
  }
#pragma GCC unroll 2
  for (int g = 0; g < 8; g += 4) {
    u[g] = _mm512_unpacklo_epi32(t[g], t[g + 2]);
    u[g + 1] = _mm512_unpackhi_epi32(t[g], t[g + 2]);
    u[g + 2] = _mm512_unpacklo_epi32(t[g + 1], t[g + 3]);
    u[g + 3] = _mm512_unpackhi_epi32(t[g + 1], t[g + 3]);
  }
#pragma GCC unroll 4
  for (int c = 0; c < 4; ++c) {
    m[2 * c] = _mm512_unpacklo_epi64(u[c], u[c + 4]);
    m[2 * c + 1] = _mm512_unpackhi_epi64(u[c], u[c + 4]);
  }
}

// Dimension rows r and r + 8 of the tile, quarters ordered for the transpose.
__m512i paired_rows(const bf16* v, std::size_t v_stride, std::size_t r, std::size_t dims, std::size_t positions) {
  const __m256i first = r < dims ? load_positions(v + r * v_stride, positions) : _mm256_setzero_si256();
  const __m256i second = r + 8 < dims ? load_positions(v + (r + 8) * v_stride, positions) : _mm256_setzero_si256();
  const __m512i both = _mm512_inserti64x4(_mm512_castsi256_si512(first), second, 1);
  return _mm512_shuffle_i64x2(both, both, _MM_SHUFFLE(3, 1, 2, 0));
}

// sum + e[c] * (the 16 values of position c of the transposed tile).
__m512 add_position(__m512 sum, const __m512i (&m)[8], const float* e, std::size_t c) {
  const __m256i values = c < 8 ? _mm512_castsi512_si256(m[c]) : _mm512_extracti64x4_epi64(m[c - 8], 1);
  return sum + _mm512_set1_ps(e[c]) * F32x16::widen(values);
}

void add_value_tile(const bf16* v, std::size_t v_stride, std::size_t dims, const float* e, std::size_t positions,
                    float* acc) {
  __m512i m[8];
#pragma GCC unroll 8
  for (std::size_t r = 0; r < 8; ++r) m[r] = paired_rows(v, v_stride, r, dims, positions);
  transpose_quarters(m);  // m[c]: position c in the low half, position 8 + c in the high half
  __m512 sum = F32x16::load(acc, dims);
  if (positions == kTilePositions) {
#pragma GCC unroll 16
    for (std::size_t c = 0; c < kTilePositions; ++c) sum = add_position(sum, m, e, c);
  } else {
    for (std::size_t c = 0; c < positions; ++c) sum = add_position(sum, m, e, c);
  }
  F32x16::store(acc, sum, dims);
}

void add_values(const bf16* v, std::size_t v_stride, std::size_t head_dim, const float* e, std::size_t count,
                float* acc) {
  for (std::size_t j = 0; j < head_dim; j += kTileDims) {
    const std::size_t dims = head_dim - j < kTileDims ? head_dim - j : kTileDims;
    for (std::size_t p = 0; p < count; p += kTilePositions) {
      const std::size_t positions = count - p < kTilePositions ? count - p : kTilePositions;
      add_value_tile(v + j * v_stride + p, v_stride, dims, e + p, positions, acc + j);
    }
  }
}

}  // namespace

void Avx512Kernels::attention_bf16(const bf16* q, size_t q_stride, const bf16* k, size_t k_stride, const bf16* v,
                                   size_t v_stride, bf16* out, size_t out_stride, size_t n_q, size_t kv_len,
                                   size_t head_dim, float* work) const {
  lanes::attention<F32x16, add_values>(q, q_stride, k, k_stride, v, v_stride, out, out_stride, n_q, kv_len, head_dim,
                                       work);
}

void Avx512Kernels::dot_rows_bf16(const bf16* rows, size_t row_stride, const bf16* vec, size_t dim, size_t first,
                                  size_t count, float* out) const {
  lanes::dot_rows<F32x16>(rows + first * row_stride, row_stride, vec, dim, count, out + first);
}

}  // namespace quorvel::kernels::x86
