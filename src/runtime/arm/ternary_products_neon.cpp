// Ternary ("BitLinear") products, baseline set: widening 8-bit
// multiply-accumulate of raw codes (0..2) and activations into 16-bit lanes.
//
// Each row has two 16-bit accumulators of eight lanes, so a lane takes eight
// products per 128-weight group. A row is walked in chunks of at most 2048
// weights (16 groups), after which the 16-bit lanes are widened into 32-bit
// lanes: 16 groups x 8 products x 2 x 127 = 32512 cannot overflow. (Code 3
// does not occur in model files; a lane of such codes could wrap.)
//
// The several-token product has this version only: it is not in the
// micro-kernel table.
#include <arm_neon.h>

#include "runtime/arm/micro_kernel_table.h"
#include "runtime/arm/neon_int8_lanes.h"
#include "runtime/arm/neon_kernels.h"
#include "runtime/arm/neon_ternary_rows.h"
#include "runtime/formats/ternary.h"

namespace quorvel::kernels::arm {

namespace {

using formats::kTernaryGroup;
using formats::kTernaryGroupBytes;

constexpr size_t kChunkGroups = 16;

struct Ternary16BitLanes {
  static int32x4_t code_sums4(const std::uint8_t* const* row, const std::int8_t* x, size_t k) {
    const size_t groups = k / kTernaryGroup;
    int32x4_t total[4];
    for (int32x4_t& t : total) t = vdupq_n_s32(0);
    for (size_t chunk = 0; chunk < groups; chunk += kChunkGroups) {
      int16x8_t low[4];
      int16x8_t high[4];
      for (size_t i = 0; i < 4; ++i) low[i] = high[i] = vdupq_n_s16(0);
      for (size_t g = chunk; g < std::min(groups, chunk + kChunkGroups); ++g) {
        const Activations128 a = load_activations128(x + g * kTernaryGroup);
#pragma GCC unroll 4
        for (size_t i = 0; i < 4; ++i) {
          const TernaryCodes c = load_ternary_codes(row[i] + g * kTernaryGroupBytes);
#pragma GCC unroll 8
          for (size_t m = 0; m < 8; ++m) {
            low[i] = vmlal_s8(low[i], vget_low_s8(c.v[m]), vget_low_s8(a.v[m]));
            high[i] = vmlal_high_s8(high[i], c.v[m], a.v[m]);
          }
        }
      }
      for (size_t i = 0; i < 4; ++i) total[i] = vpadalq_s16(vpadalq_s16(total[i], low[i]), high[i]);
    }
    return row_totals(total[0], total[1], total[2], total[3]);
  }
};

// The sum of a token's k activation codes.
std::int32_t activation_sum(const std::int8_t* x, size_t k) {
  const size_t whole = k - k % kTernaryGroup;
  std::int32_t sum = 0;
  for (size_t i = 0; i < whole; i += kTernaryGroup) sum += activation_sum128(load_activations128(x + i));
  for (size_t i = whole; i < k; ++i) sum += x[i];
  return sum;
}

}  // namespace

void neon::gemv_ternary(const std::uint8_t* w, const std::int8_t* x, std::int32_t x_sum, bf16* out, size_t rows,
                        size_t k, float x_scale, double gamma) {
  gemv_ternary_rows<Ternary16BitLanes>(w, x, x_sum, out, rows, k, x_scale, gamma);
}

// Tokens in units of four (as the caller drives them): each group of four
// weight rows is read once per unit and serves all of its tokens.
void NEONKernels::gemm_ternary(double gamma, const std::uint8_t* w, const std::int8_t* x, const float* x_scales,
                               bf16* out, size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  constexpr size_t kUnit = 4;
  for (size_t t0 = 0; t0 < n_tokens; t0 += kUnit) {
    const size_t count = std::min(kUnit, n_tokens - t0);
    std::int32_t x_sums[kUnit];
    double scales[kUnit];
    for (size_t t = 0; t < count; ++t) {
      x_sums[t] = activation_sum(x + (t0 + t) * k, k);
      scales[t] = gamma * static_cast<double>(x_scales[t0 + t]);
    }
    ternary_rows<Ternary16BitLanes>(w, TernaryTokens{x + t0 * k, x_sums, scales, count}, out + t0 * out_stride,
                                    out_stride, rows, k);
  }
}

}  // namespace quorvel::kernels::arm
