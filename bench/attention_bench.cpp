// Decode attention over a deep cache, the way the layers call it: one query
// row, 16 query heads sharing 8 key/value heads of 128 values, caches with
// room for 4352 positions, for 28 layers of distinct caches (about 500 MB,
// more than any cache level holds), at depths of 1024 and 4096 positions,
// for every kernel set this machine runs. One iteration is one token's
// attention in every layer on one thread; bytes/s counts each layer's key
// and value cache once, as the decode roofline does.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "runtime/aligned_buffer.h"
#include "runtime/bf16.h"
#include "runtime/kernel_base.h"
#include "runnable_kernel_sets.h"

namespace {

using quorvel::bf16;
using quorvel::kernels::KernelBase;

constexpr std::size_t kLayers = 28, kHeads = 16, kKvHeads = 8, kHeadDim = 128, kCapacity = 4352;
constexpr std::size_t kLayerCacheValues = kKvHeads * kHeadDim * kCapacity;  // keys, and values again
constexpr std::size_t kDepths[] = {1024, 4096};

// Every layer's key and value caches, filled with small random values.
struct DeepCache {
  quorvel::AlignedPtr<bf16> keys = quorvel::allocate_aligned_elements<bf16>(kLayers * kLayerCacheValues);
  quorvel::AlignedPtr<bf16> values = quorvel::allocate_aligned_elements<bf16>(kLayers * kLayerCacheValues);
  quorvel::AlignedPtr<bf16> query = quorvel::allocate_aligned_elements<bf16>(kHeads * kHeadDim);
  quorvel::AlignedPtr<bf16> out = quorvel::allocate_aligned_elements<bf16>(kHeads * kHeadDim);
  quorvel::AlignedPtr<float> work =
      quorvel::allocate_aligned_elements<float>(kHeads * (kHeadDim + quorvel::kernels::kAttentionBlock));

  DeepCache() {
    std::mt19937 engine(7);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    for (std::size_t i = 0; i < kLayers * kLayerCacheValues; ++i) {
      keys[i] = quorvel::narrow_nearest_even(value(engine));
      values[i] = quorvel::narrow_nearest_even(value(engine));
    }
    for (std::size_t i = 0; i < kHeads * kHeadDim; ++i) query[i] = quorvel::narrow_nearest_even(value(engine));
  }
};

void bench_attention(benchmark::State& state, const KernelBase* kernels, const DeepCache* cache, std::size_t depth) {
  constexpr std::size_t kGroup = kHeads / kKvHeads;
  for (auto _ : state) {
    for (std::size_t layer = 0; layer < kLayers; ++layer) {
      const bf16* keys = cache->keys.get() + layer * kLayerCacheValues;
      const bf16* values = cache->values.get() + layer * kLayerCacheValues;
      for (std::size_t h = 0; h < kHeads; ++h) {
        const std::size_t kv_head = h / kGroup;
        kernels->attention_bf16(cache->query.get() + h * kHeadDim, kHeads * kHeadDim, keys + kv_head * kHeadDim,
                                kKvHeads * kHeadDim, values + kv_head * kCapacity * kHeadDim, kCapacity,
                                cache->out.get() + h * kHeadDim, kHeads * kHeadDim, 1, depth, kHeadDim,
                                cache->work.get() + h * (kHeadDim + quorvel::kernels::kAttentionBlock));
      }
    }
    benchmark::ClobberMemory();
  }
  const double bytes = static_cast<double>(kLayers * 2 * kKvHeads * kHeadDim * depth * sizeof(bf16));
  state.counters["bytes/s"] =
      benchmark::Counter(bytes * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

}  // namespace

int main(int argc, char** argv) {
  const DeepCache cache;
  const std::vector<std::unique_ptr<KernelBase>> sets = runnable_kernel_sets();
  for (std::size_t depth : kDepths) {
    for (const std::unique_ptr<KernelBase>& set : sets) {
      const std::string name = std::string("attention_decode/") + set->name() + "/depth:" + std::to_string(depth);
      benchmark::RegisterBenchmark(name.c_str(), bench_attention, set.get(), &cache, depth)
          ->Unit(benchmark::kMillisecond);
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
