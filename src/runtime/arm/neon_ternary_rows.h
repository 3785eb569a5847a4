// The row walk of the ternary ("BitLinear") products of the NEON sets,
// written once over an int8 sum trait (neon_widening_sums.h lists its
// members; the dot-product one is in micro_kernels_dotprod.cpp).
//
// Per output row and token, as the portable set: the integer result minus the
// token's activation sum, scaled in double,
//   out = narrow_nearest_even((float)((double)(sum - x_sum) * (gamma * (double)x_scale))).
#pragma once

#include <arm_neon.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "runtime/arm/neon_int8_lanes.h"
#include "runtime/bf16.h"
#include "runtime/formats/ternary.h"

namespace quorvel::kernels::arm {

using std::size_t;

// Lane i = the sum of raw code * activation over the k weights of row[i]
// (k a multiple of 128). The trait's code lanes are widened into 32-bit
// totals after every Sums::kCodeGroupsPerWidening groups.
template <typename Sums>
int32x4_t code_sums4(const std::uint8_t* const* row, const std::int8_t* x, size_t k) {
  using formats::kTernaryGroup;
  using formats::kTernaryGroupBytes;
  const size_t groups = k / kTernaryGroup;
  int32x4_t total[4];
  for (int32x4_t& t : total) t = vdupq_n_s32(0);
  for (size_t first = 0; first < groups;) {
    const size_t end = first + std::min(groups - first, Sums::kCodeGroupsPerWidening);
    typename Sums::CodeLanes lanes[4] = {};
    for (size_t g = first; g < end; ++g) {
      const Activations128 a = load_activations128(x + g * kTernaryGroup);
#pragma GCC unroll 4
      for (size_t i = 0; i < 4; ++i)
        lanes[i] = Sums::add_code_products(lanes[i], load_ternary_codes(row[i] + g * kTernaryGroupBytes), a);
    }
#pragma GCC unroll 4
    for (size_t i = 0; i < 4; ++i) total[i] = vaddq_s32(total[i], Sums::widened(lanes[i]));
    first = end;
  }
  return row_totals(total[0], total[1], total[2], total[3]);
}

// The activation rows that one pass over a group of weight rows serves.
struct TernaryTokens {
  const std::int8_t* x;        // token t at x + t * k
  const std::int32_t* x_sums;  // each token's activation sum
  const double* scales;        // gamma * (double)x_scale per token
  size_t count;
};

// Rows four at a time (the weight rows stay in the first-level cache while
// every token passes them); a last group of 1 to 3 rows repeats its last row
// in the unused places and stores only its own results. Token t's outputs
// start at out + t * out_stride.
template <typename Sums>
void ternary_rows(const std::uint8_t* w, const TernaryTokens& tokens, bf16* out, size_t out_stride, size_t rows,
                  size_t k) {
  constexpr size_t kRows = 4;
  const size_t row_bytes = k / 4;
  for (size_t r = 0; r < rows; r += kRows) {
    const size_t n = std::min(kRows, rows - r);
    const std::uint8_t* row[kRows];
    for (size_t i = 0; i < kRows; ++i) row[i] = w + (r + std::min(i, n - 1)) * row_bytes;
    for (size_t t = 0; t < tokens.count; ++t) {
      std::int32_t sums[kRows];
      vst1q_s32(sums, code_sums4<Sums>(row, tokens.x + t * k, k));
      for (size_t i = 0; i < n; ++i) {
        const double signed_sum = static_cast<double>(sums[i] - tokens.x_sums[t]);
        out[t * out_stride + r + i] = narrow_nearest_even(static_cast<float>(signed_sum * tokens.scales[t]));
      }
    }
  }
}

// The single-token product of the micro-kernel table.
template <typename Sums>
void gemv_ternary_rows(const std::uint8_t* w, const std::int8_t* x, std::int32_t x_sum, bf16* out, size_t rows,
                       size_t k, float x_scale, double gamma) {
  const double scale = gamma * static_cast<double>(x_scale);
  ternary_rows<Sums>(w, TernaryTokens{x, &x_sum, &scale, 1}, out, 0, rows, k);
}

}  // namespace quorvel::kernels::arm
