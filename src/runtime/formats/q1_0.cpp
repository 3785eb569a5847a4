#include "runtime/formats/q1_0.h"

#include <cmath>

namespace quorvel::formats {

namespace {

std::array<std::array<std::int8_t, 8>, 256> make_sign_table() {
  std::array<std::array<std::int8_t, 8>, 256> table{};
  for (unsigned v = 0; v < 256; ++v) {
    for (unsigned j = 0; j < 8; ++j) table[v][j] = ((v >> (7 - j)) & 1u) ? 1 : -1;
  }
  return table;
}

}  // namespace

const std::array<std::array<std::int8_t, 8>, 256>& q1_0_sign_table() {
  static const std::array<std::array<std::int8_t, 8>, 256> table = make_sign_table();
  return table;
}

std::int32_t block_sum(const BlockQ1_0& b, const std::int8_t* x, std::size_t n) {
  std::int32_t sum = 0;
  for (std::size_t i = 0; i < n; ++i) sum += q1_0_sign(b, i) * x[i];
  return sum;
}

void quantize_q1_0(const float* x, std::size_t n, BlockQ1_0* out) {
  for (std::size_t blk = 0; blk < n / BlockQ1_0::kValues; ++blk, x += BlockQ1_0::kValues) {
    BlockQ1_0& block = out[blk];
    float magnitude = 0.0f;
    for (std::size_t i = 0; i < BlockQ1_0::kValues; ++i) magnitude += std::fabs(x[i]);
    block.d = narrow_nearest_even(magnitude / static_cast<float>(BlockQ1_0::kValues));
    for (std::size_t k = 0; k < 16; ++k) {
      unsigned bits = 0;
      for (std::size_t j = 0; j < 8; ++j) bits = (bits << 1) | (x[8 * k + j] >= 0.0f ? 1u : 0u);
      block.signs[k] = static_cast<std::uint8_t>(bits);
    }
  }
}

void dequantize_q1_0(const BlockQ1_0* blocks, std::size_t n, bf16* out) {
  const std::size_t count = (n + BlockQ1_0::kValues - 1) / BlockQ1_0::kValues;
  for (std::size_t blk = 0; blk < count; ++blk) {
    const float d = widen(blocks[blk].d);
    for (std::size_t i = 0; i < BlockQ1_0::kValues; ++i) {
      const float sign = static_cast<float>(q1_0_sign(blocks[blk], i));
      *out++ = narrow_saturate(sign * d);
    }
  }
}

}  // namespace quorvel::formats
