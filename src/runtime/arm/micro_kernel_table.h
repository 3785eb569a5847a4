// The ten hottest products of the NEON kernel set, in two interchangeable
// versions: the baseline set (ARMv8-A: widening 8-bit multiply-accumulate,
// sign selection and pairwise widening adds) and the dot-product set
// (ARMv8.2-A SDOT, four 8-bit products summed into each 32-bit lane). Both
// give the same integers and therefore the same results bit for bit.
//
// Each entry takes exactly the arguments of the KernelBase operation that
// forwards to it (without the object). The dot-product functions are
// compiled in micro_kernels_dotprod.cpp, the only file built with the
// dot-product instructions; nothing calls them unless the processor reports
// the feature.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::kernels::arm {

using std::size_t;

using GemvTernaryFn = void(const std::uint8_t* w, const std::int8_t* x, std::int32_t x_sum, bf16* out, size_t rows,
                           size_t k, float x_scale, double gamma);
using GemmBlocksFn = void(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                          size_t n_tokens, size_t rows, size_t k);
using GemvBlocksFn = void(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows, size_t k);
using GemvBlocksF32Fn = void(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows, size_t k);

// One block format's products: several tokens into bf16, one token into
// bf16, one token into float.
struct BlockProducts {
  GemmBlocksFn* gemm;
  GemvBlocksFn* gemv;
  GemvBlocksF32Fn* gemv_f32;
};

// Field order is fixed: it is the order in which the table is described and filled.
struct MicroKernelTable {
  const char* set_name;  // the name of the kernel set that runs these products
  GemvTernaryFn* gemv_ternary;
  BlockProducts q1_0;
  BlockProducts q1_58;
  BlockProducts q8_0;  // gemv_f32 over the unembedding table's 32-row groups
};

// The two filled tables, each by micro_kernels_with (neon_micro_kernels.h)
// over its variant's int8 sum trait: the baseline set in
// micro_kernels_neon.cpp, the dot-product set in micro_kernels_dotprod.cpp.
extern const MicroKernelTable kBaselineMicroKernels;
extern const MicroKernelTable kDotProductMicroKernels;

}  // namespace quorvel::kernels::arm
