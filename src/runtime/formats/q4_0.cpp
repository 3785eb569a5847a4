#include "runtime/formats/q4_0.h"

#include <algorithm>

#include "runtime/formats/block_quantizing.h"

namespace quorvel::formats {

void quantize_row_q4_0(const bf16* x, std::size_t n, BlockQ4_0* out) {
  for (std::size_t col = 0; col < n; col += BlockQ4_0::kValues, ++out) {
    std::uint8_t codes[BlockQ4_0::kValues];
    out->d = quantize_offset_codes(x + col, std::min(BlockQ4_0::kValues, n - col), 8, codes, BlockQ4_0::kValues);
    for (std::size_t j = 0; j < 16; ++j) out->qs[j] = static_cast<std::uint8_t>(codes[j] | (codes[j + 16] << 4));
  }
}

void dequantize_row_q4_0(const BlockQ4_0* blocks, std::size_t n, float* out) {
  for (std::size_t i = 0; i < n; ++i) out[i] = block_value(blocks[i / BlockQ4_0::kValues], i % BlockQ4_0::kValues);
}

std::int32_t block_sum(const BlockQ4_0& b, const std::int8_t* x, std::size_t n) {
  std::int32_t sum = 0;
  for (std::size_t i = 0; i < n; ++i) sum += block_code(b, i) * x[i];
  return sum;
}

}  // namespace quorvel::formats
