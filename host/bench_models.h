// The generated models quorvel-bench runs: three real shapes, written once
// into a cache directory and reused by later runs.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "config/init_config.h"

namespace quorvel::host {

// Context of every bench model: room for a request at cache depth 4096 with
// its prompt and decoded tokens.
inline constexpr std::uint64_t kBenchMaxPositions = 4352;

struct BenchShape {
  const char* name;
  std::vector<std::string> options;  // quorvel-make-model options
};

const std::vector<BenchShape>& bench_shapes();

// The cache entry's directory name: "<arch>-<hidden>-pos<max positions>",
// so that a model written with another context is never taken for this one.
// Throws std::invalid_argument when an option is missing.
std::string model_directory_name(const BenchShape& shape);

// The shape's model in `cache`, written first when absent.
std::filesystem::path cached_model(const std::filesystem::path& cache, const BenchShape& shape);

// The init.txt text of a model directory, and its parsed record.
std::string read_init_text(const std::filesystem::path& model);
InitConfig read_model_config(const std::filesystem::path& model);

}  // namespace quorvel::host
