// q1.58 products: weight rows of consecutive blocks against int8 activations.
#include "runtime/formats/q1_58.h"
#include "runtime/scalar/portable_block_products.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

namespace {

using formats::BlockQ1_58;

const BlockQ1_58* blocks(const void* w) { return static_cast<const BlockQ1_58*>(w); }

}  // namespace

void PortableKernels::gemm_q1_58(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                                 size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  portable::gemm_block_rows(blocks(w), x, x_scales, out, out_stride, n_tokens, rows, k, portable::kQ1RowsPerGroup);
}

void PortableKernels::gemv_q1_58(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                                 size_t k) const {
  portable::gemv_block_rows(blocks(w), x, x_scale, out, rows, k, portable::kQ1RowsPerGroup);
}

void PortableKernels::gemv_q1_58_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                     size_t k) const {
  portable::gemv_block_rows(blocks(w), x, x_scale, out, rows, k, portable::kQ1RowsPerGroup);
}

}  // namespace quorvel::kernels
