// The gated activations of the feed-forward block and the bf16 add of the
// residual stream, on a vector of any width (V: a lane vocabulary such as
// avx2::F32x8). Each is elementwise, so a lane computes exactly the portable
// expression for its element. The kernel set's members are at the end.
#pragma once

#include <cstddef>

#include "runtime/bf16.h"
#include "runtime/x86/lane_loops.h"
#include "runtime/x86/x86_kernels.h"
#include "runtime/x86/poly_exp_lanes.h"

namespace quorvel::kernels::x86::lanes {

// up = narrow((r * r) * up) with r = gate > 0 ? gate : +0, which is exactly
// max(gate, +0): the vector max takes its second operand, +0, when the
// comparison fails, so a NaN or -0 gate gives +0 as in the portable set.
template <typename V>
void relu2_mul(const bf16* gate, bf16* up, std::size_t n) {
  for_each_vector<V>(n, [&](std::size_t i, std::size_t count) {
    const auto r = V::max(load_bf16<V>(gate + i, count), V::zero());
    store_bf16<V>(up + i, (r * r) * load_bf16<V>(up + i, count), count);
  });
}

// up = narrow((r * gate) * up) with r = 1 / (poly_exp(-gate) + 1), a true
// division as in the portable set.
template <typename V>
void silu_mul(const bf16* gate, bf16* up, std::size_t n) {
  for_each_vector<V>(n, [&](std::size_t i, std::size_t count) {
    const auto g = load_bf16<V>(gate + i, count);
    const auto r = V::set1(1.0f) / (poly_exp<V>(-g) + V::set1(1.0f));
    store_bf16<V>(up + i, (r * g) * load_bf16<V>(up + i, count), count);
  });
}

// dst = narrow(dst + src).
template <typename V>
void add(const bf16* src, bf16* dst, std::size_t n) {
  for_each_vector<V>(n, [&](std::size_t i, std::size_t count) {
    store_bf16<V>(dst + i, load_bf16<V>(dst + i, count) + load_bf16<V>(src + i, count), count);
  });
}

}  // namespace quorvel::kernels::x86::lanes

namespace quorvel::kernels::x86 {

template <typename Isa>
void X86Kernels<Isa>::relu2_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const {
  lanes::relu2_mul<typename Isa::F32>(gate, up, rows * dim);
}

template <typename Isa>
void X86Kernels<Isa>::silu_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const {
  lanes::silu_mul<typename Isa::F32>(gate, up, rows * dim);
}

template <typename Isa>
void X86Kernels<Isa>::add_bf16(const bf16* src, bf16* dst, size_t n) const {
  lanes::add<typename Isa::F32>(src, dst, n);
}

}  // namespace quorvel::kernels::x86
