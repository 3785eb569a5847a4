#include "models/transformer_layer.h"

#include "layers/kv_cache_linear.h"
#include "runtime/kernel_base.h"
#include "runtime/parallel_rows.h"
#include "runtime/thread_pool.h"

namespace quorvel::layers {

template <typename Family>
TransformerLayer<Family>::TransformerLayer(const InitConfig& config, bool always_silu)
    : config_(config), always_silu_(always_silu) {}

template <typename Family>
std::unique_ptr<RMSNorm> TransformerLayer<Family>::read_norm(std::istream& stream, std::uint64_t width) const {
  return std::make_unique<RMSNorm>(static_cast<float>(config_.norm_eps), stream, width);
}

template <typename Family>
void TransformerLayer<Family>::read_attention_projections(std::istream& stream) {
  const std::uint64_t d = config_.hidden_dim, D = config_.head_dim;
  const std::uint64_t kv_width = size_mul(D, config_.num_kv_heads);
  const std::uint64_t context = config_.max_position_embeddings;
  const bool bias = config_.has_qkv_bias;
  key_ = std::make_unique<typename Family::Key>(stream, d, kv_width, config_.num_kv_heads, bias, context,
                                                config_.lora_quant);
  value_ = std::make_unique<typename Family::Value>(stream, d, kv_width, config_.num_kv_heads, bias, context,
                                                    config_.lora_quant);
  query_ = std::make_unique<typename Family::Plain>(stream, d, size_mul(D, config_.num_heads), config_.num_heads,
                                                    bias, config_.lora_quant);
}

template <typename Family>
void TransformerLayer<Family>::read_output_projection(std::istream& stream) {
  output_ = std::make_unique<typename Family::Plain>(stream, size_mul(config_.head_dim, config_.num_heads),
                                                     config_.hidden_dim, 1, false, config_.lora_quant);
}

template <typename Family>
void TransformerLayer<Family>::read_feed_forward_projections(std::istream& stream) {
  const std::uint64_t d = config_.hidden_dim, I = config_.intermediate_dim;
  gate_ = std::make_unique<typename Family::Plain>(stream, d, I, 1, false, config_.lora_quant);
  up_ = std::make_unique<typename Family::Plain>(stream, d, I, 1, false, config_.lora_quant);
}

template <typename Family>
void TransformerLayer<Family>::read_down_projection(std::istream& stream) {
  down_ = std::make_unique<typename Family::Plain>(stream, config_.intermediate_dim, config_.hidden_dim, 1, false,
                                                   config_.lora_quant);
}

template <typename Family>
void TransformerLayer<Family>::set_position(std::uint64_t position) {
  key_->set_cache_pos(position);
  value_->set_cache_pos(position);
  position_ = position;
}

template <typename Family>
std::array<AutoLinear*, kLoraTargetsPerLayer> TransformerLayer<Family>::projections_in_lora_order() const {
  return {key_.get(), value_.get(), query_.get(), output_.get(), gate_.get(), up_.get(), down_.get()};
}

template <typename Family>
void TransformerLayer<Family>::attach_lora(std::istream& stream, std::uint64_t rank) {
  for (AutoLinear* projection : projections_in_lora_order()) projection->load_lora(stream, rank);
}

template <typename Family>
void TransformerLayer<Family>::forward(const RotaryEmbedding& rope, bf16* x, bf16* work,
                                       const ModelScratch& scratch, std::uint64_t n) {
  const auto& kernel_set = kernels::kernels();
  const std::uint64_t d = config_.hidden_dim, H = config_.num_heads, Hkv = config_.num_kv_heads;
  const std::uint64_t D = config_.head_dim;
  const std::int8_t* codes = scratch.codes();
  const float* scales = scratch.row_scales();
  bf16* a = scratch.projection_a();
  bf16* b = scratch.projection_b();

  // Attention block. The normalized rows stay in `work`: they are what a
  // LoRA adapter of K, V and Q receives.
  kernel_set.copy_bytes(work, x, n * d * sizeof(bf16));
  quantize_rows(attention_norm_.get(), work, n, d, scratch);
  bf16* key_cache = key_->forward(codes, scales, n, nullptr, work);
  value_->forward(codes, scales, n, b, work);
  bf16* query = query_->forward(codes, scales, n, a, work);
  bf16* new_keys = key_cache + position_ * Hkv * D;
  if (query_norm_) {
    query_norm_->forward(query, n * H);
    key_norm_->forward(new_keys, n * Hkv);
  }
  rope.apply(query, H, n, position_);
  rope.apply(new_keys, Hkv, n, position_);
  position_ += n;
  attention(query, work, scratch, n);
  quantize_rows(attention_sub_norm_.get(), work, n, H * D, scratch);
  add_residual(x, output_->forward(codes, scales, n, a, work), n);

  // Feed-forward block.
  kernel_set.copy_bytes(work, x, n * d * sizeof(bf16));
  quantize_rows(feed_forward_norm_.get(), work, n, d, scratch);
  gate_->forward(codes, scales, n, a, work);
  up_->forward(codes, scales, n, b, work);
  gate_activation(a, b, n);
  quantize_rows(feed_forward_sub_norm_.get(), b, n, config_.intermediate_dim, scratch);
  add_residual(x, down_->forward(codes, scales, n, a, b), n);
}

template <typename Family>
void TransformerLayer<Family>::quantize_rows(const RMSNorm* norm, bf16* rows, std::uint64_t n, std::uint64_t width,
                                             const ModelScratch& scratch) const {
  const auto& kernel_set = kernels::kernels();
  std::int8_t* codes = scratch.codes();
  float* scales = scratch.row_scales();
  auto body = [&](std::uint64_t first, std::uint64_t count) {
    bf16* block = rows + first * width;
    if (norm) {
      kernel_set.rms_norm_quantize_i8(block, norm->weights(), codes + first * width, scales + first, count, width,
                                      norm->eps());
    } else {
      kernel_set.quantize_rows_i8(block, codes + first * width, scales + first, count, width);
    }
  };
  parallel_rows(n, {.inline_below = thread_count() / 2}, body);
}

template <typename Family>
void TransformerLayer<Family>::attention(bf16* query, bf16* out, const ModelScratch& scratch,
                                         std::uint64_t n) const {
  const auto& kernel_set = kernels::kernels();
  const std::uint64_t H = config_.num_heads, Hkv = config_.num_kv_heads, D = config_.head_dim;
  const std::uint64_t group = Hkv == 0 ? 0 : H / Hkv;  // query heads per key/value head
  const std::uint64_t capacity = value_->max_context();
  const bf16* keys = key_->cache();
  const bf16* values = value_->cache();
  auto body = [&](std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t h = first; h < first + count; ++h) {
      const std::uint64_t kv_head = group == 0 ? 0 : h / group;
      kernel_set.attention_bf16(query + h * D, H * D, keys + kv_head * D, Hkv * D, values + kv_head * capacity * D,
                                capacity, out + h * D, H * D, n, position_, D,
                                scratch.attention() + h * (D + kernels::kAttentionBlock));
    }
  };
  parallel_rows(H, {}, body);
}

template <typename Family>
void TransformerLayer<Family>::gate_activation(const bf16* gate, bf16* up, std::uint64_t n) const {
  const auto& kernel_set = kernels::kernels();
  const std::uint64_t I = config_.intermediate_dim;
  const bool silu = always_silu_ || config_.activation == 1;
  auto body = [&](std::uint64_t first, std::uint64_t count) {
    if (silu) {
      kernel_set.silu_mul_bf16(gate + first * I, up + first * I, count, I);
    } else {
      kernel_set.relu2_mul_bf16(gate + first * I, up + first * I, count, I);
    }
  };
  parallel_rows(n, {.inline_below = thread_count() / 2}, body);
}

template <typename Family>
void TransformerLayer<Family>::add_residual(bf16* x, const bf16* delta, std::uint64_t n) const {
  const auto& kernel_set = kernels::kernels();
  auto body = [&](std::uint64_t first, std::uint64_t count) { kernel_set.add_bf16(delta + first, x + first, count); };
  const std::uint64_t elements = n * config_.hidden_dim;
  if (elements != 0) parallel_rows(elements, {}, body);
}

template class TransformerLayer<ProjectionFamily<KBitLinear, VBitLinear, AutoBitLinear>>;
template class TransformerLayer<ProjectionFamily<KQ1Linear, VQ1Linear, AutoQ1Linear>>;
template class TransformerLayer<ProjectionFamily<KQ1_58Linear, VQ1_58Linear, AutoQ1_58Linear>>;
template class TransformerLayer<ProjectionFamily<KQ8_0Linear, VQ8_0Linear, AutoQ8_0Linear>>;

}  // namespace quorvel::layers
