// Ternary ("BitLinear") products on AVX2. Each 128-weight group's codes are
// multiplied by the activations with VPMADDUBSW and widened to 32 bits with
// VPMADDWD at once, so the lanes never hold more than one group in 16 bits
// (no chunk limit, and a stray code 3 cannot overflow). The integer sums need
// no per-block float step, so every row keeps one vector of partial sums over
// the whole row and the eight rows of a pass are reduced once at the end;
// then (double)(sum - x_sum) * (gamma * (double)x_scale), rounded to f32 and
// narrowed to bf16 with nearest-even, as the portable set does.
#include "runtime/formats/ternary.h"
#include "runtime/x86/avx2_kernels.h"
#include "runtime/x86/avx2_lanes.h"
#include "runtime/x86/avx2_ternary_codes.h"
#include "runtime/x86/pass_prefetch.h"
#include "runtime/x86/prepared_activations.h"

namespace quorvel::kernels::x86 {
namespace {

using formats::kTernaryGroup;
using formats::kTernaryGroupBytes;

// (float)((double)sums * scale) per lane, with lane l's scale scales[l % kTokens].
template <int kTokens>
__m256 scale_in_double(__m256i sums, const double* scales) {
  alignas(32) double lane_scales[4];
  #pragma GCC unroll 16
  for (int l = 0; l < 4; ++l) lane_scales[l] = scales[l % kTokens];
  const __m256d scale = _mm256_load_pd(lane_scales);
  const __m128 low = _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_cvtepi32_pd(_mm256_castsi256_si128(sums)), scale));
  const __m128 high = _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_cvtepi32_pd(_mm256_extracti128_si256(sums, 1)), scale));
  return _mm256_insertf128_ps(_mm256_castps128_ps256(low), high, 1);
}

// Rows [first, first + n) of the pass; lanes past the last row repeat it.
template <int kTokens>
void ternary_pass(const std::uint8_t* w, std::size_t first, std::size_t n, std::size_t k,
                  const PreparedActivations& x, const double* scales, bf16* out, std::size_t out_stride) {
  constexpr int kRows = avx2::kRowsPerPass<kTokens>;
  const std::size_t row_bytes = k / 4;
  const std::uint8_t* row[kRows];
  for (std::size_t r = 0; r < kRows; ++r) row[r] = w + (first + (r < n ? r : n - 1)) * row_bytes;
  __m256i partial[avx2::kLanes];
  #pragma GCC unroll 16
  for (__m256i& p : partial) p = _mm256_setzero_si256();
  const PassPrefetch prefetch(row[0], kRows * row_bytes, k / kTernaryGroup);
  for (std::size_t g = 0; g < k / kTernaryGroup; ++g) {
    prefetch.step(g);
    __m256i xv[kTokens][4];
    #pragma GCC unroll 16
    for (int t = 0; t < kTokens; ++t) {
      #pragma GCC unroll 16
      for (int i = 0; i < 4; ++i) {
        xv[t][i] = _mm256_load_si256(reinterpret_cast<const __m256i*>(x.codes[t] + g * kTernaryGroup + 32 * i));
      }
    }
    #pragma GCC unroll 16
    for (int r = 0; r < kRows; ++r) {
      const avx2::TernaryCodes codes = avx2::expand_ternary_group(row[r] + g * kTernaryGroupBytes);
      #pragma GCC unroll 16
      for (int t = 0; t < kTokens; ++t) {
        partial[r * kTokens + t] = avx2::dot_ternary_group(partial[r * kTokens + t], codes, xv[t]);
      }
    }
  }
  const __m256i sums = _mm256_sub_epi32(avx2::sum_lanes(partial), avx2::broadcast_tokens<kTokens>(x.row_sums));
  avx2::store_lanes<kTokens>(scale_in_double<kTokens>(sums, scales), out + first, out_stride, n);
}

template <int kTokens>
void ternary_rows(const std::uint8_t* w, std::size_t rows, std::size_t k, const PreparedActivations& x,
                  const double* scales, bf16* out, std::size_t out_stride) {
  constexpr std::size_t kRows = avx2::kRowsPerPass<kTokens>;
  for (std::size_t r = 0; r < rows; r += kRows) {
    ternary_pass<kTokens>(w, r, rows - r < kRows ? rows - r : kRows, k, x, scales, out, out_stride);
  }
}

}  // namespace

void Avx2Kernels::gemv_ternary(const std::uint8_t* w, const std::int8_t* x, std::int32_t x_sum, bf16* out,
                               size_t rows, size_t k, float x_scale, double gamma) const {
  if (!PreparedActivations::fits(k)) return PortableKernels::gemv_ternary(w, x, x_sum, out, rows, k, x_scale, gamma);
  PreparedActivations prepared;
  prepare_activations(prepared, x, &x_scale, 1, k, kTernaryGroup, CodeOrder::natural);
  prepared.row_sums[0] = x_sum;  // the caller's sum is the one the definition subtracts
  const double scale = gamma * static_cast<double>(x_scale);
  ternary_rows<1>(w, rows, k, prepared, &scale, out, 0);
}

void Avx2Kernels::gemm_ternary(double gamma, const std::uint8_t* w, const std::int8_t* x, const float* x_scales,
                               bf16* out, size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  if (!PreparedActivations::fits(k)) {
    return PortableKernels::gemm_ternary(gamma, w, x, x_scales, out, out_stride, n_tokens, rows, k);
  }
  PreparedActivations prepared;
  token_passes(n_tokens, [&](std::size_t t, std::size_t tokens) {
    prepare_activations(prepared, x + t * k, x_scales + t, tokens, k, kTernaryGroup, CodeOrder::natural);
    double scales[PreparedActivations::kMaxTokens];
    for (std::size_t i = 0; i < tokens; ++i) scales[i] = gamma * static_cast<double>(x_scales[t + i]);
    bf16* token_out = out + t * out_stride;
    if (tokens == 4) ternary_rows<4>(w, rows, k, prepared, scales, token_out, out_stride);
    if (tokens == 2) ternary_rows<2>(w, rows, k, prepared, scales, token_out, out_stride);
    if (tokens == 1) ternary_rows<1>(w, rows, k, prepared, scales, token_out, out_stride);
  });
}

}  // namespace quorvel::kernels::x86
