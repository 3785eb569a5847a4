// The files the tools write, read by the engine's own loader: every
// architecture's model must consume the tensor file and the RoPE cache to
// their last byte, no more and no less.
#include <gtest/gtest.h>

#include <fstream>
#include <tuple>

#include "io/model_header.h"
#include "io/rope_header.h"
#include "models/model_base.h"
#include "tools/lib/model_file_writer.h"
#include "tools/lib/rope_cache_writer.h"
#include "tools/tool_test_files.h"

namespace quorvel::tools {
namespace {

using testing::TempDir;

class EngineLoad : public ::testing::TestWithParam<std::tuple<std::int32_t, bool, bool>> {};

TEST_P(EngineLoad, ConsumesBothFilesExactly) {
  const auto [arch, tied, bias] = GetParam();
  InitConfig config = testing::small_config(arch);
  config.tie_word_embeddings = tied;
  config.has_qkv_bias = bias;
  TempDir dir;
  write_model_file(dir.path() / kModelFileName, config, {.version = 4, .sections = {{5, 1}}, .seed = 9});
  write_rope_cache(dir.path() / kRopeCacheFileName, config.head_dim, config.max_position_embeddings, 10000.0);

  std::ifstream tensors(dir.path() / kModelFileName, std::ios::binary);
  std::ifstream rope(dir.path() / kRopeCacheFileName, std::ios::binary);
  ASSERT_TRUE(check_model_header(tensors, arch, nullptr));
  ASSERT_TRUE(check_rope_header(rope, kRopeCacheVersion));
  const auto model = create_model(tensors, rope, config);
  ASSERT_EQ(model->layers().size(), 2u);
  EXPECT_EQ(tensors.peek(), std::char_traits<char>::eof());
  EXPECT_EQ(rope.peek(), std::char_traits<char>::eof());
}

INSTANTIATE_TEST_SUITE_P(EveryArchitecture, EngineLoad,
                         ::testing::Combine(::testing::Range(1, 7), ::testing::Bool(), ::testing::Bool()));

}  // namespace
}  // namespace quorvel::tools
