// The synthetic LoRA adapter: its header and record sizes byte for byte, the
// magnitudes of its factors, and the engine's loader reading it to the last
// byte with the adapters on exactly the chosen targets, for every
// architecture.
#include "tools/lib/lora_file_writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "io/lora_header.h"
#include "io/model_header.h"
#include "io/rope_header.h"
#include "models/model_base.h"
#include "models/transformer_layers.h"
#include "tools/lib/init_text_writer.h"
#include "tools/lib/make_model_options.h"
#include "tools/lib/model_file_writer.h"
#include "tools/lib/rope_cache_writer.h"
#include "tools/lib/tool_commands.h"
#include "tools/tool_test_files.h"

namespace quorvel::tools {
namespace {

using testing::read_file;
using testing::small_config;
using testing::TempDir;
using testing::value_at;


// (in, out) of K, V, Q, O, FFN 1, FFN 2, down for small_config.
const std::array<std::pair<std::uint64_t, std::uint64_t>, 7> kShapes = {
    {{256, 128}, {256, 128}, {256, 512}, {512, 256}, {256, 384}, {256, 384}, {384, 256}}};

const LoraTargetSet kNone{};

LoraFileOptions adapter_options(std::uint32_t rank, const LoraTargetSet& targets) {
  LoraFileOptions options;
  options.rank = rank;
  options.targets = targets;
  return options;
}
const LoraTargetSet kKAndDown{true, false, false, false, false, false, true};

TEST(LoraTargets, ParseNamesAllAndNone) {
  EXPECT_EQ(parse_lora_targets("none"), kNone);
  EXPECT_EQ(parse_lora_targets(""), kNone);
  EXPECT_EQ(parse_lora_targets("all"), (LoraTargetSet{true, true, true, true, true, true, true}));
  EXPECT_EQ(parse_lora_targets("down,k"), kKAndDown);
  EXPECT_EQ(parse_lora_targets("ffn2"), (LoraTargetSet{false, false, false, false, false, true, false}));
  EXPECT_THROW(parse_lora_targets("k,up"), std::invalid_argument);
  EXPECT_THROW(parse_lora_targets("k,"), std::invalid_argument);
}

TEST(LoraFileWriter, HeaderThenSevenRecordsPerLayer) {
  TempDir dir;
  const InitConfig config = small_config(1);
  LoraFileOptions options = adapter_options(3, kKAndDown);
  options.layer_targets[1] = kNone;
  write_lora_file(dir.path() / kLoraFileName, config, options);
  const std::vector<std::uint8_t> bytes = read_file(dir.path() / kLoraFileName);
  ASSERT_GE(bytes.size(), 24u);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 4), "QVLA");
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 4), 4u);
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 8), 0u);
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 12), 3u);
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 16), 2u);
  EXPECT_EQ(value_at<std::int32_t>(bytes, 20), 7);
  // Layer 0: K (flag, A 256x3, B 3x128), five empty records, down (A 384x3,
  // B 3x256). Layer 1: seven empty records.
  const std::size_t k_record = 1 + 2 * 3 * (256 + 128);
  const std::size_t down_record = 1 + 2 * 3 * (384 + 256);
  ASSERT_EQ(bytes.size(), 24 + k_record + 5 + down_record + 7);
  EXPECT_EQ(bytes[24], 1);
  for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(bytes[24 + k_record + i], 0) << i;
  EXPECT_EQ(bytes[24 + k_record + 5], 1);
  for (std::size_t i = bytes.size() - 7; i < bytes.size(); ++i) EXPECT_EQ(bytes[i], 0) << i;
}

TEST(LoraFileWriter, LayerTargetsMustNameExistingLayers) {
  TempDir dir;
  LoraFileOptions options;
  options.layer_targets[2] = kNone;
  EXPECT_THROW(write_lora_file(dir.path() / kLoraFileName, small_config(1), options), std::invalid_argument);
}

// RMS of `count` bf16 values from byte `offset`.
double rms_at(const std::vector<std::uint8_t>& bytes, std::size_t offset, std::size_t count) {
  double sum = 0.0;
  for (std::size_t i = 0; i < count; ++i) {
    const double v = widen(bf16{value_at<std::uint16_t>(bytes, offset + 2 * i)});
    sum += v * v;
  }
  return std::sqrt(sum / static_cast<double>(count));
}

// A's entries have RMS 1 / sqrt(in), B's scale / sqrt(rank); a zero B is
// all zero bytes while A stays random.
TEST(LoraFileWriter, FactorMagnitudes) {
  TempDir dir;
  const InitConfig config = small_config(6);
  const LoraTargetSet k_only{true, false, false, false, false, false, false};
  LoraFileOptions options = adapter_options(16, k_only);
  options.seed = 5;
  options.scale = 2.0;
  for (bool zero_b : {false, true}) {
    options.zero_b = zero_b;
    write_lora_file(dir.path() / kLoraFileName, config, options);
    const std::vector<std::uint8_t> bytes = read_file(dir.path() / kLoraFileName);
    const std::size_t a = 25, a_count = 256 * 16, b = a + 2 * a_count, b_count = 16 * 128;
    EXPECT_NEAR(rms_at(bytes, a, a_count), 1.0 / 16.0, 0.05 / 16.0);
    if (zero_b) {
      for (std::size_t i = b; i < b + 2 * b_count; ++i) ASSERT_EQ(bytes[i], 0) << i;
    } else {
      EXPECT_NEAR(rms_at(bytes, b, b_count), 2.0 / 4.0, 0.05 / 4.0);
    }
  }
}

class LoraFileLoad : public ::testing::TestWithParam<std::int32_t> {};

// The engine reads the written adapter to its last byte and finds adapters
// on exactly the chosen targets of each layer.
TEST_P(LoraFileLoad, TheEngineReadsEveryRecordOntoItsTarget) {
  TempDir dir;
  const InitConfig config = small_config(GetParam());
  const std::vector<LoraTargetSet> targets = {kKAndDown, parse_lora_targets("v,q,o,ffn1,ffn2")};
  LoraFileOptions adapter = adapter_options(2, targets[0]);
  adapter.layer_targets[1] = targets[1];
  write_model_file(dir.path() / kModelFileName, config, {});
  write_rope_cache(dir.path() / kRopeCacheFileName, config.head_dim, config.max_position_embeddings, 10000.0);
  write_lora_file(dir.path() / kLoraFileName, config, adapter);

  std::ifstream tensors(dir.path() / kModelFileName, std::ios::binary);
  std::ifstream rope(dir.path() / kRopeCacheFileName, std::ios::binary);
  std::ifstream lora(dir.path() / kLoraFileName, std::ios::binary);
  ASSERT_TRUE(check_model_header(tensors, config.arch_type, nullptr));
  ASSERT_TRUE(check_rope_header(rope, kRopeCacheVersion));
  ASSERT_TRUE(check_lora_header(lora, kLoraFileVersion));
  const auto model = create_model(tensors, rope, config);
  testing::CapturedCerr quiet;
  model->load_lora(lora);
  EXPECT_EQ(lora.peek(), std::char_traits<char>::eof());
  for (std::uint64_t layer = 0; layer < 2; ++layer) {
    const auto& base = *model->layers()[layer];
    std::array<layers::AutoLinear*, 7> projections{};
    if (const auto* ternary = dynamic_cast<const layers::TransformerLayer<layers::TernaryProjections>*>(&base)) {
      projections = ternary->projections_in_lora_order();
    } else if (const auto* q1 = dynamic_cast<const layers::TransformerLayer<layers::Q1Projections>*>(&base)) {
      projections = q1->projections_in_lora_order();
    } else if (const auto* q1_58 = dynamic_cast<const layers::TransformerLayer<layers::Q1_58Projections>*>(&base)) {
      projections = q1_58->projections_in_lora_order();
    } else {
      projections = dynamic_cast<const layers::TransformerLayer<layers::Q8_0Projections>&>(base)
                        .projections_in_lora_order();
    }
    for (std::size_t t = 0; t < 7; ++t) {
      EXPECT_EQ(projections[t]->has_lora(), targets[layer][t]) << "layer " << layer << ", target " << t;
      EXPECT_EQ(projections[t]->in_shape(), kShapes[t].first) << t;
      EXPECT_EQ(projections[t]->out_shape(), kShapes[t].second) << t;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(EveryArchitecture, LoraFileLoad, ::testing::Range(1, 7));

TEST(MakeModelLora, LoraOptionsAskForAnAdapterInTheOutputDirectory) {
  const std::vector<std::string_view> args = {"out", "--arch", "2", "--lora-rank", "4", "--lora-targets", "q,o",
                                              "--lora-targets", "1:none", "--lora-scale", "0.5", "--lora-zero-b",
                                              "--lora-quant", "Q4_0", "--seed", "7"};
  const MakeModelOptions options = parse_make_model_args(args);
  ASSERT_TRUE(options.lora.has_value());
  EXPECT_EQ(options.lora->rank, 4u);
  EXPECT_EQ(options.lora->targets, parse_lora_targets("q,o"));
  EXPECT_EQ(options.lora->layer_targets, (std::map<std::uint64_t, LoraTargetSet>{{1, kNone}}));
  EXPECT_EQ(options.lora->scale, 0.5);
  EXPECT_TRUE(options.lora->zero_b);
  EXPECT_NE(options.lora->seed, options.file.seed);
  EXPECT_EQ(options.config.lora_dir, "out");
  EXPECT_EQ(options.config.lora_quant, QuantFormat::Q4_0);

  // The storage format alone is no adapter.
  const std::vector<std::string_view> plain = {"out", "--arch", "2", "--lora-quant", "int8"};
  const MakeModelOptions without = parse_make_model_args(plain);
  EXPECT_FALSE(without.lora.has_value());
  EXPECT_EQ(without.config.lora_dir, "");
  EXPECT_EQ(without.config.lora_quant, QuantFormat::INT8);

  for (const char* targets : {"k,up", "4:all"}) {  // the default model has 4 layers
    const std::vector<std::string_view> bad = {"out", "--arch", "2", "--lora-targets", targets};
    EXPECT_THROW(parse_make_model_args(bad), UsageError) << targets;
  }
}

TEST(MakeModelLora, TheAdapterGoesWhereInitTxtPoints) {
  TempDir dir;
  const std::string model = (dir.path() / "model").string(), adapter = (dir.path() / "adapter").string();
  const std::vector<std::string_view> args = {model,       "--arch",  "6",      "--hidden",   "128",
                                              "--layers",  "1",       "--heads", "1",         "--kv-heads",
                                              "1",         "--vocab", "40",     "--lora-rank", "2",
                                              "--lora-dir", adapter};
  std::ostringstream err;
  ASSERT_EQ(run_make_model(args, err), 0) << err.str();
  EXPECT_NE(testing::read_text(dir.path() / "model" / kInitTextFileName).find("\nlora_dir=" + adapter + "\n"),
            std::string::npos);
  EXPECT_TRUE(std::filesystem::exists(dir.path() / "adapter" / kLoraFileName));
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "model" / kLoraFileName));
}

}  // namespace
}  // namespace quorvel::tools
