// The synthetic model file: its header and section table byte for byte, and
// a payload whose size matches what each architecture's loader reads,
// computed here from the shapes alone.
#include "tools/lib/model_file_writer.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "io/model_header.h"
#include "tools/tool_test_files.h"

namespace quorvel::tools {
namespace {

using testing::read_file;
using testing::small_config;
using testing::TempDir;
using testing::value_at;

std::uint64_t table_bytes(const InitConfig& c) {
  const std::uint64_t rows = c.vocab_size;
  if (c.arch_type == 4) return rows * (c.hidden_dim / 128) * 18;
  if (c.arch_type == 5) return rows * (c.hidden_dim / 128) * 34;
  return rows * c.hidden_dim * 2;
}

// The engine's own header check passes and leaves the stream where the
// weights begin.
void expect_engine_accepts(const std::filesystem::path& path, std::int32_t arch, std::streamoff payload_start) {
  std::ifstream in(path, std::ios::binary);
  ModelFileInfo info;
  ASSERT_TRUE(check_model_header(in, arch, &info));
  EXPECT_EQ(in.tellg(), payload_start);
  EXPECT_EQ(info.arch, arch);
}

// Walks a file in the read order of the loaders, written out here per
// architecture, and checks that each item looks like what the loader expects
// there: norms near 1, positive scales of modest size, bounded weights and
// biases. A tensor written out of order lands where another kind is expected.
class PayloadWalk {
 public:
  PayloadWalk(const InitConfig& config, std::vector<std::uint8_t> bytes, std::size_t start)
      : c_(config), bytes_(std::move(bytes)), at_(start) {}

  void skip(std::uint64_t count) { at_ += count; }

  void norm(std::uint64_t width) {
    for (std::uint64_t i = 0; i < width; ++i) {
      const float w = bf16_value(at_ + 2 * i);
      ASSERT_TRUE(w >= 0.89f && w <= 1.11f) << "norm weight " << w << " at byte " << at_ + 2 * i;
    }
    at_ += width * 2;
  }

  void linear(std::uint64_t in, std::uint64_t out, bool bias) {
    if (c_.arch_type <= 3) {
      const double gamma = value_at<double>(bytes_, at_);
      ASSERT_TRUE(gamma > 0.0 && gamma < 2.0) << "gamma " << gamma << " at byte " << at_;
      at_ += 8 + in * out / 4;
    } else if (c_.arch_type <= 5) {
      const std::uint64_t block = c_.arch_type == 4 ? 18 : 34;
      for (std::uint64_t b = 0; b < out * in / 128; ++b) scale(at_ + b * block + block - 2);
      at_ += out * in / 128 * block;
    } else {
      small_values(in * out, 1.5f);
    }
    if (bias) small_values(out, 0.11f);  // 0.1 itself rounds up in bf16
  }

  void layer() {
    const std::uint64_t d = c_.hidden_dim, hd = c_.num_heads * c_.head_dim;
    const bool b = c_.has_qkv_bias;
    norm(d);
    if (c_.arch_type == 1) norm(hd);
    linear(d, c_.num_kv_heads * c_.head_dim, b);  // K
    linear(d, c_.num_kv_heads * c_.head_dim, b);  // V
    linear(d, hd, b);                             // Q
    if (c_.arch_type >= 4) {
      norm(c_.head_dim);
      norm(c_.head_dim);
    }
    linear(hd, d, false);  // O
    norm(d);
    linear(d, c_.intermediate_dim, false);
    linear(d, c_.intermediate_dim, false);
    if (c_.arch_type == 1) norm(c_.intermediate_dim);
    linear(c_.intermediate_dim, d, false);  // down
  }

  std::size_t position() const { return at_; }

 private:
  float bf16_value(std::size_t offset) const {
    return std::bit_cast<float>(static_cast<std::uint32_t>(value_at<std::uint16_t>(bytes_, offset)) << 16);
  }
  void scale(std::size_t offset) const {
    const float d = bf16_value(offset);
    ASSERT_TRUE(d > 0.0f && d < 2.0f) << "block scale " << d << " at byte " << offset;
  }
  void small_values(std::uint64_t count, float bound) {
    for (std::uint64_t i = 0; i < count; ++i) {
      const float v = bf16_value(at_ + 2 * i);
      ASSERT_TRUE(std::fabs(v) <= bound) << "value " << v << " at byte " << at_ + 2 * i;
    }
    at_ += count * 2;
  }

  const InitConfig& c_;
  std::vector<std::uint8_t> bytes_;
  std::size_t at_;
};

class ModelFileLayout : public ::testing::TestWithParam<std::tuple<std::int32_t, bool, bool>> {};

// Both header versions: the engine accepts the header, and the payload after
// it holds exactly the items the loaders read, in their order, to the last byte.
TEST_P(ModelFileLayout, EveryItemSitsWhereTheLoaderReadsIt) {
  const auto [arch, tied, bias] = GetParam();
  InitConfig config = small_config(arch);
  config.tie_word_embeddings = tied;
  config.has_qkv_bias = bias;
  TempDir dir;
  const std::pair<ModelFileOptions, std::size_t> versions[] = {
      {{.version = 3, .sections = {}, .seed = 5}, 16},
      {{.version = 4, .sections = {{1, 0}, {3, 9}}, .seed = 5}, 16 + 2 * 5},
  };
  for (const auto& [options, payload_start] : versions) {
    SCOPED_TRACE(options.version);
    const auto path = dir.path() / "m";
    write_model_file(path, config, options);
    expect_engine_accepts(path, arch, static_cast<std::streamoff>(payload_start));
    PayloadWalk walk(config, read_file(path), payload_start);
    walk.skip((tied ? 1 : 2) * table_bytes(config));
    walk.norm(config.hidden_dim);
    for (std::uint64_t i = 0; i < config.num_layers && !HasFatalFailure(); ++i) walk.layer();
    EXPECT_EQ(walk.position(), std::filesystem::file_size(path));
  }
}

INSTANTIATE_TEST_SUITE_P(EveryArchitecture, ModelFileLayout,
                         ::testing::Combine(::testing::Range(1, 7), ::testing::Bool(), ::testing::Bool()));

TEST(ModelFileWriter, ZeroLayersHoldOnlyTablesAndFinalNorm) {
  InitConfig config = small_config(2);
  config.num_layers = 0;
  TempDir dir;
  write_model_file(dir.path() / "m", config, {});
  EXPECT_EQ(std::filesystem::file_size(dir.path() / "m"), 16 + 2 * 37 * 256 * 2 + 256 * 2);
}

TEST(ModelFileWriter, Version4HeaderPacksTheSectionTable) {
  TempDir dir;
  write_model_file(dir.path() / "m", small_config(3), {.version = 4, .sections = {{2, 7}, {3, 0xDEADBEEF}}, .seed = 1});
  const auto bytes = read_file(dir.path() / "m");
  ASSERT_GE(bytes.size(), 26u);
  EXPECT_EQ(std::memcmp(bytes.data(), "QVLM", 4), 0);
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 4), 4u);
  EXPECT_EQ(value_at<std::int32_t>(bytes, 8), 3);
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 12), 2u);
  EXPECT_EQ(bytes[16], 2);
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 17), 7u);
  EXPECT_EQ(bytes[21], 3);
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 22), 0xDEADBEEFu);

  expect_engine_accepts(dir.path() / "m", 3, 26);
}

// A version-3 reader takes 16 header bytes whatever the count word says, so
// the count is kept (a reader must ignore it) but no table follows.
TEST(ModelFileWriter, Version3KeepsTheCountWordWithoutATable) {
  TempDir dir;
  const InitConfig config = small_config(1);
  write_model_file(dir.path() / "m", config, {.version = 3, .sections = {{2, 7}}, .seed = 1});
  const auto bytes = read_file(dir.path() / "m");
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 4), 3u);
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 12), 1u);
  write_model_file(dir.path() / "plain", config, {.version = 3, .sections = {}, .seed = 1});
  EXPECT_EQ(bytes.size(), std::filesystem::file_size(dir.path() / "plain"));
  expect_engine_accepts(dir.path() / "m", 1, 16);
}

TEST(ModelFileWriter, TheSeedFixesEveryByte) {
  TempDir dir;
  const InitConfig config = small_config(5);
  write_model_file(dir.path() / "a", config, {.version = 4, .sections = {}, .seed = 11});
  write_model_file(dir.path() / "b", config, {.version = 4, .sections = {}, .seed = 11});
  write_model_file(dir.path() / "c", config, {.version = 4, .sections = {}, .seed = 12});
  const auto a = read_file(dir.path() / "a");
  EXPECT_EQ(a, read_file(dir.path() / "b"));
  const auto c = read_file(dir.path() / "c");
  ASSERT_EQ(a.size(), c.size());
  EXPECT_NE(a, c);
  EXPECT_TRUE(std::equal(a.begin(), a.begin() + 16, c.begin()));  // same header
}

TEST(ModelFileWriter, RefusesUnpackableShapesBeforeCreatingTheFile) {
  TempDir dir;
  InitConfig config = small_config(4);
  config.intermediate_dim = 200;  // the down projection's rows would split a block
  EXPECT_THROW(write_model_file(dir.path() / "m", config, {}), std::invalid_argument);
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "m"));
  config.arch_type = 6;  // q8_0 sources are plain bf16 and take any width
  EXPECT_NO_THROW(write_model_file(dir.path() / "m", config, {}));
}

}  // namespace
}  // namespace quorvel::tools
