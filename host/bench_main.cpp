// quorvel-bench: end-to-end prefill and decode speed of the engine on three
// generated models of real shapes, with 1 and 2 threads, put against the
// memory bandwidth measured in the same run.
//
//   quorvel-bench <engine binary> <model cache directory>
//
// Models are written once into the cache directory and reused.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "engine/init_config_parser.h"
#include "host/engine_process.h"
#include "host/memory_bandwidth.h"
#include "tools/lib/tool_commands.h"

namespace {

namespace fs = std::filesystem;
using quorvel::InitConfig;

constexpr std::size_t kPromptTokens = 128;
constexpr std::size_t kDecodeTokens = 64;

struct Shape {
  const char* name;
  std::vector<std::string> options;  // quorvel-make-model options
};

const std::vector<Shape> kShapes = {
    {"BitNet-2B (ternary)",
     {"--arch", "1", "--hidden", "2560", "--intermediate", "6912", "--layers", "30", "--heads", "20", "--kv-heads",
      "5", "--head-dim", "128", "--vocab", "128256", "--activation", "0", "--tied", "--max-pos", "256"}},
    {"Bonsai-1.7B (q1_0_128)",
     {"--arch", "4", "--hidden", "2048", "--intermediate", "6144", "--layers", "28", "--heads", "16", "--kv-heads",
      "8", "--head-dim", "128", "--vocab", "151936", "--max-pos", "256"}},
    {"Qwen3-0.6B (q8_0)",
     {"--arch", "6", "--hidden", "1024", "--intermediate", "3072", "--layers", "28", "--heads", "16", "--kv-heads",
      "8", "--head-dim", "128", "--vocab", "151936", "--tied", "--max-pos", "256"}},
};

std::string read_text(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

fs::path cached_model(const fs::path& cache, const Shape& shape) {
  fs::path dir = cache / shape.options[1];
  dir += "-" + shape.options[3];
  if (fs::exists(dir / "init.txt")) return dir;
  std::cerr << "writing " << shape.name << " to " << dir << "..." << std::endl;
  std::vector<std::string_view> args{dir.native()};
  for (const auto& o : shape.options) args.push_back(o);
  if (quorvel::tools::run_make_model(args, std::cerr) != 0) throw std::runtime_error("cannot write the model");
  return dir;
}

// The weight bytes one decoded token streams: every projection of every
// layer plus the unembedding table.
double weight_bytes_per_token(const InitConfig& c) {
  const double d = static_cast<double>(c.hidden_dim), I = static_cast<double>(c.intermediate_dim);
  const double q = static_cast<double>(c.head_dim * c.num_heads), kv = static_cast<double>(c.head_dim * c.num_kv_heads);
  const double weights = d * (2 * kv + q) + q * d + 3 * d * I;
  double per_weight = 0.25;                                  // ternary
  if (c.arch_type == 4) per_weight = 18.0 / 128.0;           // q1_0_128
  if (c.arch_type == 5) per_weight = 34.0 / 128.0;           // q1.58
  if (c.arch_type == 6) per_weight = 36.0 / 32.0;            // q8_0
  const double vocab = static_cast<double>((c.vocab_size + 31) / 32 * 32);
  const double unembed = c.arch_type == 4 ? vocab * d * 18.0 / 128.0 : vocab * (d + 4.0);  // q1 head or int8
  return weights * per_weight * static_cast<double>(c.num_layers) + unembed;
}

struct Speeds {
  double prefill;
  double decode;
};

Speeds run(const std::string& engine, const fs::path& model, unsigned threads) {
  std::string init = read_text(model / "init.txt");
  std::istringstream init_stream(init);
  const InitConfig config = quorvel::read_init_config(init_stream);
  // No end-of-sequence id, so every run decodes exactly kDecodeTokens tokens.
  init = std::to_string(std::stoi(init) + 2) + init.substr(init.find('\n')) + "eos_tokens=\nnum_threads=" +
         std::to_string(threads) + "\n";

  std::mt19937_64 random(11);
  std::string tokens;
  for (std::size_t i = 0; i < kPromptTokens; ++i) {
    if (i) tokens += ',';
    tokens += std::to_string(random() % config.vocab_size);
  }
  const std::string request = "3\ntokens=" + tokens + "\nmax_tokens=" + std::to_string(kDecodeTokens + 1) +
                              "\ntemperature=0\n";

  quorvel::host::EngineSession session({engine, model.string()});
  session.send(init);
  quorvel::host::wait_until_loaded(session);
  const auto answer = quorvel::host::ask_lines(session, request, kDecodeTokens + 3);
  session.finish();
  if (answer.lines.size() != kDecodeTokens + 3) throw std::runtime_error("the engine stopped early");
  auto seconds = [](auto d) { return std::chrono::duration<double>(d).count(); };
  return {static_cast<double>(kPromptTokens) / seconds(answer.arrivals.front() - answer.sent),
          static_cast<double>(kDecodeTokens) / seconds(answer.arrivals[kDecodeTokens] - answer.arrivals.front())};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "Usage: " << argv[0] << " <engine binary> <model cache directory>" << std::endl;
    return 1;
  }
  const double bandwidth[2] = {quorvel::host::measure_read_bandwidth(1), quorvel::host::measure_read_bandwidth(2)};
  std::printf("memory read bandwidth: %.1f GB/s (1 thread), %.1f GB/s (2 threads)\n\n", bandwidth[0], bandwidth[1]);
  std::printf("| model | threads | prefill tok/s | decode tok/s | weight MB/token | GB/s | %% of bandwidth |\n");
  std::printf("|---|---|---|---|---|---|---|\n");
  for (const Shape& shape : kShapes) {
    const fs::path model = cached_model(argv[2], shape);
    std::istringstream init(read_text(model / "init.txt"));
    const double bytes = weight_bytes_per_token(quorvel::read_init_config(init));
    for (unsigned threads : {1u, 2u}) {
      const Speeds s = run(argv[1], model, threads);
      const double gbps = bytes * s.decode / 1e9;
      std::printf("| %s | %u | %.1f | %.1f | %.0f | %.1f | %.0f %% |\n", shape.name, threads, s.prefill, s.decode,
                  bytes / 1e6, gbps, 100.0 * gbps / bandwidth[threads - 1]);
      std::fflush(stdout);
    }
  }
  return 0;
}
