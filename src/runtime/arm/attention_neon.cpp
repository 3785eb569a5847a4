// Causal attention of one head and the bf16 row dot product, with the
// portable set's float order kept exactly:
// - a score is a dot product in four lanes (lane j takes elements j, j+4,
//   ...; products rounded), merged ((l0 + l1) + l2) + l3, times 1/sqrt(D);
// - positions go in blocks of kAttentionBlock (scores at the start of work,
//   the weighted sum of value rows after them); the running maximum rises by
//   the library exponential's correction;
// - weights e = exp(score - max): whole groups of four by the polynomial
//   exponential (here four lanes at once), the rest of a block by the library
//   exponential; then, position by position, s = s + e and
//   acc[d] = acc[d] + e * v[d] (product rounded).
// Values are dimension-major (element (p, d) at v[d * v_stride + p]), so four
// dimensions of four positions are loaded as four rows and transposed; each
// accumulator lane then sees its positions in order.
// A head_dim that is not a multiple of 4 goes to the portable set.
#include <arm_neon.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "runtime/arm/neon_bf16.h"
#include "runtime/arm/neon_kernels.h"
#include "runtime/arm/neon_poly_exp.h"

namespace quorvel::kernels::arm {

namespace {

constexpr size_t kLanes = 4;
constexpr float kNoMax = -std::numeric_limits<float>::infinity();

float dot_bf16(const bf16* a, const bf16* b, size_t dim) {
  const size_t whole = dim - dim % kLanes;
  float32x4_t lanes = vdupq_n_f32(0.0f);
  for (size_t i = 0; i < whole; i += kLanes)
    lanes = vaddq_f32(lanes, vmulq_f32(load_bf16x4(a + i), load_bf16x4(b + i)));
  float lane[kLanes];
  vst1q_f32(lane, lanes);
  for (size_t i = whole; i < dim; ++i) lane[i % kLanes] = lane[i % kLanes] + widen(a[i]) * widen(b[i]);
  return ((lane[0] + lane[1]) + lane[2]) + lane[3];
}

// Where one query row reads its inputs and keeps its running state.
struct AttentionRow {
  const bf16* v;
  size_t v_stride;
  size_t head_dim;
  float* weights;  // the block's scores, then their weights e
  float* acc;      // head_dim floats
  float max = kNoMax;
  float sum = 0.0f;
};

// Rescales the running sum and accumulator to a new maximum. Skipped while
// nothing has been accumulated (the maximum is still -inf).
void raise_max(AttentionRow& row, float new_max) {
  if (row.max != kNoMax) {
    const float correction = std::exp(row.max - new_max);
    row.sum = row.sum * correction;
    const float32x4_t c = vdupq_n_f32(correction);
    for (size_t d = 0; d < row.head_dim; d += kLanes) vst1q_f32(row.acc + d, vmulq_f32(vld1q_f32(row.acc + d), c));
  }
  row.max = new_max;
}

// Turns the block's scores into weights in place and adds them to the sum.
void block_weights(AttentionRow& row, size_t count) {
  const size_t grouped = count - count % kLanes;
  const float32x4_t max = vdupq_n_f32(row.max);
  for (size_t p = 0; p < grouped; p += kLanes) {
    vst1q_f32(row.weights + p, poly_exp4(vsubq_f32(vld1q_f32(row.weights + p), max)));
  }
  for (size_t p = grouped; p < count; ++p) row.weights[p] = std::exp(row.weights[p] - row.max);
  for (size_t p = 0; p < count; ++p) row.sum = row.sum + row.weights[p];
}

// acc[d .. d + 3] += e_p * v(p, d .. d + 3) for the block's positions in order.
float32x4_t accumulate_dims4(float32x4_t acc, const bf16* v, size_t v_stride, const float* weights, size_t count) {
  const size_t grouped = count - count % kLanes;
  for (size_t p = 0; p < grouped; p += kLanes) {
    // Row t holds dimension d + t at positions p .. p + 3.
    const float32x4_t r0 = load_bf16x4(v + p);
    const float32x4_t r1 = load_bf16x4(v + v_stride + p);
    const float32x4_t r2 = load_bf16x4(v + 2 * v_stride + p);
    const float32x4_t r3 = load_bf16x4(v + 3 * v_stride + p);
    const float64x2_t t01_even = vreinterpretq_f64_f32(vtrn1q_f32(r0, r1));
    const float64x2_t t01_odd = vreinterpretq_f64_f32(vtrn2q_f32(r0, r1));
    const float64x2_t t23_even = vreinterpretq_f64_f32(vtrn1q_f32(r2, r3));
    const float64x2_t t23_odd = vreinterpretq_f64_f32(vtrn2q_f32(r2, r3));
    const float32x4_t e = vld1q_f32(weights + p);
    acc = vaddq_f32(acc, vmulq_laneq_f32(vreinterpretq_f32_f64(vtrn1q_f64(t01_even, t23_even)), e, 0));
    acc = vaddq_f32(acc, vmulq_laneq_f32(vreinterpretq_f32_f64(vtrn1q_f64(t01_odd, t23_odd)), e, 1));
    acc = vaddq_f32(acc, vmulq_laneq_f32(vreinterpretq_f32_f64(vtrn2q_f64(t01_even, t23_even)), e, 2));
    acc = vaddq_f32(acc, vmulq_laneq_f32(vreinterpretq_f32_f64(vtrn2q_f64(t01_odd, t23_odd)), e, 3));
  }
  for (size_t p = grouped; p < count; ++p) {
    const float column[kLanes] = {widen(v[p]), widen(v[v_stride + p]), widen(v[2 * v_stride + p]),
                                  widen(v[3 * v_stride + p])};
    acc = vaddq_f32(acc, vmulq_n_f32(vld1q_f32(column), weights[p]));
  }
  return acc;
}

void accumulate_block(AttentionRow& row, size_t first, size_t count) {
  for (size_t d = 0; d < row.head_dim; d += kLanes) {
    const bf16* v = row.v + d * row.v_stride + first;
    vst1q_f32(row.acc + d, accumulate_dims4(vld1q_f32(row.acc + d), v, row.v_stride, row.weights, count));
  }
}

}  // namespace

void NEONKernels::dot_rows_bf16(const bf16* rows, size_t row_stride, const bf16* vec, size_t dim, size_t first,
                                size_t count, float* out) const {
  for (size_t i = first; i < first + count; ++i) out[i] = dot_bf16(rows + i * row_stride, vec, dim);
}

// Query row i is position kv_len - n_q + i and sees positions 0 through that
// one; a row that would see none (kv_len < n_q) is written as zeros.
void NEONKernels::attention_bf16(const bf16* q, size_t q_stride, const bf16* k, size_t k_stride, const bf16* v,
                                 size_t v_stride, bf16* out, size_t out_stride, size_t n_q, size_t kv_len,
                                 size_t head_dim, float* work) const {
  if (head_dim % kLanes != 0) {
    return PortableKernels::attention_bf16(q, q_stride, k, k_stride, v, v_stride, out, out_stride, n_q, kv_len,
                                           head_dim, work);
  }
  const float scale = 1.0f / std::sqrt(static_cast<float>(head_dim));
  for (size_t i = 0; i < n_q; ++i) {
    const size_t visible = kv_len + i + 1 > n_q ? kv_len + i + 1 - n_q : 0;
    AttentionRow row{v, v_stride, head_dim, work, work + kAttentionBlock};
    fill_bytes(row.acc, 0, head_dim * sizeof(float));
    for (size_t first = 0; first < visible; first += kAttentionBlock) {
      const size_t count = std::min(kAttentionBlock, visible - first);
      float block_max = kNoMax;
      for (size_t p = 0; p < count; ++p) {
        row.weights[p] = dot_bf16(k + (first + p) * k_stride, q + i * q_stride, head_dim) * scale;
        block_max = std::max(block_max, row.weights[p]);
      }
      raise_max(row, std::max(row.max, block_max));
      block_weights(row, count);
      accumulate_block(row, first, count);
    }
    const float32x4_t inv_sum = vdupq_n_f32(visible == 0 ? 0.0f : 1.0f / row.sum);
    bf16* out_row = out + i * out_stride;
    for (size_t d = 0; d < head_dim; d += kLanes) store_bf16x4(out_row + d, vmulq_f32(vld1q_f32(row.acc + d), inv_sum));
  }
}

}  // namespace quorvel::kernels::arm
