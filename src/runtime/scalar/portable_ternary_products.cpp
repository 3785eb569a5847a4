// Ternary ("BitLinear") products: 2-bit codes with one per-matrix scale gamma.
//
// The integer part sums raw codes times activations (sum of c_i * x_i with
// c in 0..2) and subtracts the activation sum once per row, which equals the
// sum of (c_i - 1) * x_i. The scaling is done in double:
//   out[r] = narrow_nearest_even((float)((double)(sum - x_sum) * (gamma * (double)x_scale))).
#include <algorithm>

#include "runtime/formats/q1_58.h"
#include "runtime/formats/ternary.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

namespace {

using formats::kTernaryGroup;
using formats::kTernaryGroupBytes;

// Four rows share each pass over the activations.
constexpr std::size_t kRowsPerPass = 4;
// Rows are walked in chunks of at most 2048 weights: the SIMD sets add eight
// code * activation products per 16-bit lane per 128 weights, and 16 groups
// x 8 x 254 = 32512 is the most a lane can take before widening to 32 bits.
// Here the sums are 32-bit throughout; the chunk walk is kept so that every
// set has the same structure.
constexpr std::size_t kChunkGroups = 16;

// Sum of c_i * x_i over whole rows for up to four rows starting at `w`.
void ternary_code_sums(const std::uint8_t* w, const std::int8_t* x, std::size_t k, std::size_t n_rows,
                       std::int32_t* sums) {
  const std::size_t row_bytes = k / 4;
  const std::size_t groups = k / kTernaryGroup;
  std::fill(sums, sums + n_rows, 0);
  for (std::size_t chunk = 0; chunk < groups; chunk += kChunkGroups) {
    std::int32_t chunk_sums[kRowsPerPass] = {};
    for (std::size_t g = chunk; g < std::min(groups, chunk + kChunkGroups); ++g) {
      for (std::size_t i = 0; i < n_rows; ++i) {
        const std::uint8_t* group = w + i * row_bytes + g * kTernaryGroupBytes;
        chunk_sums[i] += formats::ternary_group_code_sum(group, x + g * kTernaryGroup);
      }
    }
    for (std::size_t i = 0; i < n_rows; ++i) sums[i] += chunk_sums[i];
  }
}

// The shared single-token body; `scale` is gamma * (double)x_scale.
void ternary_rows(const std::uint8_t* w, const std::int8_t* x, std::int32_t x_sum, bf16* out, std::size_t rows,
                  std::size_t k, double scale) {
  std::int32_t sums[kRowsPerPass];
  for (std::size_t r = 0; r < rows; r += kRowsPerPass) {
    const std::size_t n = std::min(kRowsPerPass, rows - r);
    ternary_code_sums(w + r * (k / 4), x, k, n, sums);
    for (std::size_t i = 0; i < n; ++i) {
      out[r + i] = narrow_nearest_even(static_cast<float>(static_cast<double>(sums[i] - x_sum) * scale));
    }
  }
}

std::int32_t activation_sum(const std::int8_t* x, std::size_t k) {
  std::int32_t sum = 0;
  for (std::size_t i = 0; i < k; ++i) sum += x[i];
  return sum;
}

}  // namespace

// rows % 4 == 0 (the SIMD sets have no tail path); k % 128 == 0.
void PortableKernels::gemv_ternary(const std::uint8_t* w, const std::int8_t* x, std::int32_t x_sum, bf16* out,
                                   size_t rows, size_t k, float x_scale, double gamma) const {
  ternary_rows(w, x, x_sum, out, rows, k, gamma * static_cast<double>(x_scale));
}

void PortableKernels::gemm_ternary(double gamma, const std::uint8_t* w, const std::int8_t* x, const float* x_scales,
                                   bf16* out, size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  for (std::size_t t = 0; t < n_tokens; ++t) {
    const std::int8_t* xt = x + t * k;
    ternary_rows(w, xt, activation_sum(xt, k), out + t * out_stride, rows, k, gamma * static_cast<double>(x_scales[t]));
  }
}

}  // namespace quorvel::kernels
