// The several-token ternary ("BitLinear") product: the baseline set's
// WideningSums only (it is not in the micro-kernel table), with the
// activation sums it needs.
#include <arm_neon.h>

#include "runtime/arm/neon_int8_lanes.h"
#include "runtime/arm/neon_kernels.h"
#include "runtime/arm/neon_ternary_rows.h"
#include "runtime/arm/neon_widening_sums.h"
#include "runtime/formats/ternary.h"

namespace quorvel::kernels::arm {

namespace {

using formats::kTernaryGroup;

// The sum of a token's k activation codes.
std::int32_t activation_sum(const std::int8_t* x, size_t k) {
  const size_t whole = k - k % kTernaryGroup;
  std::int32_t sum = 0;
  for (size_t i = 0; i < whole; i += kTernaryGroup) sum += activation_sum128(load_activations128(x + i));
  for (size_t i = whole; i < k; ++i) sum += x[i];
  return sum;
}

}  // namespace

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
    ternary_rows<WideningSums>(w, TernaryTokens{x + t0 * k, x_sums, scales, count}, out + t0 * out_stride, out_stride,
                               rows, k);
  }
}

}  // namespace quorvel::kernels::arm
