#include "host/roofline.h"

namespace quorvel::host {
namespace {

double bytes_per_weight(std::int32_t arch_type) {
  if (arch_type == 4) return 18.0 / 128.0;  // q1_0_128
  if (arch_type == 5) return 34.0 / 128.0;  // q1.58
  if (arch_type == 6) return 36.0 / 32.0;   // q8_0
  return 0.25;                              // ternary
}

}  // namespace

double layer_matrix_weights(const InitConfig& c) {
  const double d = static_cast<double>(c.hidden_dim), ff = static_cast<double>(c.intermediate_dim);
  const double q = static_cast<double>(c.head_dim * c.num_heads);
  const double kv = static_cast<double>(c.head_dim * c.num_kv_heads);
  return d * (q + 2 * kv) + q * d + 3 * d * ff;
}

double weight_bytes_per_token(const InitConfig& c) {
  const double d = static_cast<double>(c.hidden_dim);
  const double vocab = static_cast<double>((c.vocab_size + 31) / 32 * 32);
  const double unembed = c.arch_type == 4 ? vocab * d * 18.0 / 128.0 : vocab * (d + 4.0);
  return layer_matrix_weights(c) * bytes_per_weight(c.arch_type) * static_cast<double>(c.num_layers) + unembed;
}

double kv_cache_bytes_per_token(const InitConfig& c, double positions) {
  return static_cast<double>(c.num_layers * 2 * c.num_kv_heads * c.head_dim) * positions * 2.0;
}

double mean_decode_positions(std::uint64_t depth, std::uint64_t prompt, std::uint64_t decoded) {
  return static_cast<double>(depth + prompt) + static_cast<double>(decoded + 1) / 2.0;
}

double prefill_multiply_adds_per_token(const InitConfig& c, std::uint64_t prompt) {
  const double unembed = static_cast<double>(c.vocab_size * c.hidden_dim);
  return layer_matrix_weights(c) * static_cast<double>(c.num_layers) + unembed / static_cast<double>(prompt);
}

}  // namespace quorvel::host
