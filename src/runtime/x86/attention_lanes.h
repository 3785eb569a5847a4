// Causal attention of one head on a vector of any width V (a lane
// vocabulary such as avx2::F32x8), in the portable order step for step:
// positions in blocks of kAttentionBlock whose scores live at the start of
// work, a running maximum and sum, and the weighted sum of value rows after
// the scores.
//
//   scores  four-lane dot products (dot_rows_lanes.h), times 1 / sqrt(D);
//   rescale when the maximum rises: c = exp(old - new) by the library
//           exponential, sum * c and acc * c;
//   weights e = exp(score - max): whole groups of four by the polynomial
//           exponential (the lanes compute exactly its scalar steps), the
//           block's last score or three by the library exponential;
//   sums    s = s + e in position order (scalar: one chain by definition);
//   values  acc[j] = acc[j] + e * v[j][p] in position order for every j,
//           which the instruction set's AddValues does across j.
//
// AddValues(v, v_stride, head_dim, e, count, acc) adds the weighted value
// columns of positions [0, count) of a block, v pointing at its first
// position (values are dimension-major: element (p, j) at v[j * v_stride + p]).
#pragma once

#include <cstddef>

#include "runtime/bf16.h"
#include "runtime/kernel_base.h"
#include "runtime/x86/dot_rows_lanes.h"
#include "runtime/x86/lane_loops.h"
#include "runtime/x86/poly_exp_lanes.h"

namespace quorvel::kernels::x86::lanes {

// The running state of one query row (a template only so that each
// instruction set's build keeps its own copy).
template <typename V>
struct SoftmaxState {
  float max = -__builtin_inff();
  float sum = 0.0f;
};

// scores = scores * scale; returns the block maximum as the portable
// std::max chain finds it (a NaN score never wins; max(s, m) returns m).
template <typename V>
float scale_scores(float* scores, std::size_t count, float scale) {
  auto lanes = V::set1(-__builtin_inff());
  float block_max = -__builtin_inff();
  for_each_vector<V>(count, [&](std::size_t p, std::size_t n) {
    if (n == V::kWidth) {
      const auto s = V::load(scores + p) * V::set1(scale);
      V::store(scores + p, s);
      lanes = V::max(s, lanes);
    } else {
      for (std::size_t t = p; t < p + n; ++t) {
        scores[t] = scores[t] * scale;
        block_max = block_max < scores[t] ? scores[t] : block_max;
      }
    }
  });
  const float lane_max = V::max_lane(lanes);
  return block_max < lane_max ? lane_max : block_max;
}

template <typename V>
void scale_row(float* values, std::size_t n, float factor) {
  for_each_vector<V>(n, [&](std::size_t j, std::size_t count) {
    store_f32<V>(values + j, load_f32<V>(values + j, count) * V::set1(factor), count);
  });
}

// Scores become weights e = exp(score - max) in place; returns nothing, the
// caller sums them in position order.
template <typename V>
void exponentials(float* scores, std::size_t count, float max) {
  const std::size_t grouped = count - count % 4;
  for_each_vector<V>(grouped, [&](std::size_t p, std::size_t n) {
    store_f32<V>(scores + p, poly_exp<V>(load_f32<V>(scores + p, n) - V::set1(max)), n);
  });
  for (std::size_t p = grouped; p < count; ++p) scores[p] = __builtin_expf(scores[p] - max);
}

// A block reads a few bytes of every value row (one row per dimension, a
// cache row apart) and of every key row (one per position, all heads
// apart): more separate streams than the hardware prefetchers follow. So
// the next block's keys and values are fetched before this block's work
// starts, into the second-level cache (a whole block's lines at once are
// more than the first level's miss buffers hold).
//
// Fetches `rows` rows of `length` values, `stride` values apart.
template <typename V>
void prefetch_rows(const bf16* first_row, std::size_t stride, std::size_t rows, std::size_t length) {
  constexpr std::size_t kLineValues = 64 / sizeof(bf16);
  for (std::size_t r = 0; r < rows; ++r) {
    for (std::size_t p = 0; p < length; p += kLineValues) __builtin_prefetch(first_row + r * stride + p, 0, 2);
  }
}

template <typename V, auto AddValues>
void attend_block(const bf16* q_row, const bf16* k, std::size_t k_stride, const bf16* v, std::size_t v_stride,
                  std::size_t head_dim, std::size_t first, std::size_t count, float scale, float* work,
                  SoftmaxState<V>& state) {
  float* scores = work;
  float* acc = work + kAttentionBlock;
  dot_rows<V>(k + first * k_stride, k_stride, q_row, head_dim, count, scores);
  const float block_max = scale_scores<V>(scores, count, scale);
  const float new_max = state.max < block_max ? block_max : state.max;
  if (state.max != -__builtin_inff()) {
    const float correction = __builtin_expf(state.max - new_max);
    state.sum = state.sum * correction;
    scale_row<V>(acc, head_dim, correction);
  }
  state.max = new_max;
  exponentials<V>(scores, count, state.max);
  for (std::size_t p = 0; p < count; ++p) state.sum = state.sum + scores[p];
  AddValues(v + first, v_stride, head_dim, scores, count, acc);
}

// Query row i is position kv_len - n_q + i and sees positions 0 through it;
// a row that would see none (kv_len < n_q) is written as zeros.
template <typename V, auto AddValues>
void attention(const bf16* q, std::size_t q_stride, const bf16* k, std::size_t k_stride, const bf16* v,
               std::size_t v_stride, bf16* out, std::size_t out_stride, std::size_t n_q, std::size_t kv_len,
               std::size_t head_dim, float* work) {
  const float scale = 1.0f / __builtin_sqrtf(static_cast<float>(head_dim));
  float* acc = work + kAttentionBlock;
  for (std::size_t i = 0; i < n_q; ++i) {
    const std::size_t visible = kv_len + i + 1 > n_q ? kv_len + i + 1 - n_q : 0;
    for_each_vector<V>(head_dim, [&](std::size_t j, std::size_t n) { store_f32<V>(acc + j, V::zero(), n); });
    SoftmaxState<V> state;
    for (std::size_t first = 0; first < visible; first += kAttentionBlock) {
      const std::size_t count = visible - first < kAttentionBlock ? visible - first : kAttentionBlock;
      const std::size_t next = visible - first - count < kAttentionBlock ? visible - first - count : kAttentionBlock;
      prefetch_rows<V>(k + (first + count) * k_stride, k_stride, next, head_dim);
      prefetch_rows<V>(v + first + count, v_stride, head_dim, next);
      attend_block<V, AddValues>(q + i * q_stride, k, k_stride, v, v_stride, head_dim, first, count, scale, work,
                                 state);
    }
    const float inv_sum = visible == 0 ? 0.0f : 1.0f / state.sum;
    bf16* out_row = out + i * out_stride;
    for_each_vector<V>(head_dim, [&](std::size_t j, std::size_t n) {
      store_bf16<V>(out_row + j, load_f32<V>(acc + j, n) * V::set1(inv_sum), n);
    });
  }
}

}  // namespace quorvel::kernels::x86::lanes
