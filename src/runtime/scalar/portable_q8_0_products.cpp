// q8_0 weight products (bf16 outputs): rows of consecutive 36-byte blocks
// against int8 activations. The f32 logits twin reads the grouped
// unembedding table and lives with the other unembedding products.
#include "runtime/formats/q8_0.h"
#include "runtime/scalar/portable_block_products.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

namespace {

static_assert(formats::kQ8_0MaxRowsPerGroup <= portable::kMaxRowGroup);

const formats::BlockQ8_0* blocks(const void* w) { return static_cast<const formats::BlockQ8_0*>(w); }

}  // namespace

void PortableKernels::gemm_q8_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                                size_t out_stride, size_t n_tokens, size_t rows, size_t k) const {
  portable::gemm_block_rows(blocks(w), x, x_scales, out, out_stride, n_tokens, rows, k,
                            formats::q8_0_gemv_rows_per_group(k));
}

void PortableKernels::gemv_q8_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                                size_t k) const {
  portable::gemv_block_rows(blocks(w), x, x_scale, out, rows, k, formats::q8_0_gemv_rows_per_group(k));
}

}  // namespace quorvel::kernels
