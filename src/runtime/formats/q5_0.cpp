#include "runtime/formats/q5_0.h"

#include <algorithm>

#include "runtime/formats/block_quantizing.h"

namespace quorvel::formats {

void quantize_row_q5_0(const bf16* x, std::size_t n, BlockQ5_0* out) {
  for (std::size_t col = 0; col < n; col += BlockQ5_0::kValues, ++out) {
    std::uint8_t codes[BlockQ5_0::kValues];
    out->d = quantize_offset_codes(x + col, std::min(BlockQ5_0::kValues, n - col), 16, codes, BlockQ5_0::kValues);
    for (std::size_t j = 0; j < 16; ++j) {
      out->qs[j] = static_cast<std::uint8_t>((codes[j] & 0x0Fu) | ((codes[j + 16] & 0x0Fu) << 4));
    }
    for (std::size_t j = 0; j < 4; ++j) {
      unsigned bits = 0;
      for (std::size_t b = 0; b < 8; ++b) bits |= static_cast<unsigned>(codes[8 * j + b] >> 4) << b;
      out->qh[j] = static_cast<std::uint8_t>(bits);
    }
  }
}

void dequantize_row_q5_0(const BlockQ5_0* blocks, std::size_t n, float* out) {
  for (std::size_t i = 0; i < n; ++i) out[i] = block_value(blocks[i / BlockQ5_0::kValues], i % BlockQ5_0::kValues);
}

std::int32_t block_sum(const BlockQ5_0& b, const std::int8_t* x, std::size_t n) {
  std::int32_t sum = 0;
  for (std::size_t i = 0; i < n; ++i) sum += block_code(b, i) * x[i];
  return sum;
}

}  // namespace quorvel::formats
