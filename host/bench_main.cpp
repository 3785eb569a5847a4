// quorvel-bench: end-to-end prefill and decode speed of the engine on three
// generated models of real shapes, with 1 and 2 threads, put against this
// machine's limits measured in the same run: the int8 multiply-add peak of
// the kernel set the engine runs, and the memory read bandwidth; then
// decode beside another program that keeps one CPU busy.
//
//   quorvel-bench [--kernel-set NAME] <engine binary> <model cache directory>
//
// --kernel-set starts the engines with QUORVEL_KERNEL_SET=NAME (a set of
// kernel_sets.h that this processor runs) and measures that set's peak.
//
// Models are written once into the cache directory and reused.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "host/bench_models.h"
#include "host/bench_session.h"
#include "host/busy_competitor.h"
#include "host/int8_peak.h"
#include "host/memory_bandwidth.h"
#include "host/processor_name.h"
#include "host/roofline.h"
#include "host/this_process.h"
#include "runtime/kernel_sets.h"
#include "tools/lib/utf8_path.h"

namespace {

namespace fs = std::filesystem;
using namespace quorvel::host;
using quorvel::InitConfig;

constexpr std::uint64_t kPrefillTokens = 128;
constexpr std::uint64_t kDecodePrompt = 8;
constexpr std::uint64_t kDecodeTokens = 32;
constexpr std::uint64_t kDepths[] = {0, 1024, 4096};
constexpr std::uint64_t kCompetitorDecodeTokens = 64;

struct MachineLimits {
  ReadBandwidth bandwidth[2];  // 1 and 2 threads
  Int8Peak peak[2];
};

MachineLimits measure_machine(const char* kernel_set) {
  std::cerr << "measuring read bandwidth and the int8 peak..." << std::endl;
  return {{measure_read_bandwidth(1), measure_read_bandwidth(2)},
          {measure_int8_peak(kernel_set, 1), measure_int8_peak(kernel_set, 2)}};
}

void print_limits(const char* kernel_set, const MachineLimits& m) {
  std::printf("processor: %s\n", processor_name().c_str());
  std::printf("kernel set: %s (the one the engines run)\n", kernel_set);
  std::printf("memory read bandwidth, %s loads: %.1f GB/s (1 thread), %.1f GB/s (2 threads)\n",
              m.bandwidth[0].loads, m.bandwidth[0].gb_per_s, m.bandwidth[1].gb_per_s);
  std::printf("int8 multiply-add peak, %s: %.0f G/s (1 thread), %.0f G/s (2 threads)\n\n", m.peak[0].instruction,
              m.peak[0].g_multiply_adds_per_second, m.peak[1].g_multiply_adds_per_second);
}

// The formulas of roofline.h, as the table's header states them.
void print_table_header() {
  const auto prefill = static_cast<unsigned long long>(kPrefillTokens);
  std::printf("prefill: a %llu-token prompt; multiply-adds per token = layers x (q, k, v, o, gate, up, down "
              "weights of a layer) + vocab x hidden / %llu (only the last token is unembedded)\n",
              prefill, prefill);
  std::printf("decode at depth D: %llu greedy tokens after a prompt of %llu tokens sent at kv_position=D; "
              "bytes per token = weight bytes + layers x 2 x kv_heads x head_dim x positions x 2 (bf16 key/value "
              "caches), positions = the mean attended, D + %.1f\n\n",
              static_cast<unsigned long long>(kDecodeTokens), static_cast<unsigned long long>(kDecodePrompt),
              mean_decode_positions(0, kDecodePrompt, kDecodeTokens));
  std::printf("load: bytes of qmodel.tensors / seconds from the engine's start to its first answer\n\n");
  std::printf("| model | threads | load GB/s | weight MB/token | prefill tok/s | %% of int8 peak | decode tok/s "
              "(%% of bandwidth) at depth 0 | at 1024 | at 4096 |\n|---|---|---|---|---|---|---|---|---|\n");
}

// One table row: a fresh engine with `threads` threads. The depth runs need
// every position below 4096 written once (the engine refuses a kv_position
// past the filled positions); after that, a request at kv_position=D
// computes attention over the D positions below it whatever they hold, so
// its decode runs at the speed of depth D without a prompt of D tokens.
void print_row(const std::string& engine, const BenchShape& shape, const fs::path& model, unsigned threads,
               const MachineLimits& m) {
  const auto start = std::chrono::steady_clock::now();
  const InitConfig config = read_model_config(model);
  BenchSession session(engine, model, threads);
  const double load_seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double load_gb_per_s = static_cast<double>(fs::file_size(model / "qmodel.tensors")) / load_seconds / 1e9;
  const double prefill = session.prefill_tokens_per_second(kPrefillTokens);
  const double prefill_g = prefill * prefill_multiply_adds_per_token(config, kPrefillTokens) / 1e9;
  std::printf("| %s | %u | %.2f | %.0f | %.1f | %.0f %% |", shape.name, threads, load_gb_per_s,
              weight_bytes_per_token(config) / 1e6, prefill,
              100.0 * prefill_g / m.peak[threads - 1].g_multiply_adds_per_second);
  session.fill_cache(kDepths[2]);
  for (std::uint64_t depth : kDepths) {
    const double decode = session.decode_tokens_per_second(depth, kDecodePrompt, kDecodeTokens);
    const double positions = mean_decode_positions(depth, kDecodePrompt, kDecodeTokens);
    const double bytes = weight_bytes_per_token(config) + kv_cache_bytes_per_token(config, positions);
    std::printf(" %.1f (%.0f %%) |", decode, 100.0 * bytes * decode / 1e9 / m.bandwidth[threads - 1].gb_per_s);
  }
  std::printf("\n");
  std::fflush(stdout);
  std::cerr << shape.name << ", " << threads << " thread(s): "
            << std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() << " s" << std::endl;
}

// Decode at depth 0 with 1 and 2 threads while another program keeps one CPU
// busy: a worker that is off its core must not make two threads slower than
// one.
void print_competitor_rows(const std::string& engine, const std::vector<fs::path>& models) {
  const BusyCompetitor competitor;
  std::printf("\ndecode beside a busy competitor (a thread spinning on CPU %d), depth 0, %llu tokens:\n\n",
              competitor.cpu(), static_cast<unsigned long long>(kCompetitorDecodeTokens));
  std::printf("| model | 1 thread tok/s | 2 threads tok/s | 2 threads / 1 |\n|---|---|---|---|\n");
  for (std::size_t i = 0; i < models.size(); ++i) {
    double decode[2];
    for (unsigned threads : {1u, 2u}) {
      BenchSession session(engine, models[i], threads);
      decode[threads - 1] = session.decode_tokens_per_second(0, kDecodePrompt, kCompetitorDecodeTokens);
    }
    std::printf("| %s | %.1f | %.1f | %.2f |\n", bench_shapes()[i].name, decode[0], decode[1], decode[1] / decode[0]);
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args = quorvel::host::program_arguments(argc, argv);
  const std::string program = args.front();
  args.erase(args.begin());
  if (args.size() == 4 && args[0] == "--kernel-set") {
    quorvel::host::set_environment_variable("QUORVEL_KERNEL_SET", args[1]);  // inherited by the engines started below
    args.erase(args.begin(), args.begin() + 2);
  }
  if (args.size() != 2) {
    std::cerr << "Usage: " << program << " [--kernel-set NAME] <engine binary> <model cache directory>" << std::endl;
    return 1;
  }
  const quorvel::kernels::KernelSetChoice& choice = quorvel::kernels::chosen_kernel_set();
  if (choice.set == nullptr) {
    std::cerr << choice.error << std::endl;
    return 1;
  }
  const char* kernel_set = choice.set->name;
  const MachineLimits limits = measure_machine(kernel_set);
  print_limits(kernel_set, limits);
  print_table_header();
  std::vector<fs::path> models;
  for (const BenchShape& shape : bench_shapes()) {
    models.push_back(cached_model(quorvel::tools::utf8_path(args[1]), shape));
    for (unsigned threads : {1u, 2u}) print_row(args[0], shape, models.back(), threads, limits);
  }
  print_competitor_rows(args[0], models);
  return 0;
}
