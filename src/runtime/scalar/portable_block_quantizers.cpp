// Slots 7-10: bf16 rows to rows of blocks, with the formats' own quantizers.
#include "runtime/formats/q4_0.h"
#include "runtime/formats/q5_0.h"
#include "runtime/formats/q6_k.h"
#include "runtime/formats/q8_0.h"
#include "runtime/scalar/portable_block_products.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels {

namespace {

// Row r of x (cols values) becomes row r of the output, blocks_per_row blocks.
template <typename Block>
void quantize_rows(void (*quantize_row)(const bf16*, std::size_t, Block*), const bf16* x, std::size_t rows,
                   std::size_t cols, void* out) {
  auto* blocks = static_cast<Block*>(out);
  const std::size_t row_blocks = portable::blocks_per_row<Block>(cols);
  for (std::size_t r = 0; r < rows; ++r) quantize_row(x + r * cols, cols, blocks + r * row_blocks);
}

}  // namespace

void PortableKernels::quantize_rows_q8_0(const bf16* x, size_t rows, size_t cols, void* out) const {
  quantize_rows(formats::quantize_row_q8_0, x, rows, cols, out);
}

void PortableKernels::quantize_rows_q4_0(const bf16* x, size_t rows, size_t cols, void* out) const {
  quantize_rows(formats::quantize_row_q4_0, x, rows, cols, out);
}

void PortableKernels::quantize_rows_q5_0(const bf16* x, size_t rows, size_t cols, void* out) const {
  quantize_rows(formats::quantize_row_q5_0, x, rows, cols, out);
}

void PortableKernels::quantize_rows_q6_k(const bf16* x, size_t rows, size_t cols, void* out) const {
  quantize_rows(formats::quantize_row_q6_k, x, rows, cols, out);
}

}  // namespace quorvel::kernels
