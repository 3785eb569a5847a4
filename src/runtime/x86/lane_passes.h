// The lanes of a pass of the x86 products over several weight rows and
// tokens: lane l of a vector belongs to row l / kTokens and token
// l % kTokens, and the lanes past the last row of a short pass repeat it
// (their results are never stored). Isa is a lane trait (avx2_isa.h).
#pragma once

#include <cstddef>

namespace quorvel::kernels::x86 {
namespace {

template <typename Isa, int kTokens>
inline constexpr int kRowsPerPass = Isa::kLanes / kTokens;

// Stores the lanes of the first n_rows rows: out[t * stride + r].
template <typename Isa, int kTokens, typename Out>
void store_lanes(typename Isa::Floats values, Out* out, std::size_t stride, std::size_t n_rows) {
  if constexpr (kTokens == 1 && Isa::kMaskedStores) {
    Isa::store_first(out, values, n_rows);
  } else {
    alignas(Isa::kVectorBytes) Out lanes[Isa::kLanes];
    Isa::store_aligned(lanes, values);
    for (std::size_t r = 0; r < n_rows; ++r) {
      #pragma GCC unroll 16
      for (int t = 0; t < kTokens; ++t) out[static_cast<std::size_t>(t) * stride + r] = lanes[r * kTokens + t];
    }
  }
}

}  // namespace

}  // namespace quorvel::kernels::x86
