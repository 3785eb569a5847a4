// Turns a PEFT LoRA adapter (adapter_config.json + adapter_model.safetensors)
// for a converted model into that model's "qmodel.lora": per layer the seven
// targets K, V, Q, O, FFN 1 (gate), FFN 2 (up), down, each present or not,
// with A transposed to in x rank, B transposed to rank x out and the scale
// (lora_alpha / r, or / sqrt(r) with rsLoRA) folded into B.
#pragma once

#include <filesystem>
#include <ostream>

#include "config/init_config.h"

namespace quorvel::convert {

struct AdapterSummary {
  std::uint32_t rank = 0;            // the file's rank: the largest module rank
  std::uint64_t modules = 0;         // target records written with factors
  std::uint64_t padded_modules = 0;  // of those, modules of a smaller rank padded with zero columns
};

// Checks every factor against `model` (the converted model's init config)
// and writes `out_path`. Throws ConvertError naming the file and tensor for
// a missing or mistyped factor, a shape that disagrees with the model, a
// target or layer the model does not have, and an unsupported config
// (DoRA, bias training, modules outside the seven targets).
AdapterSummary convert_peft_adapter(const std::filesystem::path& adapter_dir, const InitConfig& model,
                                    const std::filesystem::path& out_path);

}  // namespace quorvel::convert
