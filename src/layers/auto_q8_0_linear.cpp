#include "layers/auto_q8_0_linear.h"

#include <algorithm>

#include "runtime/formats/format_table.h"
#include "runtime/parallel_rows.h"

namespace quorvel::layers {
namespace {

const PayloadText kSourceText{"Could not read Q8_0 source BF16 weights: read_bytes (",
                              "Failed to read Q8_0 source BF16 weights"};

// The bf16 source passes through a buffer of about this size, reused from
// batch to batch of rows, so that it stays in the cache and its pages are
// touched once per layer instead of once per byte of the file.
constexpr std::uint64_t kSourceBatchBytes = std::uint64_t{1} << 20;

std::uint64_t source_batch_rows(std::uint64_t in_shape) {
  return std::max<std::uint64_t>(1, kSourceBatchBytes / std::max<std::uint64_t>(size_mul(in_shape, sizeof(bf16)), 1));
}

}  // namespace

AutoQ8_0Linear::AutoQ8_0Linear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape,
                               std::uint64_t num_heads, bool has_bias, QuantFormat lora_format)
    : BlockLinear(in_shape, out_shape, num_heads, has_bias, lora_format, formats::kQ8_0Weights) {
  quantize_from(stream);
  read_bias(stream);
}

std::uint64_t AutoQ8_0Linear::weight_row_bytes(std::uint64_t in_shape) {
  return formats::kQ8_0Weights.layout.row_bytes(in_shape);
}

std::uint64_t AutoQ8_0Linear::source_batch_bytes(std::uint64_t in_shape, std::uint64_t out_shape) {
  return size_mul(std::min(source_batch_rows(in_shape), out_shape), in_shape, sizeof(bf16));
}

void AutoQ8_0Linear::quantize_from(std::istream& stream) {
  const std::uint64_t source_row_bytes = size_mul(in_shape(), sizeof(bf16));
  const std::uint64_t source_bytes = size_mul(out_shape(), source_row_bytes);
  std::uint8_t* blocks = allocate_weights();
  const std::uint64_t batch_rows = source_batch_rows(in_shape());
  const AlignedPtr<bf16> source = allocate_aligned<bf16>(source_batch_bytes(in_shape(), out_shape()));
  std::uint64_t row = 0;
  do {
    const std::uint64_t rows = std::min(batch_rows, out_shape() - row);
    const std::uint64_t offset = row * source_row_bytes;
    read_payload_piece(stream, source.get(), {offset, rows * source_row_bytes, source_bytes}, kSourceText);
    quantize_rows(source.get(), row, rows, blocks);
    row += rows;
  } while (row < out_shape());
}

void AutoQ8_0Linear::quantize_rows(const bf16* source, std::uint64_t first_row, std::uint64_t rows,
                                   std::uint8_t* blocks) const {
  const auto& kernel_set = kernels::kernels();
  parallel_rows(rows, {}, [&](std::uint64_t first, std::uint64_t count) {
    std::uint8_t* out = blocks + (first_row + first) * row_bytes();
    // The quantizer leaves the codes of an all-zero block untouched; clearing
    // first keeps the table the same from run to run.
    kernel_set.fill_bytes(out, 0, count * row_bytes());
    kernel_set.quantize_rows_q8_0(source + first * in_shape(), count, in_shape(), out);
  });
}

}  // namespace quorvel::layers
