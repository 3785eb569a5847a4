// Rotary embedding (half-split pairing) on a vector of any width: element i
// turns with element i + dim / 2, lane by lane in the portable order:
//   x[i + h] = fma(a, sin[i + h], b * cos[i + h])
//   x[i]     = fma(-b, sin[i], a * cos[i])
// Both halves are loaded before either is stored. The kernel set's rope_bf16
// is the member at the end.
#pragma once

#include <cstddef>

#include "runtime/bf16.h"
#include "runtime/x86/lane_loops.h"
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86::lanes {

template <typename V>
void rotate_row(bf16* x, const float* cos, const float* sin, std::size_t dim) {
  const std::size_t half = dim / 2;
  for_each_vector<V>(half, [&](std::size_t i, std::size_t count) {
    const auto a = load_bf16<V>(x + i, count);
    const auto b = load_bf16<V>(x + half + i, count);
    const auto turned_second = V::fma(a, load_f32<V>(sin + half + i, count), b * load_f32<V>(cos + half + i, count));
    const auto turned_first = V::fma(-b, load_f32<V>(sin + i, count), a * load_f32<V>(cos + i, count));
    store_bf16<V>(x + half + i, turned_second, count);
    store_bf16<V>(x + i, turned_first, count);
  });
}

// Rows of x are x_stride apart; cos and sin advance by dim per row.
template <typename V>
void rope(bf16* x, const float* cos, const float* sin, std::size_t rows, std::size_t x_stride, std::size_t dim) {
  if (dim < 2) return;
  for (std::size_t row = 0; row < rows; ++row) rotate_row<V>(x + row * x_stride, cos + row * dim, sin + row * dim, dim);
}

}  // namespace quorvel::kernels::x86::lanes

namespace quorvel::kernels::x86 {

template <typename Isa>
void X86Kernels<Isa>::rope_bf16(bf16* x, const float* cos, const float* sin, size_t rows, size_t x_stride,
                                size_t dim) const {
  lanes::rope<typename Isa::F32>(x, cos, sin, rows, x_stride, dim);
}

}  // namespace quorvel::kernels::x86
