// Construction of the NEON set and the ten operations that forward to its
// MicroKernelTable: a load of the entry and a call with the same arguments.
#include "runtime/arm/neon_kernels.h"

#include "runtime/arm/cpu_features_arm.h"

namespace quorvel::kernels::arm {

const char* NEONKernels::name() const { return table_.set_name; }

NEONKernels::NEONKernels() : NEONKernels(cpu_features()) {}

// All ten entries come from one table, so a set is never a mix.
NEONKernels::NEONKernels(const CpuFeatures& features)
    : table_(features.has_dot_product == 1 ? kDotProductMicroKernels : kBaselineMicroKernels), features_(features) {}

CpuFeatures NEONKernels::features() const { return features_; }

void NEONKernels::gemv_ternary(const std::uint8_t* w, const std::int8_t* x, std::int32_t x_sum, bf16* out, size_t rows,
                               size_t k, float x_scale, double gamma) const {
  table_.gemv_ternary(w, x, x_sum, out, rows, k, x_scale, gamma);
}

// The three products of a block format forward to its BlockProducts. Their
// names differ by format and their signatures are KernelBase's, so the
// definitions are written once here and stamped out per format.
#define QUORVEL_FORWARD_BLOCK_PRODUCTS(format)                                                                       \
  void NEONKernels::gemm_##format(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,             \
                                  size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {                 \
    table_.format.gemm(w, x, x_scales, out, out_stride, n_tokens, rows, k);                                          \
  }                                                                                                                  \
  void NEONKernels::gemv_##format(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,        \
                                  size_t k) const {                                                                  \
    table_.format.gemv(w, x, x_scale, out, rows, k);                                                                 \
  }                                                                                                                  \
  void NEONKernels::gemv_##format##_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows, \
                                        size_t k) const {                                                            \
    table_.format.gemv_f32(w, x, x_scale, out, rows, k);                                                             \
  }

QUORVEL_FORWARD_BLOCK_PRODUCTS(q1_0)
QUORVEL_FORWARD_BLOCK_PRODUCTS(q1_58)
QUORVEL_FORWARD_BLOCK_PRODUCTS(q8_0)

#undef QUORVEL_FORWARD_BLOCK_PRODUCTS

}  // namespace quorvel::kernels::arm
