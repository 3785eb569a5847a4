// Which init configs start-up refuses itself and which it leaves to the
// model's own messages while building.
#include "models/model_requirements.h"

#include <gtest/gtest.h>

#include <functional>

namespace quorvel {
namespace {

InitConfig servable(ArchType arch) {
  InitConfig c;
  c.arch_type = static_cast<std::int32_t>(arch);
  c.hidden_dim = 256;
  c.intermediate_dim = 512;
  c.num_layers = 2;
  c.num_heads = 4;
  c.num_kv_heads = 2;
  c.head_dim = 128;
  c.vocab_size = 300;
  c.max_position_embeddings = 64;
  return c;
}

constexpr std::uint64_t kPlenty = std::uint64_t{1} << 40;

struct Case {
  const char* what;
  ArchType arch;
  std::function<void(InitConfig&)> change;
  std::optional<std::string> refusal;
};

TEST(StartUpRefusal, RefusesWhatNoLayerServesAndLeavesTheModelsOwnChecksToIt) {
  const std::vector<Case> cases = {
      {"servable", ArchType::BITNET, [](InitConfig&) {}, std::nullopt},
      {"q8_0 rows of any width", ArchType::QWEN3, [](InitConfig& c) { c.intermediate_dim = 33; }, std::nullopt},
      {"no layers: their widths do not matter", ArchType::BITNET,
       [](InitConfig& c) { c.num_layers = 0, c.intermediate_dim = 100; }, std::nullopt},
      {"no layers still need key/value heads", ArchType::LLAMA,
       [](InitConfig& c) { c.num_layers = 0, c.num_kv_heads = 0; }, "Error: num_kv_heads=0 must be at least 1"},
      {"the ternary projection reports the width", ArchType::BITNET,
       [](InitConfig& c) { c.num_kv_heads = 0, c.intermediate_dim = 100; }, std::nullopt},
      {"the per-head norm reports the width", ArchType::QWEN3,
       [](InitConfig& c) { c.head_dim = 100, c.num_heads = 3; }, std::nullopt},
      {"the loader reports the code", ArchType::BITNET, [](InitConfig& c) { c.arch_type = 7; }, std::nullopt},
      {"the layer array reports the count", ArchType::BITNET,
       [](InitConfig& c) { c.num_layers = ~std::uint64_t{0}; }, std::nullopt},
      {"grouped heads", ArchType::BONSAI, [](InitConfig& c) { c.num_heads = 3, c.num_kv_heads = 2, c.head_dim = 256; },
       "Error: num_heads=3 must be a multiple of num_kv_heads=2 (each key/value head serves a whole group of "
       "query heads)"},
      {"wrapping head product", ArchType::QWEN3, [](InitConfig& c) { c.num_heads = std::uint64_t{1} << 57; },
       "Error: the layer weights (num_layers=2 x hidden_dim=256, intermediate_dim=512, "
       "num_heads=144115188075855872 x head_dim=128, num_kv_heads=2) would be larger than 2^64 bytes"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    InitConfig config = servable(c.arch);
    c.change(config);
    EXPECT_EQ(start_up_refusal(config, kPlenty), c.refusal);
  }
}

TEST(StartUpRefusal, TheModelsOwnMessageWinsOnlyWhereBuildingReachesIt) {
  InitConfig config = servable(ArchType::LLAMA);
  config.hidden_dim = 100;  // the final norm refuses it, once the embedding is read
  EXPECT_EQ(start_up_refusal(config, 1 << 30), std::nullopt);
  config.vocab_size = 1'000'000'000;  // a 200 GB embedding would be allocated first
  const std::optional<std::string> refusal = start_up_refusal(config, 1 << 30);
  ASSERT_TRUE(refusal.has_value());
  EXPECT_EQ(refusal->rfind("Error: this model needs ", 0), 0u) << *refusal;
  config.arch_type = static_cast<std::int32_t>(ArchType::BONSAI);  // refused before its embedding is read
  EXPECT_EQ(start_up_refusal(config, 1 << 30), std::nullopt);
}

TEST(StartUpRefusal, AModelAboveTheMemoryNamesItsSizeAndTheMachines) {
  const InitConfig config = servable(ArchType::BONSAI);
  ASSERT_EQ(start_up_refusal(config, kPlenty), std::nullopt);
  const std::optional<std::string> refusal = start_up_refusal(config, 100000);
  ASSERT_TRUE(refusal.has_value());
  EXPECT_EQ(refusal->rfind("Error: this model needs ", 0), 0u) << *refusal;
  // 2 layers x 2 caches x 64 positions x 256 values x 2 bytes
  EXPECT_NE(refusal->find("key/value caches 0.1 MiB"), std::string::npos) << *refusal;
  EXPECT_NE(refusal->find("more than the 0.1 MiB this machine has"), std::string::npos) << *refusal;
}

}  // namespace
}  // namespace quorvel
