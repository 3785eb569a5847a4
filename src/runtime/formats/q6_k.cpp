#include "runtime/formats/q6_k.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "runtime/formats/block_quantizing.h"

namespace quorvel::formats {

namespace {

constexpr std::size_t kSubBlocks = BlockQ6_K::kValues / BlockQ6_K::kSubValues;

// Chooses d and the sixteen 8-bit sub-block scales of a super-block of n values.
void choose_q6_k_scales(const bf16* x, std::size_t n, BlockQ6_K& out) {
  float ideal[kSubBlocks];
  float largest = 0.0f;
  for (std::size_t s = 0; s < kSubBlocks; ++s) {
    const std::size_t first = s * BlockQ6_K::kSubValues;
    const std::size_t count = first < n ? std::min(BlockQ6_K::kSubValues, n - first) : 0;
    ideal[s] = sign_carrying_max(x + first, count) / -32.0f;
    if (std::fabs(ideal[s]) > std::fabs(largest)) largest = ideal[s];
  }
  const float inv_d = largest != 0.0f ? -128.0f / largest : 0.0f;
  out.d = largest != 0.0f ? 1.0f / inv_d : 0.0f;
  for (std::size_t s = 0; s < kSubBlocks; ++s) {
    out.scales[s] = static_cast<std::int8_t>(rint_clamped(ideal[s] * inv_d, -128, 127));
  }
}

void store_q6_k_code(BlockQ6_K& out, std::size_t i, unsigned code) {
  out.ql[i / 2] = static_cast<std::uint8_t>(out.ql[i / 2] | ((code & 0x0Fu) << (4 * (i % 2))));
  out.qh[i / 4] = static_cast<std::uint8_t>(out.qh[i / 4] | ((code >> 4) << (2 * (i % 4))));
}

void quantize_block_q6_k(const bf16* x, std::size_t n, BlockQ6_K& out) {
  choose_q6_k_scales(x, n, out);
  std::fill(std::begin(out.ql), std::end(out.ql), std::uint8_t{0});
  std::fill(std::begin(out.qh), std::end(out.qh), std::uint8_t{0});
  for (std::size_t i = 0; i < BlockQ6_K::kValues; ++i) {
    const float step = out.d * static_cast<float>(out.scales[i / BlockQ6_K::kSubValues]);
    const float inv = step != 0.0f ? 1.0f / step : 0.0f;
    const float scaled = i < n ? widen(x[i]) * inv : 0.0f;
    store_q6_k_code(out, i, static_cast<unsigned>(rint_clamped(scaled, -32, 31) + 32));
  }
}

}  // namespace

void quantize_row_q6_k(const bf16* x, std::size_t n, BlockQ6_K* out) {
  for (std::size_t col = 0; col < n; col += BlockQ6_K::kValues) {
    quantize_block_q6_k(x + col, std::min(BlockQ6_K::kValues, n - col), *out++);
  }
}

void dequantize_row_q6_k(const BlockQ6_K* blocks, std::size_t n, float* out) {
  for (std::size_t i = 0; i < n; ++i) out[i] = block_value(blocks[i / BlockQ6_K::kValues], i % BlockQ6_K::kValues);
}

std::int32_t block_sum(const BlockQ6_K& b, const std::int8_t* x, std::size_t n) {
  std::int32_t sum = 0;
  for (std::size_t first = 0; first < n; first += BlockQ6_K::kSubValues) {
    std::int32_t sub = 0;
    for (std::size_t i = first; i < std::min(first + BlockQ6_K::kSubValues, n); ++i) sub += block_code(b, i) * x[i];
    sum += b.scales[first / BlockQ6_K::kSubValues] * sub;
  }
  return sum;
}

}  // namespace quorvel::formats
