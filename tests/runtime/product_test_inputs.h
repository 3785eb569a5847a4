// Test-side view of the weight block formats, decoded straight from the
// documented byte layouts (not through the library's accessors), random
// block tables, and the reference row product in the defined order.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "kernel_test_inputs.h"
#include "runtime/bf16.h"

namespace quorvel::test {

inline float f32_at(const std::uint8_t* p) {
  float v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

inline std::uint32_t u32_at(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

inline int q1_0_code(const std::uint8_t* b, std::size_t i) { return (b[i / 8] >> (7 - i % 8)) & 1 ? 1 : -1; }
inline int ternary_raw_code(const std::uint8_t* g, std::size_t j) { return (g[j % 32] >> (6 - 2 * (j / 32))) & 3; }
inline int q1_58_code(const std::uint8_t* b, std::size_t i) { return ternary_raw_code(b, i) - 1; }
inline int q8_0_code(const std::uint8_t* b, std::size_t i) { return static_cast<std::int8_t>(b[4 + i]); }
inline int q4_0_code(const std::uint8_t* b, std::size_t i) { return ((b[4 + i % 16] >> (i < 16 ? 0 : 4)) & 15) - 8; }
inline int q5_0_code(const std::uint8_t* b, std::size_t i) {
  const int high = (u32_at(b + 4) >> i) & 1;
  return (((b[8 + i % 16] >> (i < 16 ? 0 : 4)) & 15) | high << 4) - 16;
}
inline int q6_k_code(const std::uint8_t* b, std::size_t i) {
  const int low = (b[i / 2] >> (i % 2 == 0 ? 0 : 4)) & 15;
  const int high = (b[128 + i / 4] >> (2 * (i % 4))) & 3;
  return (low | high << 4) - 32;
}
inline int no_sub_scale(const std::uint8_t*, std::size_t) { return 1; }
inline int q6_k_sub_scale(const std::uint8_t* b, std::size_t i) { return static_cast<std::int8_t>(b[192 + i / 16]); }

// One block format as the tests see it: value i of a block is
// (scale * (float)sub_scale(i)) * (float)code(i), and its integer weight in
// the products is sub_scale(i) * code(i).
struct BlockLayout {
  const char* name;
  std::size_t values;
  std::size_t bytes;
  std::size_t scale_offset;
  bool bf16_scale;
  int (*code)(const std::uint8_t* block, std::size_t i);
  int (*sub_scale)(const std::uint8_t* block, std::size_t i);

  std::size_t blocks_per_row(std::size_t k) const { return (k + values - 1) / values; }
  std::size_t row_bytes(std::size_t k) const { return blocks_per_row(k) * bytes; }
  float scale(const std::uint8_t* block) const {
    if (!bf16_scale) return f32_at(block + scale_offset);
    return widen(bf16{static_cast<std::uint16_t>(block[scale_offset] | block[scale_offset + 1] << 8)});
  }
  void set_scale(std::uint8_t* block, float s) const {
    if (bf16_scale) {
      const bf16 v = narrow_nearest_even(s);
      block[scale_offset] = static_cast<std::uint8_t>(v.bits);
      block[scale_offset + 1] = static_cast<std::uint8_t>(v.bits >> 8);
    } else {
      std::memcpy(block + scale_offset, &s, sizeof s);
    }
  }
  float value(const std::uint8_t* block, std::size_t i) const {
    return (scale(block) * static_cast<float>(sub_scale(block, i))) * static_cast<float>(code(block, i));
  }
};

inline const BlockLayout kQ1_0Layout{"q1_0", 128, 18, 16, true, q1_0_code, no_sub_scale};
inline const BlockLayout kQ1_58Layout{"q1_58", 128, 34, 32, true, q1_58_code, no_sub_scale};
inline const BlockLayout kQ8_0Layout{"q8_0", 32, 36, 0, false, q8_0_code, no_sub_scale};
inline const BlockLayout kQ4_0Layout{"q4_0", 32, 20, 0, false, q4_0_code, no_sub_scale};
inline const BlockLayout kQ5_0Layout{"q5_0", 32, 24, 0, false, q5_0_code, no_sub_scale};
inline const BlockLayout kQ6_KLayout{"q6_k", 256, 212, 208, false, q6_k_code, q6_k_sub_scale};

// `rows` rows of random blocks for k values a row: random code bytes (so the
// unused tail of a last block is garbage that must not be read) and random
// scales of either sign up to `max_scale`.
inline std::vector<std::uint8_t> random_block_rows(const BlockLayout& layout, std::size_t rows, std::size_t k,
                                                   std::uint32_t seed, float max_scale = 0.02f) {
  std::mt19937 engine(seed);
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_real_distribution<float> scale(-max_scale, max_scale);
  std::vector<std::uint8_t> table(rows * layout.row_bytes(k));
  for (std::uint8_t& b : table) b = static_cast<std::uint8_t>(byte(engine));
  for (std::size_t at = 0; at < table.size(); at += layout.bytes) layout.set_scale(table.data() + at, scale(engine));
  return table;
}

// A row product two ways: `defined` follows the defined order (one f32
// accumulator, acc = acc + d_b * (float)S_b block by block, then * x_scale);
// `exact` is the same sum in double; `bound` is what float rounding in
// between may cost (2 roundings per block and one for x_scale, against the
// sum of the magnitudes of the terms).
struct RowProduct {
  float defined = 0.0f;
  double exact = 0.0;
  double bound = 0.0;
};

inline RowProduct reference_row_product(const BlockLayout& layout, const std::uint8_t* row, const std::int8_t* x,
                                        float x_scale, std::size_t k) {
  float acc = 0.0f;
  double exact = 0.0;
  double magnitude = 0.0;
  for (std::size_t b = 0; b < layout.blocks_per_row(k); ++b) {
    const std::uint8_t* block = row + b * layout.bytes;
    std::int64_t sum = 0;
    for (std::size_t i = 0; i < layout.values && b * layout.values + i < k; ++i) {
      sum += static_cast<std::int64_t>(layout.sub_scale(block, i)) * layout.code(block, i) * x[b * layout.values + i];
    }
    const float d = layout.scale(block);
    acc = acc + d * static_cast<float>(sum);
    exact += static_cast<double>(d) * static_cast<double>(sum);
    magnitude += std::fabs(static_cast<double>(d) * static_cast<double>(sum));
  }
  const auto blocks = static_cast<double>(layout.blocks_per_row(k));
  return {acc * x_scale, exact * x_scale, gamma_n(2 * blocks + 1) * magnitude * std::fabs(x_scale)};
}

}  // namespace quorvel::test
