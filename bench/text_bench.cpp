// Speed of the host tokenizer on the published Llama 3 and Qwen3 tokenizer.json files: the time to load
// Llama 3's (280,000 merges), and encoding throughput on English prose and on CJK text, each a sample
// repeated to 1 MB. bench/text/reference_speed.mjs times the JavaScript tokenizer on the same text.
#include <benchmark/benchmark.h>

#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "host/text/tokenizer.h"

namespace {

using quorvel::text::Tokenizer;

constexpr std::size_t kTextBytes = 1 << 20;

std::string repeated_sample(const char* path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream sample;
  sample << in.rdbuf();
  std::string text;
  while (text.size() < kTextBytes) text += sample.str() + "\n";
  return text;
}

const Tokenizer& tokenizer(const char* path) {
  static std::map<std::string, std::unique_ptr<Tokenizer>> loaded;
  auto& slot = loaded[path];
  if (!slot) slot = std::make_unique<Tokenizer>(path);
  return *slot;
}

void load_llama3(benchmark::State& state) {
  for (auto _ : state) {
    Tokenizer loaded(QUORVEL_LLAMA3_TOKENIZER);
    benchmark::DoNotOptimize(&loaded);
  }
}

void encode(benchmark::State& state, const char* tokenizer_path, const char* sample_path) {
  const Tokenizer& chosen = tokenizer(tokenizer_path);
  const std::string text = repeated_sample(sample_path);
  std::size_t ids = 0;
  for (auto _ : state) ids = chosen.encode(text).size();
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
  state.counters["bytes_per_token"] = static_cast<double>(text.size()) / static_cast<double>(ids);
}

BENCHMARK(load_llama3)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK_CAPTURE(encode, llama3_english, QUORVEL_LLAMA3_TOKENIZER, QUORVEL_ENGLISH_SAMPLE)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode, llama3_cjk, QUORVEL_LLAMA3_TOKENIZER, QUORVEL_CJK_SAMPLE)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode, qwen3_english, QUORVEL_QWEN3_TOKENIZER, QUORVEL_ENGLISH_SAMPLE)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode, qwen3_cjk, QUORVEL_QWEN3_TOKENIZER, QUORVEL_CJK_SAMPLE)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
