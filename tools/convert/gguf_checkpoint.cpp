// The GGUF front end: one file whose metadata names the architecture and
// the shapes, with the tensors in its own names and block types.
#include <algorithm>
#include <memory>

#include "tools/convert/checkpoint.h"
#include "tools/convert/convert_error.h"
#include "tools/convert/gguf_file.h"
#include "tools/convert/gguf_tokenizer.h"
#include "tools/convert/source_matrix.h"
#include "tools/convert/tensor_names.h"

namespace quorvel::convert {
namespace {

using std::filesystem::path;

constexpr const char* kSupported =
    "supported: bitnet and llama with ternary projections (I2_S, TQ2_0), qwen3 with Q1_0, Q2_0, Q8_0, F16, BF16 "
    "or F32 projections";

std::uint64_t required_uint(const GgufMetadata& meta, const std::string& key) {
  const std::optional<std::uint64_t> value = meta.get_uint(key);
  if (!value) throw ConvertError(meta.file(), "metadata key '" + key + "' is missing");
  return *value;
}

const SourceTensor& first_query(const GgufContents& gguf) {
  const SourceTensor* query = gguf.tensors.find("blk.0.attn_q.weight");
  if (!query) throw ConvertError(gguf.metadata.file(), "missing tensor blk.0.attn_q.weight");
  return *query;
}

bool is_ternary(SourceType type) { return type == SourceType::I2_S || type == SourceType::TQ2_0; }

std::int32_t qwen3_arch_of(SourceType type, const GgufContents& gguf, const ConvertOptions& options,
                           std::vector<std::string>& notes) {
  if (type == SourceType::Q1_0 || type == SourceType::Q2_0) {
    if (options.to) throw ConvertError(gguf.metadata.file(), "--to applies to bf16, f16, f32 and q8_0 sources only");
    return type == SourceType::Q1_0 ? 4 : 5;
  }
  if (type == SourceType::F16 || type == SourceType::BF16 || type == SourceType::F32 || type == SourceType::Q8_0) {
    return qwen3_arch(options, notes);
  }
  throw ConvertError(gguf.metadata.file(),
                     "qwen3 projections of type " + first_query(gguf).type_name + " are not supported; " + kSupported);
}

// The architecture code of the file, or ConvertError.
std::int32_t arch_of(const std::string& name, const GgufContents& gguf, const ConvertOptions& options,
                     std::vector<std::string>& notes) {
  const SourceType query_type = first_query(gguf).type;
  if (name == "qwen3") return qwen3_arch_of(query_type, gguf, options, notes);
  const path& file = gguf.metadata.file();
  if (options.to) throw ConvertError(file, "--to applies to qwen3 files only, not " + name);
  if (name != "bitnet" && name != "llama")
    throw ConvertError(file, "architecture '" + name + "' is not supported; " + kSupported);
  if (!is_ternary(query_type)) {
    throw ConvertError(
        file, name + " projections of type " + first_query(gguf).type_name + " are not supported; " + kSupported);
  }
  return name == "bitnet" ? 1 : 2;
}

void read_shapes(const GgufContents& gguf, const std::string& arch, InitConfig& c) {
  const GgufMetadata& meta = gguf.metadata;
  c.hidden_dim = required_uint(meta, arch + ".embedding_length");
  c.intermediate_dim = required_uint(meta, arch + ".feed_forward_length");
  c.num_layers = required_uint(meta, arch + ".block_count");
  c.num_heads = required_uint(meta, arch + ".attention.head_count");
  c.num_kv_heads = meta.get_uint(arch + ".attention.head_count_kv").value_or(c.num_heads);
  c.head_dim = meta.get_uint(arch + ".attention.key_length").value_or(c.num_heads ? c.hidden_dim / c.num_heads : 0);
  const SourceTensor* embedding = gguf.tensors.find("token_embd.weight");
  c.vocab_size = meta.get_uint(arch + ".vocab_size").value_or(embedding ? embedding->rows() : 0);
  c.norm_eps = meta.get_float(arch + ".attention.layer_norm_rms_epsilon").value_or(1e-6);
  c.rope_theta = meta.get_float(arch + ".rope.freq_base").value_or(10000.0);
  c.tie_word_embeddings = gguf.tensors.find("output.weight") == nullptr;
  c.has_qkv_bias = gguf.tensors.find("blk.0.attn_q.bias") != nullptr;
}

std::optional<RopeScaling> rope_scaling_of(const GgufMetadata& meta, const std::string& arch) {
  const std::string type = meta.get_string(arch + ".rope.scaling.type").value_or("none");
  if (type == "none") return std::nullopt;
  if (type != "linear") {
    throw ConvertError(meta.file(), "rope scaling type '" + type + "' is not supported (supported: none, linear)");
  }
  RopeScaling scaling;
  scaling.type = type;
  scaling.factor = meta.get_float(arch + ".rope.scaling.factor").value_or(1.0);
  if (!(scaling.factor > 0.0)) throw ConvertError(meta.file(), "rope scaling factor must be positive");
  return scaling;
}

std::vector<float> rope_divisors(const GgufContents& gguf) {
  const SourceTensor* factors = gguf.tensors.find("rope_freqs.weight");
  if (!factors) return {};
  const SourceMatrix matrix(*factors);
  std::vector<float> values(matrix.cols());
  matrix.real_row(0, values.data());
  return values;
}

std::vector<std::int64_t> eos_tokens(const GgufMetadata& meta) {
  std::vector<std::int64_t> ids;
  for (const char* key :
       {"tokenizer.ggml.eos_token_id", "tokenizer.ggml.eot_token_id", "tokenizer.ggml.eom_token_id"}) {
    const std::optional<std::uint64_t> id = meta.get_uint(key);
    if (id && std::find(ids.begin(), ids.end(), static_cast<std::int64_t>(*id)) == ids.end()) {
      ids.push_back(static_cast<std::int64_t>(*id));
    }
  }
  return ids;
}

TensorNaming gguf_naming() {
  return {"token_embd.weight", "output.weight", "output_norm.weight", "blk.", gguf_slot_name};
}

}  // namespace

Checkpoint open_gguf_checkpoint(const path& file, const ConvertOptions& options) {
  auto gguf = std::make_shared<GgufCheckpoint>(read_gguf(file));
  const GgufContents& contents = gguf->contents;
  const std::optional<std::string> arch = contents.metadata.get_string("general.architecture");
  if (!arch) throw ConvertError(file, "metadata key 'general.architecture' is missing");
  Checkpoint checkpoint;
  checkpoint.origin = file;
  checkpoint.description = "GGUF " + *arch;
  InitConfig& c = checkpoint.config;
  c.arch_type = arch_of(*arch, contents, options, checkpoint.notes);
  c.activation = c.arch_type == 1 ? 0 : 1;
  c.has_attn_sub_norm = c.has_ffn_sub_norm = c.arch_type == 1;
  read_shapes(contents, *arch, c);
  checkpoint.naming = gguf_naming();
  checkpoint.permuted_qk = *arch == "llama";
  checkpoint.tensors = &contents.tensors;
  ModelExtras extras;
  extras.native_context = required_uint(contents.metadata, *arch + ".context_length");
  extras.eos_tokens = eos_tokens(contents.metadata);
  extras.rope_scaling = rope_scaling_of(contents.metadata, *arch);
  extras.rope_divisors = rope_divisors(contents);
  checkpoint.storage = gguf;
  checkpoint.export_tokenizer = [gguf](const path& to) {
    return write_gguf_tokenizer(gguf->contents.metadata, to).note;
  };
  finish_checkpoint(checkpoint, extras, options);
  return checkpoint;
}

}  // namespace quorvel::convert
