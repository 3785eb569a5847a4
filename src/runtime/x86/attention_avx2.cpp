// Attention and the bf16 row dot product in eight f32 lanes.
//
// The value step acc[j] = acc[j] + e_p * v[j][p] runs along positions for
// each dimension j, while the cache stores each dimension's positions
// contiguously. A tile of 8 dimensions by 16 positions is loaded row by row
// and transposed in registers (two 8x8 transposes of 16-bit values, one per
// 128-bit half), so that each position's 8 values widen into one vector and
// the 8 accumulators take their products in position order. Each group of
// dimensions walks the block's positions before the next group starts: its
// rows are read front to back, and the cache, whose rows lie a power-of-two
// stride apart, keeps the few lines in use instead of a column of every row.
#include "runtime/x86/attention_lanes.h"
#include "runtime/x86/avx2_float_lanes.h"
#include "runtime/x86/avx2_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

using avx2::F32x8;

constexpr std::size_t kTileDims = 8;
constexpr std::size_t kTilePositions = 16;

// Positions [0, n) of one value row; a short tile is padded with zeros
// (weights past the block's count are never applied).
__m256i load_positions(const bf16* p, std::size_t n) {
  if (n == kTilePositions) return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
  alignas(32) std::uint16_t part[kTilePositions] = {};
  __builtin_memcpy(part, p, n * sizeof(bf16));
  return _mm256_load_si256(reinterpret_cast<const __m256i*>(part));
}

// Within each 128-bit half: element c of m[r] moves to element r of m[c].
void transpose_halves(__m256i (&m)[8]) {
  __m256i t[8], u[8];
#pragma GCC unroll 4
  for (int i = 0; i < 4; ++i) {
    t[2 * i] = _mm256_unpacklo_epi16(m[2 * i], m[2 * i + 1]);
    t[2 * i + 1] = _mm256_unpackhi_epi16(m[2 * i], m[2 * i + 1]);
  }
#pragma GCC unroll 2
  for (int g = 0; g < 8; g += 4) {
    u[g] = _mm256_unpacklo_epi32(t[g], t[g + 2]);
    u[g + 1] = _mm256_unpackhi_epi32(t[g], t[g + 2]);
    u[g + 2] = _mm256_unpacklo_epi32(t[g + 1], t[g + 3]);
    u[g + 3] = _mm256_unpackhi_epi32(t[g + 1], t[g + 3]);
  }
#pragma GCC unroll 4
  for (int c = 0; c < 4; ++c) {
    m[2 * c] = _mm256_unpacklo_epi64(u[c], u[c + 4]);
    m[2 * c + 1] = _mm256_unpackhi_epi64(u[c], u[c + 4]);
  }
}

// sum + e[c] * (the 8 values of position c of the transposed tile).
__m256 add_position(__m256 sum, const __m256i (&m)[8], const float* e, std::size_t c) {
  const __m128i values = c < 8 ? _mm256_castsi256_si128(m[c]) : _mm256_extracti128_si256(m[c - 8], 1);
  return sum + _mm256_set1_ps(e[c]) * F32x8::widen(values);
}

// acc[0..dims) += e_c * v[j][c] for positions c < positions, in order.
void add_value_tile(const bf16* v, std::size_t v_stride, std::size_t dims, const float* e, std::size_t positions,
                    float* acc) {
  __m256i m[8];
#pragma GCC unroll 8
  for (std::size_t r = 0; r < 8; ++r) {
    m[r] = r < dims ? load_positions(v + r * v_stride, positions) : _mm256_setzero_si256();
  }
  transpose_halves(m);  // m[c]: position c in the low half, position 8 + c in the high half
  __m256 sum = dims == kTileDims ? F32x8::load(acc) : F32x8::load(acc, dims);
  if (positions == kTilePositions) {
#pragma GCC unroll 16
    for (std::size_t c = 0; c < kTilePositions; ++c) sum = add_position(sum, m, e, c);
  } else {
    for (std::size_t c = 0; c < positions; ++c) sum = add_position(sum, m, e, c);
  }
  if (dims == kTileDims) {
    F32x8::store(acc, sum);
  } else {
    F32x8::store(acc, sum, dims);
  }
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

void Avx2Kernels::attention_bf16(const bf16* q, size_t q_stride, const bf16* k, size_t k_stride, const bf16* v,
                                 size_t v_stride, bf16* out, size_t out_stride, size_t n_q, size_t kv_len,
                                 size_t head_dim, float* work) const {
  lanes::attention<F32x8, add_values>(q, q_stride, k, k_stride, v, v_stride, out, out_stride, n_q, kv_len, head_dim,
                                      work);
}

void Avx2Kernels::dot_rows_bf16(const bf16* rows, size_t row_stride, const bf16* vec, size_t dim, size_t first,
                                size_t count, float* out) const {
  lanes::dot_rows<F32x8>(rows + first * row_stride, row_stride, vec, dim, count, out + first);
}

}  // namespace quorvel::kernels::x86
