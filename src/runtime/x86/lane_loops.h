// Loops over rows of n elements in whole vectors of any width V (a lane
// vocabulary such as avx2::F32x8), with one partial vector at the end: the
// partial loads never read past n and the partial stores write exactly n, so
// sub-range pointers anywhere inside a buffer are safe.
#pragma once

#include <cstddef>

#include "runtime/bf16.h"

namespace quorvel::kernels::x86::lanes {

// Runs step(i, count) over [0, n) in whole vectors, then once for the tail.
template <typename V, typename Step>
void for_each_vector(std::size_t n, Step step) {
  std::size_t i = 0;
  for (; i + V::kWidth <= n; i += V::kWidth) step(i, V::kWidth);
  if (i < n) step(i, n - i);
}

// Loads and stores of `count` elements (at most one vector), whole or partial.
template <typename V>
typename V::Reg load_bf16(const bf16* p, std::size_t count) {
  return count == V::kWidth ? V::load_bf16(p) : V::load_bf16(p, count);
}

template <typename V>
void store_bf16(bf16* p, typename V::Reg v, std::size_t count) {
  if (count == V::kWidth) {
    V::store_bf16(p, v);
  } else {
    V::store_bf16(p, v, count);
  }
}

template <typename V>
typename V::Reg load_f32(const float* p, std::size_t count) {
  return count == V::kWidth ? V::load(p) : V::load(p, count);
}

template <typename V>
void store_f32(float* p, typename V::Reg v, std::size_t count) {
  if (count == V::kWidth) {
    V::store(p, v);
  } else {
    V::store(p, v, count);
  }
}

}  // namespace quorvel::kernels::x86::lanes
