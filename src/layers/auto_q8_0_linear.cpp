#include "layers/auto_q8_0_linear.h"

#include "runtime/formats/format_table.h"
#include "runtime/parallel_rows.h"

namespace quorvel::layers {
namespace {

const PayloadText kSourceText{"Could not read Q8_0 source BF16 weights: read_bytes (",
                              "Failed to read Q8_0 source BF16 weights"};

}  // namespace

AutoQ8_0Linear::AutoQ8_0Linear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape,
                               std::uint64_t num_heads, bool has_bias, QuantFormat lora_format)
    : BlockLinear(in_shape, out_shape, num_heads, has_bias, lora_format, formats::kQ8_0Weights) {
  // The bf16 source lives only until it is quantized; a short read frees it
  // on the way out.
  const AlignedPtr<bf16> source = read_table<bf16>(stream, size_mul(out_shape, in_shape), kSourceText);
  quantize_from(source.get());
  read_bias(stream);
}

std::uint64_t AutoQ8_0Linear::weight_row_bytes(std::uint64_t in_shape) {
  return formats::kQ8_0Weights.layout.row_bytes(in_shape);
}

void AutoQ8_0Linear::quantize_from(const bf16* source) {
  std::uint8_t* blocks = allocate_weights();
  const auto& kernel_set = kernels::kernels();
  // The quantizer leaves the codes of an all-zero block untouched; clearing
  // first keeps the table the same from run to run.
  kernel_set.fill_bytes(blocks, 0, size_mul(out_shape(), row_bytes()));
  parallel_rows(out_shape(), {}, [&](std::uint64_t first, std::uint64_t count) {
    kernel_set.quantize_rows_q8_0(source + first * in_shape(), count, in_shape(), blocks + first * row_bytes());
  });
}

}  // namespace quorvel::layers
