// The memory estimate that start-up compares with the machine, held against
// what loading a model really allocates: every heap allocation of this test
// program is counted, so a layer that gains a buffer the estimate does not
// know about shows up here.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <new>
#include <tuple>

#include "engine/model_runner.h"
#include "io/model_header.h"
#include "io/rope_header.h"
#include "models/model_base.h"
#include "models/model_memory.h"
#include "runtime/thread_pool.h"
#include "tools/lib/model_file_writer.h"
#include "tools/lib/rope_cache_writer.h"
#include "tools/tool_test_files.h"

namespace {

std::atomic<std::int64_t> g_live_bytes{0};
std::atomic<std::int64_t> g_peak_bytes{0};

// Each block carries its size and the pointer malloc gave in front of the
// caller's bytes, which start at the first multiple of the alignment past
// them (no aligned allocation function is common to every platform).
struct BlockHeader {
  std::size_t size;
  void* raw;
};

void* counted_new(std::size_t size, std::size_t alignment) {
  alignment = std::max(alignment, alignof(std::max_align_t));
  void* raw = std::malloc(sizeof(BlockHeader) + alignment + size);
  if (raw == nullptr) throw std::bad_alloc();
  const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(raw) + sizeof(BlockHeader);
  auto* block = reinterpret_cast<BlockHeader*>((first + alignment - 1) / alignment * alignment);
  block[-1] = {size, raw};
  const std::int64_t live = g_live_bytes += static_cast<std::int64_t>(size);
  std::int64_t peak = g_peak_bytes.load();
  while (live > peak && !g_peak_bytes.compare_exchange_weak(peak, live)) {
  }
  return block;
}

void counted_delete(void* p) {
  if (p == nullptr) return;
  const BlockHeader header = static_cast<BlockHeader*>(p)[-1];
  g_live_bytes -= static_cast<std::int64_t>(header.size);
  std::free(header.raw);
}

}  // namespace

void* operator new(std::size_t size) { return counted_new(size, alignof(std::max_align_t)); }
void* operator new[](std::size_t size) { return counted_new(size, alignof(std::max_align_t)); }
void* operator new(std::size_t size, std::align_val_t a) { return counted_new(size, static_cast<std::size_t>(a)); }
void* operator new[](std::size_t size, std::align_val_t a) { return counted_new(size, static_cast<std::size_t>(a)); }
void operator delete(void* p) noexcept { counted_delete(p); }
void operator delete[](void* p) noexcept { counted_delete(p); }
void operator delete(void* p, std::size_t) noexcept { counted_delete(p); }
void operator delete[](void* p, std::size_t) noexcept { counted_delete(p); }
void operator delete(void* p, std::align_val_t) noexcept { counted_delete(p); }
void operator delete[](void* p, std::align_val_t) noexcept { counted_delete(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { counted_delete(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { counted_delete(p); }

namespace quorvel::tools {
namespace {

using testing::TempDir;

// Shapes where the tables dwarf the bookkeeping: the query rows are wider
// than the feed-forward rows, so the buffers follow the widest row.
InitConfig config_for(std::int32_t arch, bool tied, QuantFormat unembed) {
  InitConfig config = testing::small_config(arch);
  config.num_layers = 3;
  config.num_kv_heads = 2;
  config.vocab_size = 1001;
  config.max_position_embeddings = 200;
  config.tie_word_embeddings = tied;
  config.has_qkv_bias = !tied;
  config.unembed_quant = unembed;
  return config;
}

class ModelMemoryEstimate : public ::testing::TestWithParam<std::tuple<std::int32_t, bool, QuantFormat>> {};

TEST_P(ModelMemoryEstimate, CoversWhatLoadingAllocatesWithoutOvercounting) {
  const auto [arch, tied, unembed] = GetParam();
  const InitConfig config = config_for(arch, tied, unembed);
  TempDir dir;
  write_model_file(dir.path() / kModelFileName, config, {.version = 3, .sections = {}, .seed = 3});
  write_rope_cache(dir.path() / kRopeCacheFileName, config.head_dim, config.max_position_embeddings, 10000.0);
  std::ifstream tensors(dir.path() / kModelFileName, std::ios::binary);
  std::ifstream rope(dir.path() / kRopeCacheFileName, std::ios::binary);
  ASSERT_TRUE(check_model_header(tensors, arch, nullptr));
  ASSERT_TRUE(check_rope_header(rope, kRopeCacheVersion));
  ThreadPool::instance();  // the workers' own allocations are not the model's

  const std::int64_t before = g_live_bytes.load();
  g_peak_bytes = before;
  const auto model = create_model(tensors, rope, config);
  const ModelRunner runner(*model);
  const auto peak = static_cast<double>(g_peak_bytes.load() - before);

  // The estimate also counts the request loop's token history, which is
  // not allocated here; everything else must be within a few percent.
  const ModelMemory estimate = estimate_model_memory(config, thread_count());
  const auto history = static_cast<double>(config.max_position_embeddings * sizeof(std::int64_t));
  const double estimated = static_cast<double>(estimate.total()) - history;
  EXPECT_GE(estimated, peak * 0.97) << "allocated at peak " << peak;
  EXPECT_LE(estimated, peak * 1.10) << "allocated at peak " << peak;
}

INSTANTIATE_TEST_SUITE_P(EveryArchitecture, ModelMemoryEstimate,
                         ::testing::Combine(::testing::Range(1, 7), ::testing::Bool(),
                                            ::testing::Values(QuantFormat::INT8, QuantFormat::Q6_K)));

TEST(ModelMemoryEstimateOverflow, NamesThePartAndItsKeys) {
  InitConfig config = config_for(1, true, QuantFormat::INT8);
  EXPECT_EQ(estimate_model_memory(config, 2).overflowing_part, "");
  config.max_position_embeddings = std::uint64_t{1} << 60;
  EXPECT_EQ(estimate_model_memory(config, 2).overflowing_part,
            "the key/value caches (num_layers=3 x max_position_embeddings=1152921504606846976 x num_kv_heads=2 x "
            "head_dim=128)");
  config.max_position_embeddings = 200;
  config.num_heads = std::uint64_t{1} << 62;
  EXPECT_EQ(estimate_model_memory(config, 2).overflowing_part,
            "the layer weights (num_layers=3 x hidden_dim=256, intermediate_dim=384, num_heads=4611686018427387904 x "
            "head_dim=128, num_kv_heads=2)");
  EXPECT_EQ(estimate_model_memory(config, 2).total(), kSizeOverflow);
}

}  // namespace
}  // namespace quorvel::tools
