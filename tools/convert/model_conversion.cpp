#include "tools/convert/model_conversion.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <sstream>

#include "runtime/bf16.h"
#include "tools/convert/convert_error.h"
#include "tools/convert/mapped_file.h"
#include "tools/convert/source_matrix.h"
#include "tools/lib/model_file_writer.h"

namespace quorvel::convert {
namespace {

using tools::LayerSlot;
using tools::WeightFormat;

std::string shape_text(const std::vector<std::uint64_t>& shape) {
  std::ostringstream text;
  text << '[';
  for (std::size_t i = 0; i < shape.size(); ++i) text << (i ? ", " : "") << shape[i];
  text << ']';
  return text.str();
}

// Tensors a checkpoint may carry that the engine has no use for.
bool ignorable(const std::string& name) { return name == "rope_freqs.weight" || name.ends_with("rotary_emb.inv_freq"); }

}  // namespace

struct ModelConversion::Job {
  const SourceTensor* tensor = nullptr;
  WeightFormat format = WeightFormat::BF16;
  double tensor_scale = 0.0;  // packed ternary: gamma from the weight_scale tensor
  float weight_scale = 0.0f;  // that tensor's value
  const SourceTensor* scale_tensor = nullptr;
  std::vector<std::uint64_t> row_order;      // un-permuted Q and K rows
  std::vector<std::uint64_t> element_order;  // the same for their biases
  bool first_query = false;
};

namespace {

// Collects the jobs in payload order, with every check that needs no data.
class Planner {
 public:
  explicit Planner(const Checkpoint& checkpoint) : checkpoint_(checkpoint) {}

  const SourceTensor& find(const std::string& name) {
    const SourceTensor* tensor = checkpoint_.tensors->find(name);
    if (!tensor) throw ConvertError(checkpoint_.origin, "missing tensor " + name);
    used_.insert(name);
    return *tensor;
  }

  void check_shape(const SourceTensor& tensor, std::vector<std::uint64_t> wanted, std::uint64_t rows_per_stored_row) {
    std::vector<std::uint64_t> shape = tensor.shape;
    if (shape.size() == 2) shape[0] *= rows_per_stored_row;
    if (shape != wanted) {
      throw ConvertError(tensor.file, "tensor " + tensor.name + " has shape " + shape_text(shape) +
                                          ", but the model's config needs " + shape_text(wanted));
    }
  }

  ModelConversion::Job vector(const std::string& name, std::uint64_t width) {
    ModelConversion::Job job;
    job.tensor = &find(name);
    check_shape(*job.tensor, {width}, 1);
    check_readable(*job.tensor, WeightFormat::BF16);
    return job;
  }

  ModelConversion::Job matrix(const std::string& name, WeightFormat format, std::uint64_t rows, std::uint64_t cols) {
    ModelConversion::Job job;
    job.tensor = &find(name);
    job.format = format;
    const bool packed = job.tensor->type == SourceType::U8;
    check_shape(*job.tensor, {rows, cols}, packed ? 4 : 1);
    check_readable(*job.tensor, format);
    if (packed) read_weight_scale(job);
    return job;
  }

  std::vector<std::string> unused() const {
    std::vector<std::string> names;
    for (const auto& [name, tensor] : *checkpoint_.tensors) {
      if (!used_.count(name) && !ignorable(name)) names.push_back(name);
    }
    return names;
  }

 private:
  void check_readable(const SourceTensor& tensor, WeightFormat format) const {
    if (tensor.type != SourceType::UNSUPPORTED) return;
    throw ConvertError(tensor.file, "tensor " + tensor.name + " has type " + tensor.type_name + "; writing it as " +
                                        tools::weight_format_name(format) +
                                        " needs F32, F16, BF16, Q8_0 or a ternary or 1-bit type");
  }

  // Packed ternary weights keep their scale in "<name>_scale".
  void read_weight_scale(ModelConversion::Job& job) {
    const std::string name = job.tensor->name + "_scale";
    job.scale_tensor = checkpoint_.tensors->find(name);
    if (!job.scale_tensor)
      throw ConvertError(job.tensor->file, "packed ternary tensor " + job.tensor->name + " has no " + name);
    used_.insert(name);
    if (job.scale_tensor->elements() != 1 || job.scale_tensor->type == SourceType::UNSUPPORTED) {
      throw ConvertError(job.scale_tensor->file, "tensor " + name + " must hold one float scale");
    }
    float& weight_scale = job.weight_scale;
    SourceMatrix(*job.scale_tensor).real_row(0, &weight_scale);
    if (!std::isfinite(weight_scale) || weight_scale == 0.0f) {
      throw ConvertError(job.scale_tensor->file, "tensor " + name + " holds a zero or non-finite scale");
    }
    job.tensor_scale = checkpoint_.scale_convention == ScaleConvention::DIVIDE ? 1.0 / static_cast<double>(weight_scale)
                                                                               : static_cast<double>(weight_scale);
  }

  const Checkpoint& checkpoint_;
  std::set<std::string, std::less<>> used_;
};

}  // namespace

ModelConversion::ModelConversion(const Checkpoint& checkpoint) : checkpoint_(checkpoint) {
  const InitConfig& c = checkpoint.config;
  const TensorNaming& naming = checkpoint.naming;
  Planner plan(checkpoint);
  const WeightFormat table = tools::table_format(c.arch_type);
  jobs_.push_back(plan.matrix(naming.embedding, table, c.vocab_size, c.hidden_dim));
  if (!c.tie_word_embeddings) jobs_.push_back(plan.matrix(naming.output, table, c.vocab_size, c.hidden_dim));
  jobs_.push_back(plan.vector(naming.final_norm, c.hidden_dim));
  const WeightFormat projections = tools::projection_format(c.arch_type);
  for (std::uint64_t layer = 0; layer < c.num_layers; ++layer) {
    for (const tools::LayerTensor& t : tools::layer_tensors(c)) {
      const std::string weight = naming.layer_tensor(layer, t.slot, naming.weight_suffix);
      if (t.role == tools::TensorRole::NORM) {
        jobs_.push_back(plan.vector(weight, t.in_width));
        continue;
      }
      Job job = plan.matrix(weight, projections, t.out_width, t.in_width);
      const bool rotated = t.slot == LayerSlot::Q || t.slot == LayerSlot::K;
      if (checkpoint.permuted_qk && rotated) job.row_order = unpermute_heads(t.out_width / c.head_dim, c.head_dim);
      job.first_query = layer == 0 && t.slot == LayerSlot::Q;
      const std::vector<std::uint64_t> order = job.row_order;
      jobs_.push_back(std::move(job));
      if (!t.has_bias) continue;
      Job bias = plan.vector(naming.layer_tensor(layer, t.slot, naming.bias_suffix), t.out_width);
      bias.element_order = order;
      jobs_.push_back(std::move(bias));
    }
  }
  unused_ = plan.unused();
}

ModelConversion::~ModelConversion() = default;

ConversionPlanSize ModelConversion::size() const {
  ConversionPlanSize size;
  for (const Job& job : jobs_) {
    ++size.tensors;
    size.input_bytes += job.tensor->data.size();
  }
  return size;
}

namespace {

void write_reordered_row(const SourceMatrix& vector, const std::vector<std::uint64_t>& order,
                         tools::BinaryWriter& out) {
  std::vector<float> values(vector.cols());
  vector.real_row(0, values.data());
  std::vector<bf16> row(values.size());
  for (std::size_t i = 0; i < row.size(); ++i) row[i] = narrow_nearest_even(values[order[i]]);
  out.write_values(std::span<const bf16>(row));
}

// Where a ternary gamma came from, for the summary.
std::string gamma_origin(const ModelConversion::Job& job, ScaleConvention convention) {
  if (!job.scale_tensor)
    return job.tensor->type == SourceType::I2_S || job.tensor->type == SourceType::TQ2_0
               ? "the tensor's own scale"
               : "absmean of the real weights";
  std::ostringstream text;
  text << "weight_scale " << job.weight_scale
       << (convention == ScaleConvention::DIVIDE ? ", gamma = 1 / weight_scale (bitlinear)"
                                                 : ", gamma = weight_scale (autobitlinear)");
  return text.str();
}

}  // namespace

ConversionReport ModelConversion::write(const std::filesystem::path& file, ProgressBar& progress) const {
  ConversionReport report;
  tools::BinaryWriter out(file);
  tools::write_model_header(out, checkpoint_.config.arch_type, {});
  for (const Job& job : jobs_) {
    prefetch_pages(job.tensor->data);
    const SourceMatrix matrix(*job.tensor, job.tensor_scale, job.row_order);
    if (job.element_order.empty()) {
      const std::optional<double> gamma = write_matrix(matrix, job.format, out, report.narrowing);
      if (job.first_query && gamma) {
        report.first_query_gamma = gamma;
        report.first_query_scale_text = gamma_origin(job, checkpoint_.scale_convention);
      }
    } else {
      write_reordered_row(matrix, job.element_order, out);
    }
    release_pages(job.tensor->data);
    report.parameters += matrix.rows() * matrix.cols();
    report.input_bytes += job.tensor->data.size();
    ++report.tensors;
    progress.advance(job.tensor->data.size());
  }
  out.finish();
  report.output_bytes = out.bytes_written();
  report.unused_tensors = unused_;
  return report;
}

}  // namespace quorvel::convert
