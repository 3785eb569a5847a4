#include "host/bench_models.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "engine/init_config_parser.h"
#include "tools/lib/tool_commands.h"

namespace quorvel::host {
namespace {

namespace fs = std::filesystem;

const std::string kMaxPos = std::to_string(kBenchMaxPositions);

std::string option_value(const BenchShape& shape, std::string_view option) {
  const auto it = std::find(shape.options.begin(), shape.options.end(), option);
  if (it == shape.options.end() || it + 1 == shape.options.end()) {
    throw std::invalid_argument(std::string(shape.name) + " has no " + std::string(option) + " value");
  }
  return *(it + 1);
}

}  // namespace

const std::vector<BenchShape>& bench_shapes() {
  static const std::vector<BenchShape> shapes = {
      {"BitNet-2B (ternary)",
       {"--arch", "1", "--hidden", "2560", "--intermediate", "6912", "--layers", "30", "--heads", "20", "--kv-heads",
        "5", "--head-dim", "128", "--vocab", "128256", "--activation", "0", "--tied", "--max-pos", kMaxPos}},
      {"Bonsai-1.7B (q1_0_128)",
       {"--arch", "4", "--hidden", "2048", "--intermediate", "6144", "--layers", "28", "--heads", "16", "--kv-heads",
        "8", "--head-dim", "128", "--vocab", "151936", "--max-pos", kMaxPos}},
      {"Qwen3-0.6B (q8_0)",
       {"--arch", "6", "--hidden", "1024", "--intermediate", "3072", "--layers", "28", "--heads", "16", "--kv-heads",
        "8", "--head-dim", "128", "--vocab", "151936", "--tied", "--max-pos", kMaxPos}},
  };
  return shapes;
}

std::string model_directory_name(const BenchShape& shape) {
  return option_value(shape, "--arch") + "-" + option_value(shape, "--hidden") + "-pos" +
         option_value(shape, "--max-pos");
}

fs::path cached_model(const fs::path& cache, const BenchShape& shape) {
  const fs::path dir = cache / model_directory_name(shape);
  if (fs::exists(dir / "init.txt")) return dir;
  std::cerr << "writing " << shape.name << " to " << dir << "..." << std::endl;
  const std::string dir_text = dir.string();
  std::vector<std::string_view> args{dir_text};
  for (const auto& o : shape.options) args.push_back(o);
  if (tools::run_make_model(args, std::cerr) != 0) throw std::runtime_error("cannot write the model");
  return dir;
}

std::string read_init_text(const fs::path& model) {
  std::ifstream in(model / "init.txt", std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

InitConfig read_model_config(const fs::path& model) {
  std::istringstream init(read_init_text(model));
  return read_init_config(init);
}

}  // namespace quorvel::host
