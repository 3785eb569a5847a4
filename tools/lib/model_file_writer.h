// Writes a synthetic "qmodel.tensors": the header, the section table and
// random weights for every object the model reads, in its read order.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "config/init_config.h"
#include "tools/lib/binary_writer.h"

namespace quorvel::tools {

inline constexpr char kModelFileName[] = "qmodel.tensors";

// One entry of the version-4 section table: packed as the kind byte and a
// 32-bit value, 5 bytes.
struct SectionEntry {
  std::uint8_t kind;
  std::uint32_t value;
};

struct ModelFileOptions {
  std::uint32_t version = 4;
  // Version 4 writes the count and the entries. Version 3 has no table: only
  // the header's count word carries the number, which readers ignore.
  std::vector<SectionEntry> sections;
  std::uint64_t seed = 1;
};

// The header and the section table, which the payload follows directly.
void write_model_header(BinaryWriter& out, std::int32_t arch, const ModelFileOptions& options);

// Throws std::invalid_argument for shapes the formats cannot hold (see
// unwritable_shape) and std::runtime_error when the file cannot be written.
void write_model_file(const std::filesystem::path& path, const InitConfig& config, const ModelFileOptions& options);

}  // namespace quorvel::tools
