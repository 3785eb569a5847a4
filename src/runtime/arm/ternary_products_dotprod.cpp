// Ternary ("BitLinear") single-token product, dot-product set: one SDOT per
// 16 raw codes straight into 32-bit lanes, so no 16-bit stage and no chunks.
#include <arm_neon.h>

#include "runtime/arm/micro_kernel_table.h"
#include "runtime/arm/neon_int8_lanes.h"
#include "runtime/arm/neon_ternary_rows.h"
#include "runtime/formats/ternary.h"

namespace quorvel::kernels::arm {

namespace {

using formats::kTernaryGroup;
using formats::kTernaryGroupBytes;

struct TernaryDot {
  static int32x4_t code_sums4(const std::uint8_t* const* row, const std::int8_t* x, size_t k) {
    int32x4_t sum[4];
    for (int32x4_t& s : sum) s = vdupq_n_s32(0);
    for (size_t g = 0; g < k / kTernaryGroup; ++g) {
      const Activations128 a = load_activations128(x + g * kTernaryGroup);
#pragma GCC unroll 4
      for (size_t i = 0; i < 4; ++i) {
        const TernaryCodes c = load_ternary_codes(row[i] + g * kTernaryGroupBytes);
#pragma GCC unroll 8
        for (size_t m = 0; m < 8; ++m) sum[i] = vdotq_s32(sum[i], c.v[m], a.v[m]);
      }
    }
    return row_totals(sum[0], sum[1], sum[2], sum[3]);
  }
};

}  // namespace

void dotprod::gemv_ternary(const std::uint8_t* w, const std::int8_t* x, std::int32_t x_sum, bf16* out, size_t rows,
                           size_t k, float x_scale, double gamma) {
  gemv_ternary_rows<TernaryDot>(w, x, x_sum, out, rows, k, x_scale, gamma);
}

}  // namespace quorvel::kernels::arm
