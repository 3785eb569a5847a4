#include "runtime/formats/q1_0.h"

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
