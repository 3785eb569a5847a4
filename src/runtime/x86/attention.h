// Attention and the bf16 row dot product on any lane trait (the algorithm
// is attention_lanes.h and dot_rows_lanes.h; this is the value step).
//
// The value step acc[j] = acc[j] + e_p * v[j][p] runs along positions for
// each dimension j, while the cache stores each dimension's positions
// contiguously. A tile of Isa::kTileDims dimensions by 16 positions is loaded
// into eight registers (Isa::value_tile_row: one dimension row each, or two
// sharing a register) and transposed within 128-bit lanes (an 8x8 transpose
// of 16-bit values per lane); one regrouping per pair of positions
// (Isa::position_pair) then lets each position's values widen into one f32
// vector by an interleave with zero words, and the accumulators take their
// products in position order.
#pragma once

#include <cstddef>

#include "runtime/x86/attention_lanes.h"
#include "runtime/x86/lane_loops.h"
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

inline constexpr std::size_t kTilePositions = 16;

// Within each 128-bit lane: element c of m[r] moves to element r of m[c].
template <typename Isa>
void transpose_within_128(typename Isa::Ints (&m)[8]) {
  typename Isa::Ints t[8], u[8];
#pragma GCC unroll 4
  for (int i = 0; i < 4; ++i) {
    t[2 * i] = Isa::template interleave_low<16>(m[2 * i], m[2 * i + 1]);
    t[2 * i + 1] = Isa::template interleave_high<16>(m[2 * i], m[2 * i + 1]);
  }
#pragma GCC unroll 2
  for (int g = 0; g < 8; g += 4) {
    u[g] = Isa::template interleave_low<32>(t[g], t[g + 2]);
    u[g + 1] = Isa::template interleave_high<32>(t[g], t[g + 2]);
    u[g + 2] = Isa::template interleave_low<32>(t[g + 1], t[g + 3]);
    u[g + 3] = Isa::template interleave_high<32>(t[g + 1], t[g + 3]);
  }
#pragma GCC unroll 4
  for (int c = 0; c < 4; ++c) {
    m[2 * c] = Isa::template interleave_low<64>(u[c], u[c + 4]);
    m[2 * c + 1] = Isa::template interleave_high<64>(u[c], u[c + 4]);
  }
}

// sum + e[c] * (the values of position c of the tile, m regrouped by
// position_pair). A bf16 value in the high half of a zero word is its float.
template <typename Isa>
typename Isa::Floats add_position(typename Isa::Floats sum, const typename Isa::Ints (&m)[8], const float* e,
                                  std::size_t c) {
  using F = typename Isa::F32;
  const typename Isa::Ints values = c < 8 ? Isa::template interleave_low<16>(Isa::zero(), m[c])
                                          : Isa::template interleave_high<16>(Isa::zero(), m[c - 8]);
  return sum + F::set1(e[c]) * Isa::as_floats(values);
}

// sum + e_c * v[j][c] for positions c < positions, in order, lane j being
// dimension j of the tile.
template <typename Isa>
typename Isa::Floats add_value_tile(const bf16* v, std::size_t v_stride, std::size_t dims, const float* e,
                                    std::size_t positions, typename Isa::Floats sum) {
  typename Isa::Ints m[8];
#pragma GCC unroll 8
  for (std::size_t r = 0; r < 8; ++r) m[r] = Isa::value_tile_row(v, v_stride, r, dims, positions);
  transpose_within_128<Isa>(m);  // m[c]: positions c and 8 + c
#pragma GCC unroll 8
  for (std::size_t c = 0; c < 8; ++c) m[c] = Isa::position_pair(m[c]);
  if (positions == kTilePositions) {
#pragma GCC unroll 16
    for (std::size_t c = 0; c < kTilePositions; ++c) sum = add_position<Isa>(sum, m, e, c);
  } else {
    for (std::size_t c = 0; c < positions; ++c) sum = add_position<Isa>(sum, m, e, c);
  }
  return sum;
}

// Each group of dimensions adds its tile's positions in one chain of
// dependent additions; taking every group's tile before the next tile's
// positions gives the processor as many independent chains as there are
// groups, instead of one chain at a time.
template <typename Isa>
void add_values(const bf16* v, std::size_t v_stride, std::size_t head_dim, const float* e, std::size_t count,
                float* acc) {
  constexpr std::size_t kTileDims = Isa::kTileDims;
  for (std::size_t p = 0; p < count; p += kTilePositions) {
    const std::size_t positions = count - p < kTilePositions ? count - p : kTilePositions;
    for (std::size_t j = 0; j < head_dim; j += kTileDims) {
      const std::size_t dims = head_dim - j < kTileDims ? head_dim - j : kTileDims;
      const auto sum = lanes::load_f32<typename Isa::F32>(acc + j, dims);
      lanes::store_f32<typename Isa::F32>(
          acc + j, add_value_tile<Isa>(v + j * v_stride + p, v_stride, dims, e + p, positions, sum), dims);
    }
  }
}

}  // namespace

template <typename Isa>
void X86Kernels<Isa>::attention_bf16(const bf16* q, size_t q_stride, const bf16* k, size_t k_stride, const bf16* v,
                                     size_t v_stride, bf16* out, size_t out_stride, size_t n_q, size_t kv_len,
                                     size_t head_dim, float* work) const {
  lanes::attention<typename Isa::F32, add_values<Isa>>(q, q_stride, k, k_stride, v, v_stride, out, out_stride, n_q,
                                                       kv_len, head_dim, work);
}

template <typename Isa>
void X86Kernels<Isa>::dot_rows_bf16(const bf16* rows, size_t row_stride, const bf16* vec, size_t dim, size_t first,
                                    size_t count, float* out) const {
  lanes::dot_rows<typename Isa::F32>(rows + first * row_stride, row_stride, vec, dim, count, out + first);
}

}  // namespace quorvel::kernels::x86
