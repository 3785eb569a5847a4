#include "runtime/formats/q8_0.h"

#include <algorithm>
#include <cmath>

#include "runtime/formats/block_quantizing.h"

namespace quorvel::formats {

namespace {

void quantize_block_q8_0(const bf16* x, std::size_t n, BlockQ8_0& out) {
  float amax = 0.0f;
  for (std::size_t i = 0; i < n; ++i) amax = std::max(amax, std::fabs(widen(x[i])));
  out.d = amax > 0.0f ? amax / 127.0f : 0.0f;
  if (out.d == 0.0f) return;
  const float inv = 1.0f / out.d;
  for (std::size_t i = 0; i < n; ++i) out.q[i] = static_cast<std::int8_t>(rint_clamped(widen(x[i]) * inv, -127, 127));
}

}  // namespace

void quantize_row_q8_0(const bf16* x, std::size_t n, BlockQ8_0* out) {
  for (std::size_t col = 0; col < n; col += BlockQ8_0::kValues) {
    quantize_block_q8_0(x + col, std::min(BlockQ8_0::kValues, n - col), *out++);
  }
}

void dequantize_row_q8_0(const BlockQ8_0* blocks, std::size_t n, float* out) {
  for (std::size_t i = 0; i < n; ++i) out[i] = block_value(blocks[i / BlockQ8_0::kValues], i % BlockQ8_0::kValues);
}

std::int32_t block_sum(const BlockQ8_0& b, const std::int8_t* x, std::size_t n) {
  std::int32_t sum = 0;
  for (std::size_t i = 0; i < n; ++i) sum += b.q[i] * x[i];
  return sum;
}

std::size_t q8_0_gemv_rows_per_group(std::size_t k) {
  if (k < 2561) return 2;
  if (k < 4096) return 4;
  if (k < 8192) return 8;
  return 2;
}

}  // namespace quorvel::formats
