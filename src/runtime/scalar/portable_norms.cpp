// RMS and layer normalization of bf16 rows, in place, with a bf16 weight per
// channel and no bias. Both gather their statistics in four f32 lanes (lane j
// takes elements j, j+4, ...) so that a four-wide SIMD set matches them bit
// for bit; dim is a multiple of 4.
#include <cmath>

#include "runtime/fused_multiply_add.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

namespace {

constexpr size_t kLanes = 4;

// 1 / sqrt(eps + sum_sq / dim): the sum of squares fused into four lanes,
// merged as (l0 + l1) + (l2 + l3); eps is added to the mean, not the root.
float inverse_rms(const bf16* x, size_t dim, float eps) {
  float lane[kLanes] = {0.0f, 0.0f, 0.0f, 0.0f};
  for (size_t i = 0; i < dim; ++i) {
    const float v = widen(x[i]);
    lane[i % kLanes] = fused_multiply_add(v, v, lane[i % kLanes]);
  }
  const float sum = (lane[0] + lane[1]) + (lane[2] + lane[3]);
  const float mean = sum / static_cast<float>(dim);
  return 1.0f / std::sqrt(eps + mean);
}

void rms_norm_row(bf16* x, const bf16* weight, size_t dim, float eps) {
  const float inv = inverse_rms(x, dim, eps);
  for (size_t i = 0; i < dim; ++i) {
    x[i] = narrow_saturate((widen(x[i]) * inv) * widen(weight[i]));
  }
}

// Running statistics of one Welford lane, or of several merged lanes.
struct Moments {
  float count = 0.0f;
  float mean = 0.0f;
  float m2 = 0.0f;  // sum of squared deviations from the mean
};

// The parallel-variance combination of two parts, in this float order:
//   mean = (b * mb + a * ma) / (a + b)
//   m2   = (Ma + Mb) + ((a * b) * (mb - ma)^2) / (a + b)
// For a constant bf16 row every product here is exact, so the merged mean is
// the constant and the row normalizes to zeros.
Moments merge(const Moments& a, const Moments& b) {
  const float total = a.count + b.count;
  const float delta = b.mean - a.mean;
  Moments merged;
  merged.count = total;
  merged.mean = (b.count * b.mean + a.count * a.mean) / total;
  merged.m2 = (a.m2 + b.m2) + ((a.count * b.count) * (delta * delta)) / total;
  return merged;
}

// One pass of four Welford lanes; at step k each lane uses r = 1 / k (one
// float division per step): d = x - mean; mean += d * r; m2 = fma(x - mean, d, m2).
// The lanes merge 0 with 1, the result with 2, then with 3.
Moments row_moments(const bf16* x, size_t dim) {
  Moments lane[kLanes];
  const size_t steps = dim / kLanes;
  for (size_t step = 0; step < steps; ++step) {
    const float r = 1.0f / static_cast<float>(step + 1);
    for (size_t j = 0; j < kLanes; ++j) {
      const float v = widen(x[step * kLanes + j]);
      const float d = v - lane[j].mean;
      lane[j].mean = lane[j].mean + d * r;
      lane[j].m2 = fused_multiply_add(v - lane[j].mean, d, lane[j].m2);
    }
  }
  for (Moments& part : lane) part.count = static_cast<float>(steps);
  return merge(merge(merge(lane[0], lane[1]), lane[2]), lane[3]);
}

void layer_norm_row(bf16* x, const bf16* weight, size_t dim, float eps) {
  const Moments moments = row_moments(x, dim);
  const float variance = moments.m2 / static_cast<float>(dim);
  const float inv = 1.0f / std::sqrt(eps + variance);
  for (size_t i = 0; i < dim; ++i) {
    x[i] = narrow_saturate(((widen(x[i]) - moments.mean) * inv) * widen(weight[i]));
  }
}

}  // namespace

void PortableKernels::rms_norm_bf16(bf16* x, const bf16* weight, size_t rows, size_t dim, float eps) const {
  for (size_t row = 0; row < rows; ++row) rms_norm_row(x + row * dim, weight, dim, eps);
}

void PortableKernels::layer_norm_bf16(bf16* x, const bf16* weight, size_t rows, size_t dim, float eps) const {
  for (size_t row = 0; row < rows; ++row) layer_norm_row(x + row * dim, weight, dim, eps);
}

}  // namespace quorvel::kernels
