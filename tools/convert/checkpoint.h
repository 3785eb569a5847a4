// A checkpoint opened for conversion: the engine config it describes, its
// rotary frequencies, and where each of the model's tensors lives in it.
// The two front ends (a safetensors directory, a GGUF file) fill this in;
// everything after works on it alone.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "config/init_config.h"
#include "tools/convert/rope_scaling.h"
#include "tools/convert/source_tensor.h"
#include "tools/lib/tensor_layout.h"

namespace quorvel::convert {

struct ConvertOptions {
  std::optional<tools::WeightFormat> to;  // --to: q1_0_128 or q1.58 for bf16 Qwen3 sources
  std::uint64_t max_context = 4096;
};

// How a packed ternary checkpoint's "weight_scale" relates to gamma.
enum class ScaleConvention {
  DIVIDE,    // the layer divides by weight_scale: gamma = 1 / weight_scale
  MULTIPLY,  // the layer multiplies by it: gamma = weight_scale
};

// Tensor names of one checkpoint family.
struct TensorNaming {
  std::string embedding, output, final_norm;
  std::string layer_prefix;                         // "model.layers." or "blk."
  std::string (*slot_name)(tools::LayerSlot slot);  // "self_attn.q_proj" / "attn_q"
  std::string weight_suffix = ".weight", bias_suffix = ".bias", scale_suffix = ".weight_scale";

  std::string layer_tensor(std::uint64_t layer, tools::LayerSlot slot, const std::string& suffix) const {
    return layer_prefix + std::to_string(layer) + "." + slot_name(slot) + suffix;
  }
};

struct Checkpoint {
  std::filesystem::path origin;  // the directory or file the user named
  std::string description;       // "safetensors BitNetForCausalLM", "GGUF llama"
  InitConfig config;             // complete; max_position_embeddings already capped
  std::uint64_t native_context = 0;
  std::vector<double> rope_frequencies;  // head_dim / 2 inverse frequencies, scaling applied
  std::string rope_note;                 // what scaling was baked in, or empty
  const TensorSet* tensors = nullptr;
  TensorNaming naming;
  bool permuted_qk = false;  // Q and K rows interleaved per head (GGUF "llama")
  ScaleConvention scale_convention = ScaleConvention::DIVIDE;
  std::vector<std::string> notes;  // said before converting
  // Puts the tokenizer files into a model directory; returns one line that
  // says what it did.
  std::function<std::string(const std::filesystem::path& dir)> export_tokenizer;
  std::shared_ptr<const void> storage;  // keeps the mapped files alive
};

// Either front end, chosen by what `source` is: a directory of safetensors
// with its config.json, or a GGUF file. Throws ConvertError.
Checkpoint open_checkpoint(const std::filesystem::path& source, const ConvertOptions& options);
Checkpoint open_safetensors_checkpoint(const std::filesystem::path& dir, const ConvertOptions& options);
Checkpoint open_gguf_checkpoint(const std::filesystem::path& file, const ConvertOptions& options);

// What the front ends share once they have read the shapes into
// `checkpoint.config`: the context cap, the EOS ids, the rotary frequencies,
// and the checks that the engine's formats can hold the shapes.
struct ModelExtras {
  std::uint64_t native_context = 0;
  std::vector<std::int64_t> eos_tokens;
  std::optional<RopeScaling> rope_scaling;
  std::vector<float> rope_divisors;  // per frequency, or empty
};
void finish_checkpoint(Checkpoint& checkpoint, const ModelExtras& extras, const ConvertOptions& options);

// The engine architecture a Qwen3-shaped model becomes: 6 (bf16) or, with
// --to, 4 (q1_0_128) or 5 (q1.58), noting the post-training quantization.
std::int32_t qwen3_arch(const ConvertOptions& options, std::vector<std::string>& notes);

}  // namespace quorvel::convert
