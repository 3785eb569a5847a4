// Writes "qmodel.lora" for a model directory: the adapter header, then for
// every layer seven target records (K, V, Q, O, FFN 1, FFN 2, down), each a
// flag byte and, for the targets that carry an adapter, bf16 factors A
// (in x rank) and B (rank x out). The factors come from the caller
// (write_lora_records), or are random (write_lora_file).
//
// Random factors are sized so that the correction is as large as the
// projection's own output: A's entries have RMS 1 / sqrt(in), so that every
// element of x * A has RMS near 1 for the unit-RMS rows that the projections
// receive, and B's entries RMS scale / sqrt(rank), so that x * A * B has
// RMS near `scale`. A scale of 1 changes what a model generates; a B of
// zeros changes nothing, which lets tests tell the adapter's arithmetic from
// its mere presence.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "config/init_config.h"
#include "tools/lib/tensor_layout.h"

namespace quorvel::tools {

inline constexpr char kLoraFileName[] = "qmodel.lora";
inline constexpr std::uint32_t kLoraTargetCount = 7;

// Which of a layer's seven projections carry an adapter, in record order.
using LoraTargetSet = std::array<bool, kLoraTargetCount>;

// The target names in record order: "k", "v", "q", "o", "ffn1", "ffn2", "down".
extern const std::array<std::string_view, kLoraTargetCount> kLoraTargetNames;

// "all", "none" (or nothing), or target names separated by commas; throws
// std::invalid_argument naming an unknown target.
LoraTargetSet parse_lora_targets(std::string_view text);

// One target's factors in the file's layout, as floats that the writer
// narrows to bf16 (nearest even): A is in_width rows of `rank` values, B
// `rank` rows of out_width values, both row-major.
struct LoraFactors {
  std::vector<float> a;
  std::vector<float> b;
};

// The factors of record `target` (record order) of `layer`, whose projection
// is `projection`; nullopt leaves the target without an adapter. Called once
// per record, in file order.
using LoraFactorSource =
    std::function<std::optional<LoraFactors>(std::uint64_t layer, std::uint32_t target, const LayerTensor& projection)>;

// The projections of a layer in record order, with their shapes.
std::vector<LayerTensor> lora_target_projections(const InitConfig& config);

// Writes the header for `rank` and every record from `factors`. Throws
// std::invalid_argument for factors of another size than the projection and
// rank ask for, and std::runtime_error when the file cannot be written.
void write_lora_records(const std::filesystem::path& path, const InitConfig& config, std::uint32_t rank,
                        const LoraFactorSource& factors);

struct LoraFileOptions {
  std::uint32_t rank = 8;
  // The targets of every layer, except the layers listed in layer_targets.
  LoraTargetSet targets = {true, true, true, true, true, true, true};
  std::map<std::uint64_t, LoraTargetSet> layer_targets;
  std::uint64_t seed = 1;
  double scale = 1.0;  // RMS of the correction for a unit-RMS input row
  bool zero_b = false;
};

// Why `options` do not fit the model (layer_targets naming a layer it does
// not have), or nullopt.
std::optional<std::string> unwritable_lora_targets(const InitConfig& config, const LoraFileOptions& options);

// Writes random factors. Throws std::invalid_argument for unwritable targets
// (before creating the file) and std::runtime_error when the file cannot be
// written.
void write_lora_file(const std::filesystem::path& path, const InitConfig& config, const LoraFileOptions& options);

}  // namespace quorvel::tools
