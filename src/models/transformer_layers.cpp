#include "models/transformer_layers.h"

namespace quorvel::layers {

TransformerLayerBitNet::TransformerLayerBitNet(std::istream& stream, const InitConfig& config)
    : TransformerLayer(config, false) {
  attention_norm_ = read_norm(stream, config.hidden_dim);
  attention_sub_norm_ = read_norm(stream, size_mul(config.num_heads, config.head_dim));
  read_attention_projections(stream);
  read_output_projection(stream);
  feed_forward_norm_ = read_norm(stream, config.hidden_dim);
  read_feed_forward_projections(stream);
  feed_forward_sub_norm_ = read_norm(stream, config.intermediate_dim);
  read_down_projection(stream);
}

TransformerLayerLlama::TransformerLayerLlama(std::istream& stream, const InitConfig& config)
    : TransformerLayer(config, false) {
  attention_norm_ = read_norm(stream, config.hidden_dim);
  read_attention_projections(stream);
  read_output_projection(stream);
  feed_forward_norm_ = read_norm(stream, config.hidden_dim);
  read_feed_forward_projections(stream);
  read_down_projection(stream);
}

template <typename Family, bool kAlwaysSilu>
HeadNormLayer<Family, kAlwaysSilu>::HeadNormLayer(std::istream& stream, const InitConfig& config)
    : TransformerLayer<Family>(config, kAlwaysSilu) {
  this->attention_norm_ = this->read_norm(stream, config.hidden_dim);
  this->read_attention_projections(stream);
  this->query_norm_ = this->read_norm(stream, config.head_dim);
  this->key_norm_ = this->read_norm(stream, config.head_dim);
  this->read_output_projection(stream);
  this->feed_forward_norm_ = this->read_norm(stream, config.hidden_dim);
  this->read_feed_forward_projections(stream);
  this->read_down_projection(stream);
}

template class HeadNormLayer<Q1Projections, false>;
template class HeadNormLayer<Q1_58Projections, false>;
template class HeadNormLayer<Q8_0Projections, true>;

}  // namespace quorvel::layers
