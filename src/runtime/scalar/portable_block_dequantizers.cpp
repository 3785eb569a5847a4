// Slots 12-17: block rows back to values, with the formats' own dequantizers.
#include "runtime/formats/q1_0.h"
#include "runtime/formats/q1_58.h"
#include "runtime/formats/q4_0.h"
#include "runtime/formats/q5_0.h"
#include "runtime/formats/q6_k.h"
#include "runtime/formats/q8_0.h"
#include "runtime/scalar/portable_block_products.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

namespace {

// Row r of the blocks (blocks_per_row blocks) becomes row r of out (cols values).
template <typename Block>
void dequantize_rows(void (*dequantize_row)(const Block*, std::size_t, float*), const void* blocks, std::size_t rows,
                     std::size_t cols, float* out) {
  const auto* in = static_cast<const Block*>(blocks);
  const std::size_t row_blocks = portable::blocks_per_row<Block>(cols);
  for (std::size_t r = 0; r < rows; ++r) dequantize_row(in + r * row_blocks, cols, out + r * cols);
}

}  // namespace

void PortableKernels::dequantize_q1_0_bf16(const void* blocks, size_t n, bf16* out) const {
  formats::dequantize_q1_0(static_cast<const formats::BlockQ1_0*>(blocks), n, out);
}

void PortableKernels::dequantize_q1_58_bf16(const void* blocks, size_t n, bf16* out) const {
  formats::dequantize_q1_58(static_cast<const formats::BlockQ1_58*>(blocks), n, out);
}

void PortableKernels::dequantize_q8_0_f32(const void* blocks, size_t rows, size_t cols, float* out) const {
  dequantize_rows(formats::dequantize_row_q8_0, blocks, rows, cols, out);
}

void PortableKernels::dequantize_q4_0_f32(const void* blocks, size_t rows, size_t cols, float* out) const {
  dequantize_rows(formats::dequantize_row_q4_0, blocks, rows, cols, out);
}

void PortableKernels::dequantize_q5_0_f32(const void* blocks, size_t rows, size_t cols, float* out) const {
  dequantize_rows(formats::dequantize_row_q5_0, blocks, rows, cols, out);
}

void PortableKernels::dequantize_q6_k_f32(const void* blocks, size_t rows, size_t cols, float* out) const {
  dequantize_rows(formats::dequantize_row_q6_k, blocks, rows, cols, out);
}

}  // namespace quorvel::kernels
