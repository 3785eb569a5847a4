#include "tools/convert/checkpoint.h"

#include <algorithm>
#include <fstream>

#include "tools/convert/convert_error.h"
#include "tools/lib/rope_cache_writer.h"

namespace quorvel::convert {
namespace {

bool starts_with_gguf_magic(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  char magic[4] = {};
  return in.read(magic, 4) && std::string_view(magic, 4) == "GGUF";
}

void check_shapes(const Checkpoint& checkpoint) {
  const InitConfig& c = checkpoint.config;
  const std::pair<const char*, std::uint64_t> counts[] = {
      {"hidden size", c.hidden_dim}, {"intermediate size", c.intermediate_dim}, {"layer count", c.num_layers},
      {"head count", c.num_heads},   {"key/value head count", c.num_kv_heads},  {"vocabulary size", c.vocab_size},
      {"head dimension", c.head_dim}};
  for (const auto& [what, value] : counts) {
    if (value == 0) throw ConvertError(checkpoint.origin, std::string(what) + " is 0");
  }
  if (c.num_heads % c.num_kv_heads != 0) {
    throw ConvertError(checkpoint.origin, "head count " + std::to_string(c.num_heads) +
                                              " is not a multiple of the key/value head count " +
                                              std::to_string(c.num_kv_heads));
  }
  if (const auto problem = tools::unwritable_rope_shape(c.head_dim)) throw ConvertError(checkpoint.origin, *problem);
  if (const auto problem = tools::unwritable_shape(c)) throw ConvertError(checkpoint.origin, *problem);
}

}  // namespace

Checkpoint open_checkpoint(const std::filesystem::path& source, const ConvertOptions& options) {
  if (std::filesystem::is_directory(source)) return open_safetensors_checkpoint(source, options);
  if (std::filesystem::is_regular_file(source) && starts_with_gguf_magic(source)) {
    return open_gguf_checkpoint(source, options);
  }
  if (!std::filesystem::exists(source)) throw ConvertError(source, "does not exist");
  throw ConvertError(source, "is neither a checkpoint directory (config.json and .safetensors) nor a GGUF file");
}

void finish_checkpoint(Checkpoint& checkpoint, const ModelExtras& extras, const ConvertOptions& options) {
  InitConfig& c = checkpoint.config;
  check_shapes(checkpoint);
  checkpoint.native_context = extras.native_context;
  c.max_position_embeddings = std::min(extras.native_context, options.max_context);
  if (extras.eos_tokens.size() > c.eos_tokens.size()) {
    throw ConvertError(checkpoint.origin, "the model names " + std::to_string(extras.eos_tokens.size()) +
                                              " end-of-sequence tokens; the engine takes at most 8");
  }
  c.num_eos_tokens = extras.eos_tokens.size();
  std::copy(extras.eos_tokens.begin(), extras.eos_tokens.end(), c.eos_tokens.begin());
  if (extras.rope_scaling) checkpoint.rope_note = describe_rope_scaling(*extras.rope_scaling);
  if (!extras.rope_divisors.empty()) {
    if (extras.rope_divisors.size() != c.head_dim / 2) {
      throw ConvertError(checkpoint.origin,
                         "per-frequency rope factors: " + std::to_string(extras.rope_divisors.size()) +
                             " values for a head dimension of " + std::to_string(c.head_dim));
    }
    checkpoint.rope_note +=
        (checkpoint.rope_note.empty() ? "" : "; ") + std::string("per-frequency rope factors baked into rope.cache");
  }
  checkpoint.rope_frequencies =
      scaled_rope_frequencies(c.head_dim, c.rope_theta, extras.rope_scaling, extras.rope_divisors);
}

std::int32_t qwen3_arch(const ConvertOptions& options, std::vector<std::string>& notes) {
  if (!options.to) return 6;
  const bool q1_0 = *options.to == tools::WeightFormat::Q1_0;
  notes.push_back(std::string("warning: quantizing a bf16 model to ") + (q1_0 ? "q1_0_128" : "q1.58") +
                  " after training; the result is only as good as the model's training for it");
  return q1_0 ? 4 : 5;
}

}  // namespace quorvel::convert
