// Causal attention of one head, one query row at a time, with the softmax
// kept stable by a running maximum (online softmax). Positions go in blocks
// of kAttentionBlock whose scores live at the start of work; the weighted
// sum of value rows follows them.
#include <algorithm>
#include <cmath>
#include <limits>

#include "runtime/poly_exp.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

namespace {

constexpr size_t kExpGroup = 4;

// Where one query row reads its inputs and keeps its running state.
struct AttentionRow {
  const bf16* k;
  size_t k_stride;
  const bf16* v;  // element (position p, dimension d) at v[d * v_stride + p]
  size_t v_stride;
  size_t head_dim;
  float* scores;  // kAttentionBlock floats
  float* acc;     // head_dim floats
  float max = -std::numeric_limits<float>::infinity();
  float sum = 0.0f;
};

// Rescales the running sum and accumulator to a new maximum. Skipped while
// nothing has been accumulated (the maximum is still -inf).
void raise_max(AttentionRow& row, float new_max) {
  if (row.max != -std::numeric_limits<float>::infinity()) {
    const float correction = std::exp(row.max - new_max);
    row.sum = row.sum * correction;
    for (size_t j = 0; j < row.head_dim; ++j) row.acc[j] = row.acc[j] * correction;
  }
  row.max = new_max;
}

// Adds the block's weights e = exp(score - max) in position order. Whole
// groups of four use the polynomial exponential (so a score more than 87
// below the maximum still weighs exp(-87)); the leftover scores of the
// block use the library exponential.
void accumulate_block(AttentionRow& row, size_t first, size_t count) {
  const size_t grouped = count - count % kExpGroup;
  for (size_t p = 0; p < count; ++p) {
    const float x = row.scores[p] - row.max;
    const float e = p < grouped ? poly_exp(x) : std::exp(x);
    row.sum = row.sum + e;
    const bf16* v = row.v + first + p;
    for (size_t j = 0; j < row.head_dim; ++j) row.acc[j] = row.acc[j] + e * widen(v[j * row.v_stride]);
  }
}

}  // namespace

// Query row i is position kv_len - n_q + i and sees positions 0 through that
// one. A row that would see no position (only when kv_len < n_q, which the
// attention step never passes) is written as zeros.
void PortableKernels::attention_bf16(const bf16* q, size_t q_stride, const bf16* k, size_t k_stride, const bf16* v,
                                     size_t v_stride, bf16* out, size_t out_stride, size_t n_q, size_t kv_len,
                                     size_t head_dim, float* work) const {
  const float scale = 1.0f / std::sqrt(static_cast<float>(head_dim));
  for (size_t i = 0; i < n_q; ++i) {
    bf16* out_row = out + i * out_stride;
    const size_t visible = kv_len + i + 1 > n_q ? kv_len + i + 1 - n_q : 0;
    AttentionRow row{k, k_stride, v, v_stride, head_dim, work, work + kAttentionBlock};
    PortableKernels::fill_bytes(row.acc, 0, head_dim * sizeof(float));
    for (size_t first = 0; first < visible; first += kAttentionBlock) {
      const size_t count = std::min(kAttentionBlock, visible - first);
      PortableKernels::dot_rows_bf16(k + first * k_stride, k_stride, q + i * q_stride, head_dim, 0, count,
                                     row.scores);
      float block_max = -std::numeric_limits<float>::infinity();
      for (size_t p = 0; p < count; ++p) {
        row.scores[p] = row.scores[p] * scale;
        block_max = std::max(block_max, row.scores[p]);
      }
      raise_max(row, std::max(row.max, block_max));
      accumulate_block(row, first, count);
    }
    const float inv_sum = visible == 0 ? 0.0f : 1.0f / row.sum;
    for (size_t j = 0; j < head_dim; ++j) out_row[j] = narrow_saturate(row.acc[j] * inv_sum);
  }
}

}  // namespace quorvel::kernels
