// LoRA side products on a vector of any width V (a lane vocabulary such as
// avx2::F32x8), for every factor format, in the portable order:
//   h = 0; for i increasing: h[r] = h[r] + x[i] * A[i][r]
//   for r increasing: y[j] = y[j] + h[r] * B[r][j];  out[j] = narrow(out[j] + y[j])
// with every product rounded before its add. The lanes run across r in the
// first product and across j in the second, so each lane keeps its own
// element's sequence of adds.
//
// A factor hands out runs of dequantized f32 values of one of its rows, up
// to kLoraRun values starting at a multiple of kLoraRun (a whole number of
// blocks and of q6_k super-blocks), the block formats through their own row
// dequantizers, so that no block layout is restated here. The kernel set's
// members, one factor type per storage format, are at the end.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"
#include "runtime/formats/i8_matrix.h"
#include "runtime/formats/q4_0.h"
#include "runtime/formats/q5_0.h"
#include "runtime/formats/q6_k.h"
#include "runtime/formats/q8_0.h"
#include "runtime/x86/lane_loops.h"
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86::lanes {

inline constexpr std::size_t kLoraRun = 256;

template <typename V>
struct Bf16Factor {
  const bf16* values;
  std::size_t cols;

  Bf16Factor(const void* data, std::size_t columns) : values(static_cast<const bf16*>(data)), cols(columns) {}

  void load(std::size_t row, std::size_t first, std::size_t count, float* out) const {
    const bf16* src = values + row * cols + first;
    for_each_vector<V>(count,
                       [&](std::size_t c, std::size_t n) { store_f32<V>(out + c, load_bf16<V>(src + c, n), n); });
  }
};

// Value = scales[row] * code, one rounded product.
template <typename V>
struct I8Factor {
  const formats::I8Matrix* matrix;

  I8Factor(const void* data, std::size_t) : matrix(static_cast<const formats::I8Matrix*>(data)) {}

  void load(std::size_t row, std::size_t first, std::size_t count, float* out) const {
    const std::int8_t* codes = matrix->values + row * matrix->cols + first;
    const float scale = matrix->scales[row];
    for (std::size_t c = 0; c < count; ++c) out[c] = scale * static_cast<float>(codes[c]);
  }
};

// Rows of ceil(cols / kValues) blocks.
template <typename V, typename Block, void (*Dequantize)(const Block*, std::size_t, float*)>
struct BlockFactor {
  static_assert(kLoraRun % Block::kValues == 0);
  const Block* blocks;
  std::size_t blocks_per_row;

  BlockFactor(const void* data, std::size_t cols)
      : blocks(static_cast<const Block*>(data)), blocks_per_row((cols + Block::kValues - 1) / Block::kValues) {}

  void load(std::size_t row, std::size_t first, std::size_t count, float* out) const {
    Dequantize(blocks + row * blocks_per_row + first / Block::kValues, count, out);
  }
};

// h[r] += x[i] * A[i][r] for i increasing; h is already zero.
template <typename V, typename Factor>
void project_down(const bf16* x, const Factor& a, std::size_t in_dim, std::size_t rank, float* h) {
  alignas(64) float run[kLoraRun];
  for (std::size_t i = 0; i < in_dim; ++i) {
    const auto xi = V::set1(__builtin_bit_cast(float, static_cast<std::uint32_t>(x[i].bits) << 16));
    for (std::size_t first = 0; first < rank; first += kLoraRun) {
      const std::size_t count = rank - first < kLoraRun ? rank - first : kLoraRun;
      a.load(i, first, count, run);
      float* part = h + first;
      for_each_vector<V>(count, [&](std::size_t c, std::size_t n) {
        store_f32<V>(part + c, load_f32<V>(part + c, n) + xi * load_f32<V>(run + c, n), n);
      });
    }
  }
}

// out[j] = narrow(out[j] + sum over r of h[r] * B[r][j]), one run of output
// columns at a time, each column's sum over r in increasing order.
template <typename V, typename Factor>
void project_up(const float* h, const Factor& b, std::size_t rank, std::size_t out_dim, bf16* out) {
  alignas(64) float run[kLoraRun];
  alignas(64) float y[kLoraRun];
  for (std::size_t first = 0; first < out_dim; first += kLoraRun) {
    const std::size_t count = out_dim - first < kLoraRun ? out_dim - first : kLoraRun;
    for_each_vector<V>(count, [&](std::size_t c, std::size_t n) { store_f32<V>(y + c, V::zero(), n); });
    for (std::size_t r = 0; r < rank; ++r) {
      b.load(r, first, count, run);
      const auto hr = V::set1(h[r]);
      for_each_vector<V>(count, [&](std::size_t c, std::size_t n) {
        store_f32<V>(y + c, load_f32<V>(y + c, n) + hr * load_f32<V>(run + c, n), n);
      });
    }
    bf16* part = out + first;
    for_each_vector<V>(count, [&](std::size_t c, std::size_t n) {
      store_bf16<V>(part + c, load_bf16<V>(part + c, n) + load_f32<V>(y + c, n), n);
    });
  }
}

// The whole side product for n_tokens tokens; work holds the rank floats of h.
template <typename V, typename Factor>
void lora(const bf16* x, const void* a, const void* b, bf16* out, std::size_t n_tokens, std::size_t in_dim,
          std::size_t rank, std::size_t out_dim, float* work) {
  const Factor factor_a(a, rank);
  const Factor factor_b(b, out_dim);
  for (std::size_t t = 0; t < n_tokens; ++t) {
    for_each_vector<V>(rank, [&](std::size_t r, std::size_t n) { store_f32<V>(work + r, V::zero(), n); });
    project_down<V>(x + t * in_dim, factor_a, in_dim, rank, work);
    project_up<V>(work, factor_b, rank, out_dim, out + t * out_dim);
  }
}

}  // namespace quorvel::kernels::x86::lanes

namespace quorvel::kernels::x86 {

// The factors of a format stored as rows of Block, in the trait's f32 lanes.
template <typename Isa, typename Block, void (*Dequantize)(const Block*, std::size_t, float*)>
using BlockLoraFactor = lanes::BlockFactor<typename Isa::F32, Block, Dequantize>;

template <typename Isa>
void X86Kernels<Isa>::lora_bf16(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens,
                                size_t in_dim, size_t rank, size_t out_dim, float* work) const {
  using Factor = lanes::Bf16Factor<typename Isa::F32>;
  lanes::lora<typename Isa::F32, Factor>(x, a, b, out, n_tokens, in_dim, rank, out_dim, work);
}

template <typename Isa>
void X86Kernels<Isa>::lora_i8(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens,
                              size_t in_dim, size_t rank, size_t out_dim, float* work) const {
  using Factor = lanes::I8Factor<typename Isa::F32>;
  lanes::lora<typename Isa::F32, Factor>(x, a, b, out, n_tokens, in_dim, rank, out_dim, work);
}

template <typename Isa>
void X86Kernels<Isa>::lora_q8_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens,
                                size_t in_dim, size_t rank, size_t out_dim, float* work) const {
  using Factor = BlockLoraFactor<Isa, formats::BlockQ8_0, formats::dequantize_row_q8_0>;
  lanes::lora<typename Isa::F32, Factor>(x, a, b, out, n_tokens, in_dim, rank, out_dim, work);
}

template <typename Isa>
void X86Kernels<Isa>::lora_q4_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens,
                                size_t in_dim, size_t rank, size_t out_dim, float* work) const {
  using Factor = BlockLoraFactor<Isa, formats::BlockQ4_0, formats::dequantize_row_q4_0>;
  lanes::lora<typename Isa::F32, Factor>(x, a, b, out, n_tokens, in_dim, rank, out_dim, work);
}

template <typename Isa>
void X86Kernels<Isa>::lora_q5_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens,
                                size_t in_dim, size_t rank, size_t out_dim, float* work) const {
  using Factor = BlockLoraFactor<Isa, formats::BlockQ5_0, formats::dequantize_row_q5_0>;
  lanes::lora<typename Isa::F32, Factor>(x, a, b, out, n_tokens, in_dim, rank, out_dim, work);
}

template <typename Isa>
void X86Kernels<Isa>::lora_q6_k(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens,
                                size_t in_dim, size_t rank, size_t out_dim, float* work) const {
  using Factor = BlockLoraFactor<Isa, formats::BlockQ6_K, formats::dequantize_row_q6_k>;
  lanes::lora<typename Isa::F32, Factor>(x, a, b, out, n_tokens, in_dim, rank, out_dim, work);
}

}  // namespace quorvel::kernels::x86
