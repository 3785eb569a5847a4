// Writes "init.txt": the init-config block that describes a model directory,
// a count line followed by that many key=value lines, ready to be sent to the
// engine as its first block.
#pragma once

#include <filesystem>
#include <string>

#include "config/init_config.h"

namespace quorvel::tools {

inline constexpr char kInitTextFileName[] = "init.txt";

// Every key of the record in field order ("lora_dir" only when set), with
// values that parse back to the same record. Throws std::invalid_argument
// for a format no config text names (TERNARY).
std::string format_init_text(const InitConfig& config);

// Throws std::runtime_error when the file cannot be written.
void write_init_text(const std::filesystem::path& path, const InitConfig& config);

}  // namespace quorvel::tools
