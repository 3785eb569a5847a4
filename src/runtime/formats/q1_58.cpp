#include "runtime/formats/q1_58.h"

#include <algorithm>
#include <cmath>

#include "runtime/formats/ternary.h"

namespace quorvel::formats {

std::int32_t ternary_group_code_sum(const std::uint8_t* group, const std::int8_t* x) {
  std::int32_t sum = 0;
  for (std::size_t j = 0; j < kTernaryGroup; ++j) sum += static_cast<std::int32_t>(ternary_code(group, j)) * x[j];
  return sum;
}

std::int32_t block_sum(const BlockQ1_58& b, const std::int8_t* x, std::size_t n) {
  std::int32_t sum = 0;
  for (std::size_t j = 0; j < n; ++j) sum += (static_cast<std::int32_t>(ternary_code(b.codes, j)) - 1) * x[j];
  return sum;
}

void quantize_q1_58(const float* x, std::size_t n, BlockQ1_58* out) {
  for (std::size_t blk = 0; blk < n / BlockQ1_58::kValues; ++blk, x += BlockQ1_58::kValues) {
    BlockQ1_58& block = out[blk];
    float magnitude = 0.0f;
    for (std::size_t i = 0; i < BlockQ1_58::kValues; ++i) magnitude += std::fabs(x[i]);
    const float d = std::max(magnitude / static_cast<float>(BlockQ1_58::kValues), kTernaryScaleFloor);
    for (std::size_t j = 0; j < BlockQ1_58::kValues; ++j) set_ternary_code(block.codes, j, ternary_code_for(x[j] / d));
    block.d = narrow_nearest_even(d);
  }
}

void dequantize_q1_58(const BlockQ1_58* blocks, std::size_t n, bf16* out) {
  const std::size_t count = (n + BlockQ1_58::kValues - 1) / BlockQ1_58::kValues;
  for (std::size_t blk = 0; blk < count; ++blk) {
    const float d = widen(blocks[blk].d);
    for (std::size_t j = 0; j < BlockQ1_58::kValues; ++j) {
      const float weight = static_cast<float>(static_cast<int>(ternary_code(blocks[blk].codes, j)) - 1);
      *out++ = narrow_saturate(weight * d);
    }
  }
}

}  // namespace quorvel::formats
