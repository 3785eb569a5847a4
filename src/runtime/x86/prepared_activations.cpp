#include "runtime/x86/prepared_activations.h"

#include <cstring>

namespace quorvel::kernels::x86 {
namespace {

void copy_codes(std::int8_t* dst, const std::int8_t* src, std::size_t k, CodeOrder order) {
  if (order == CodeOrder::natural) {
    std::memcpy(dst, src, k);
  } else {
    for (std::size_t i = 0; i < k; ++i) dst[i] = src[(i & ~std::size_t{7}) + 7 - (i & 7)];
  }
  std::memset(dst + k, 0, PreparedActivations::kPadding);
}

}  // namespace

void prepare_activations(PreparedActivations& p, const std::int8_t* x, const float* scales, std::size_t tokens,
                         std::size_t k, std::size_t block_values, CodeOrder order) {
  p.tokens = tokens;
  p.blocks = (k + block_values - 1) / block_values;
  for (std::size_t t = 0; t < tokens; ++t) {
    const std::int8_t* row = x + t * k;
    copy_codes(p.codes[t], row, k, order);
    p.scales[t] = scales[t];
    std::int32_t total = 0;
    for (std::size_t b = 0; b < p.blocks; ++b) {
      std::int32_t sum = 0;
      const std::size_t end = b * block_values + block_values < k ? b * block_values + block_values : k;
      for (std::size_t i = b * block_values; i < end; ++i) sum += row[i];
      p.block_sums[b * tokens + t] = sum;
      total += sum;
    }
    p.row_sums[t] = total;
  }
}

}  // namespace quorvel::kernels::x86
