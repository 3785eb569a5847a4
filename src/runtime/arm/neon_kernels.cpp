// Construction of the NEON set and the ten operations that forward to its
// MicroKernelTable: a load of the entry and a call with the same arguments.
#include "runtime/arm/neon_kernels.h"

#include "runtime/arm/cpu_features_arm.h"

namespace quorvel::kernels::arm {

namespace {

constexpr MicroKernelTable kBaselineTable{
    .gemv_ternary = neon::gemv_ternary,
    .gemm_q1_0 = neon::gemm_q1_0,
    .gemv_q1_0 = neon::gemv_q1_0,
    .gemv_q1_0_f32 = neon::gemv_q1_0_f32,
    .gemm_q1_58 = neon::gemm_q1_58,
    .gemv_q1_58 = neon::gemv_q1_58,
    .gemv_q1_58_f32 = neon::gemv_q1_58_f32,
    .gemm_q8_0 = neon::gemm_q8_0,
    .gemv_q8_0 = neon::gemv_q8_0,
    .gemv_q8_0_f32 = neon::gemv_q8_0_f32,
};

constexpr MicroKernelTable kDotProductTable{
    .gemv_ternary = dotprod::gemv_ternary,
    .gemm_q1_0 = dotprod::gemm_q1_0,
    .gemv_q1_0 = dotprod::gemv_q1_0,
    .gemv_q1_0_f32 = dotprod::gemv_q1_0_f32,
    .gemm_q1_58 = dotprod::gemm_q1_58,
    .gemv_q1_58 = dotprod::gemv_q1_58,
    .gemv_q1_58_f32 = dotprod::gemv_q1_58_f32,
    .gemm_q8_0 = dotprod::gemm_q8_0,
    .gemv_q8_0 = dotprod::gemv_q8_0,
    .gemv_q8_0_f32 = dotprod::gemv_q8_0_f32,
};

}  // namespace

const char* NEONKernels::name() const {
  return table_.gemv_ternary == kDotProductTable.gemv_ternary ? "neon-dotprod" : "neon";
}

NEONKernels::NEONKernels() : NEONKernels(cpu_features()) {}

// All ten entries start as the baseline set and are replaced together, so a
// set is never a mix.
NEONKernels::NEONKernels(const CpuFeatures& features) : table_(kBaselineTable) {
  if (features.has_dot_product == 1) table_ = kDotProductTable;
}

void NEONKernels::gemv_ternary(const std::uint8_t* w, const std::int8_t* x, std::int32_t x_sum, bf16* out, size_t rows,
                               size_t k, float x_scale, double gamma) const {
  table_.gemv_ternary(w, x, x_sum, out, rows, k, x_scale, gamma);
}

void NEONKernels::gemm_q1_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                            size_t n_tokens, size_t rows, size_t k) const {
  table_.gemm_q1_0(w, x, x_scales, out, out_stride, n_tokens, rows, k);
}

void NEONKernels::gemv_q1_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                            size_t k) const {
  table_.gemv_q1_0(w, x, x_scale, out, rows, k);
}

void NEONKernels::gemv_q1_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                size_t k) const {
  table_.gemv_q1_0_f32(w, x, x_scale, out, rows, k);
}

void NEONKernels::gemm_q1_58(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                             size_t n_tokens, size_t rows, size_t k) const {
  table_.gemm_q1_58(w, x, x_scales, out, out_stride, n_tokens, rows, k);
}

void NEONKernels::gemv_q1_58(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                             size_t k) const {
  table_.gemv_q1_58(w, x, x_scale, out, rows, k);
}

void NEONKernels::gemv_q1_58_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                 size_t k) const {
  table_.gemv_q1_58_f32(w, x, x_scale, out, rows, k);
}

void NEONKernels::gemm_q8_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                            size_t n_tokens, size_t rows, size_t k) const {
  table_.gemm_q8_0(w, x, x_scales, out, out_stride, n_tokens, rows, k);
}

void NEONKernels::gemv_q8_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                            size_t k) const {
  table_.gemv_q8_0(w, x, x_scale, out, rows, k);
}

void NEONKernels::gemv_q8_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                size_t k) const {
  table_.gemv_q8_0_f32(w, x, x_scale, out, rows, k);
}

}  // namespace quorvel::kernels::arm
