// LoRA side products, out += x * A * B for each token, and the four-lane
// bf16 row dot product.
//
// Every storage format enters one scheme: a factor hands out runs of
// dequantized f32 values of one of its rows (at most one block, starting at a
// block boundary), through the format's own row dequantizer, so that no
// block layout is restated here. With h the rank floats of `work`:
//   h = 0 (fill_bytes); for i increasing: h[r] = h[r] + x[i] * A[i][r]
//   for each j: y = 0; for r increasing: y = y + h[r] * B[r][j]
//   out[j] = narrow_saturate(out[j] + y)
// with every product rounded before its add.
#include <algorithm>

#include "runtime/formats/i8_matrix.h"
#include "runtime/formats/q4_0.h"
#include "runtime/formats/q5_0.h"
#include "runtime/formats/q6_k.h"
#include "runtime/formats/q8_0.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

namespace {

constexpr size_t kLanes = 4;

// Four f32 lanes (lane j takes elements j, j+4, ...), each product rounded,
// merged ((l0 + l1) + l2) + l3.
float dot_bf16(const bf16* a, const bf16* b, size_t dim) {
  float lane[kLanes] = {0.0f, 0.0f, 0.0f, 0.0f};
  for (size_t i = 0; i < dim; ++i) lane[i % kLanes] = lane[i % kLanes] + widen(a[i]) * widen(b[i]);
  return ((lane[0] + lane[1]) + lane[2]) + lane[3];
}

// A bf16 factor, row-major; a run is any 32 values.
struct Bf16Factor {
  static constexpr size_t kRun = 32;
  const bf16* values;
  size_t cols;

  void load(size_t row, size_t first, size_t count, float* out) const {
    const bf16* src = values + row * cols + first;
    for (size_t c = 0; c < count; ++c) out[c] = widen(src[c]);
  }
};

// A plain int8 factor: value = scales[row] * code, one rounded f32.
struct I8Factor {
  static constexpr size_t kRun = 32;
  const formats::I8Matrix* matrix;

  void load(size_t row, size_t first, size_t count, float* out) const {
    const std::int8_t* codes = matrix->values + row * matrix->cols + first;
    const float scale = matrix->scales[row];
    for (size_t c = 0; c < count; ++c) out[c] = scale * static_cast<float>(codes[c]);
  }
};

// A factor stored as rows of ceil(cols / kValues) blocks; a run is one block
// (or the part of the last block that holds values), expanded by the
// format's row dequantizer.
template <typename Block, size_t kValues, void (*Dequantize)(const Block*, size_t, float*)>
struct BlockFactor {
  static constexpr size_t kRun = kValues;
  const Block* blocks;
  size_t blocks_per_row;

  BlockFactor(const void* data, size_t cols)
      : blocks(static_cast<const Block*>(data)), blocks_per_row((cols + kValues - 1) / kValues) {}

  void load(size_t row, size_t first, size_t count, float* out) const {
    Dequantize(blocks + row * blocks_per_row + first / kValues, count, out);
  }
};

using Q8_0Factor = BlockFactor<formats::BlockQ8_0, formats::kQ8_0BlockValues, formats::dequantize_row_q8_0>;
using Q4_0Factor = BlockFactor<formats::BlockQ4_0, formats::kQ4_0BlockValues, formats::dequantize_row_q4_0>;
using Q5_0Factor = BlockFactor<formats::BlockQ5_0, formats::kQ5_0BlockValues, formats::dequantize_row_q5_0>;
using Q6_KFactor = BlockFactor<formats::BlockQ6_K, formats::kQ6_KBlockValues, formats::dequantize_row_q6_k>;

// h[r] += x[i] * A[i][r] for i increasing; h is already zero.
template <typename Factor>
void project_down(const bf16* x, const Factor& a, size_t in_dim, size_t rank, float* h) {
  float run[Factor::kRun];
  for (size_t i = 0; i < in_dim; ++i) {
    const float xi = widen(x[i]);
    for (size_t first = 0; first < rank; first += Factor::kRun) {
      const size_t count = std::min(Factor::kRun, rank - first);
      a.load(i, first, count, run);
      for (size_t c = 0; c < count; ++c) h[first + c] = h[first + c] + xi * run[c];
    }
  }
}

// out[j] += sum over r of h[r] * B[r][j], one run of output columns at a
// time so that each column's sum still goes over r in increasing order.
template <typename Factor>
void project_up(const float* h, const Factor& b, size_t rank, size_t out_dim, bf16* out) {
  float run[Factor::kRun];
  float y[Factor::kRun];
  for (size_t first = 0; first < out_dim; first += Factor::kRun) {
    const size_t count = std::min(Factor::kRun, out_dim - first);
    std::fill(y, y + count, 0.0f);
    for (size_t r = 0; r < rank; ++r) {
      b.load(r, first, count, run);
      for (size_t c = 0; c < count; ++c) y[c] = y[c] + h[r] * run[c];
    }
    for (size_t c = 0; c < count; ++c) out[first + c] = narrow_saturate(widen(out[first + c]) + y[c]);
  }
}

template <typename Factor>
void add_low_rank_update(const PortableKernels& kernels, const bf16* x, const Factor& a, const Factor& b, bf16* out,
                         size_t n_tokens, size_t in_dim, size_t rank, size_t out_dim, float* h) {
  for (size_t t = 0; t < n_tokens; ++t) {
    kernels.PortableKernels::fill_bytes(h, 0, rank * sizeof(float));
    project_down(x + t * in_dim, a, in_dim, rank, h);
    project_up(h, b, rank, out_dim, out + t * out_dim);
  }
}

}  // namespace

void PortableKernels::dot_rows_bf16(const bf16* rows, size_t row_stride, const bf16* vec, size_t dim, size_t first,
                                    size_t count, float* out) const {
  for (size_t i = first; i < first + count; ++i) out[i] = dot_bf16(rows + i * row_stride, vec, dim);
}

void PortableKernels::lora_bf16(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens,
                                size_t in_dim, size_t rank, size_t out_dim, float* work) const {
  const Bf16Factor factor_a{static_cast<const bf16*>(a), rank};
  const Bf16Factor factor_b{static_cast<const bf16*>(b), out_dim};
  add_low_rank_update(*this, x, factor_a, factor_b, out, n_tokens, in_dim, rank, out_dim, work);
}

void PortableKernels::lora_i8(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens,
                              size_t in_dim, size_t rank, size_t out_dim, float* work) const {
  const I8Factor factor_a{static_cast<const formats::I8Matrix*>(a)};
  const I8Factor factor_b{static_cast<const formats::I8Matrix*>(b)};
  add_low_rank_update(*this, x, factor_a, factor_b, out, n_tokens, in_dim, rank, out_dim, work);
}

void PortableKernels::lora_q8_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens,
                                size_t in_dim, size_t rank, size_t out_dim, float* work) const {
  add_low_rank_update(*this, x, Q8_0Factor(a, rank), Q8_0Factor(b, out_dim), out, n_tokens, in_dim, rank, out_dim,
                      work);
}

void PortableKernels::lora_q4_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens,
                                size_t in_dim, size_t rank, size_t out_dim, float* work) const {
  add_low_rank_update(*this, x, Q4_0Factor(a, rank), Q4_0Factor(b, out_dim), out, n_tokens, in_dim, rank, out_dim,
                      work);
}

void PortableKernels::lora_q5_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens,
                                size_t in_dim, size_t rank, size_t out_dim, float* work) const {
  add_low_rank_update(*this, x, Q5_0Factor(a, rank), Q5_0Factor(b, out_dim), out, n_tokens, in_dim, rank, out_dim,
                      work);
}

void PortableKernels::lora_q6_k(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens,
                                size_t in_dim, size_t rank, size_t out_dim, float* work) const {
  add_low_rank_update(*this, x, Q6_KFactor(a, rank), Q6_KFactor(b, out_dim), out, n_tokens, in_dim, rank, out_dim,
                      work);
}

}  // namespace quorvel::kernels
