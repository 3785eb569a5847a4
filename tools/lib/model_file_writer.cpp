#include "tools/lib/model_file_writer.h"

#include <stdexcept>

#include "tools/lib/binary_writer.h"
#include "tools/lib/payload_writer.h"
#include "tools/lib/tensor_layout.h"
#include "tools/lib/weight_scales.h"

namespace quorvel::tools {

void write_model_header(BinaryWriter& out, std::int32_t arch, const ModelFileOptions& options) {
  out.write_bytes("QVLM", 4);
  out.write_value(options.version);
  out.write_value(arch);
  out.write_value(static_cast<std::uint32_t>(options.sections.size()));
  if (options.version != 4) return;
  for (const SectionEntry& section : options.sections) {
    out.write_value(section.kind);
    out.write_value(section.value);
  }
}

namespace {

// The input table, then the output table unless the two are tied.
void write_embedding(PayloadWriter& payload, const InitConfig& config) {
  const WeightFormat format = table_format(config.arch_type);
  const double rms = table_weight_rms(config.hidden_dim);
  payload.matrix(format, config.vocab_size, config.hidden_dim, rms);
  if (!config.tie_word_embeddings) payload.matrix(format, config.vocab_size, config.hidden_dim, rms);
}

void write_layer_tensor(PayloadWriter& payload, const InitConfig& config, const LayerTensor& tensor) {
  if (tensor.role == TensorRole::NORM) return payload.norm(tensor.in_width);
  const double rms = tensor.role == TensorRole::RESIDUAL_OUTPUT
                         ? residual_weight_rms(tensor.in_width, config.num_layers)
                         : projection_weight_rms(tensor.in_width);
  payload.linear(projection_format(config.arch_type), tensor.in_width, tensor.out_width, rms, tensor.has_bias);
}

}  // namespace

void write_model_file(const std::filesystem::path& path, const InitConfig& config, const ModelFileOptions& options) {
  if (const auto problem = unwritable_shape(config)) throw std::invalid_argument(*problem);
  const std::vector<LayerTensor> layer = layer_tensors(config);
  BinaryWriter out(path);
  WeightRandom random(options.seed);
  PayloadWriter payload(out, random);
  write_model_header(out, config.arch_type, options);
  write_embedding(payload, config);
  payload.norm(config.hidden_dim);  // the final norm
  for (std::uint64_t i = 0; i < config.num_layers; ++i) {
    for (const LayerTensor& tensor : layer) write_layer_tensor(payload, config, tensor);
  }
  out.finish();
}

}  // namespace quorvel::tools
