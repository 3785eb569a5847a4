// The two command lines: what a good one writes, and that a bad one prints
// the reason and the usage line, exits 1 and writes nothing.
#include "tools/lib/tool_commands.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "engine/init_config_parser.h"
#include "engine/key_value_block.h"
#include "tools/lib/init_text_writer.h"
#include "tools/lib/make_model_options.h"
#include "tools/lib/rope_cache_writer.h"
#include "tools/tool_test_files.h"

namespace quorvel::tools {
namespace {

using testing::read_file;
using testing::read_text;
using testing::TempDir;

struct ToolRun {
  int status;
  std::string err;
};

using ToolCommand = int (*)(std::span<const std::string_view>, std::ostream&);

ToolRun run_tool(ToolCommand command, std::vector<std::string_view> args) {
  std::ostringstream err;
  const int status = command(args, err);
  return {status, err.str()};
}

ToolRun make_model(std::vector<std::string_view> args) { return run_tool(run_make_model, std::move(args)); }
ToolRun make_rope(std::vector<std::string_view> args) { return run_tool(run_make_rope, std::move(args)); }

InitConfig parse_init_file(const std::filesystem::path& path) {
  std::istringstream in(read_text(path));
  KeyValueBlock block;
  EXPECT_GE(read_block(in, block), 1);
  return parse_init_config(block);
}

TEST(MakeModel, WritesALoadableDirectoryWithTheDefaults) {
  TempDir dir;
  const std::string out = (dir.path() / "model").string();
  const ToolRun run = make_model({out, "--arch", "4"});
  ASSERT_EQ(run.status, 0) << run.err;
  const InitConfig config = parse_init_file(dir.path() / "model" / "init.txt");
  EXPECT_EQ(config.arch_type, 4);
  EXPECT_EQ(config.hidden_dim, 512u);
  EXPECT_EQ(config.intermediate_dim, 1024u);
  EXPECT_EQ(config.num_layers, 4u);
  EXPECT_EQ(config.head_dim, 128u);  // the per-head norms need a multiple of 128
  EXPECT_EQ(config.vocab_size, 1000u);
  EXPECT_EQ(config.num_eos_tokens, 1u);
  EXPECT_EQ(config.unembed_quant, QuantFormat::INT8);
  EXPECT_EQ(std::filesystem::file_size(dir.path() / "model" / "rope.cache"), 12u + 2 * 128 * 512 * 4);
  EXPECT_TRUE(std::filesystem::exists(dir.path() / "model" / "qmodel.tensors"));
}

TEST(MakeModel, OptionsReachTheConfigAndTheFileHeader) {
  const std::vector<std::string_view> args = {
      "--arch", "1", "out", "--hidden", "256", "--intermediate", "384", "--layers", "2", "--heads", "2",
      "--kv-heads", "1", "--head-dim", "64", "--vocab", "300", "--max-pos", "64", "--rope-theta", "500000",
      "--norm-eps", "1e-6", "--activation", "0", "--eos", "5,6", "--tied", "--qkv-bias", "--unembed-quant",
      "Q8_0", "--version", "4", "--section", "3:77", "--section", "2", "--seed", "99"};
  const MakeModelOptions options = parse_make_model_args(args);
  const InitConfig& c = options.config;
  EXPECT_EQ(options.output_dir, "out");
  EXPECT_EQ(c.arch_type, 1);
  EXPECT_EQ(c.num_kv_heads, 1u);
  EXPECT_EQ(c.head_dim, 64u);
  EXPECT_EQ(c.max_position_embeddings, 64u);
  EXPECT_EQ(c.rope_theta, 500000.0);
  EXPECT_EQ(c.norm_eps, 1e-6);
  EXPECT_EQ(c.activation, 0);
  EXPECT_EQ(c.num_eos_tokens, 2u);
  EXPECT_EQ(c.eos_tokens[1], 6);
  EXPECT_TRUE(c.tie_word_embeddings && c.has_qkv_bias);
  EXPECT_TRUE(c.has_attn_sub_norm && c.has_ffn_sub_norm);  // BitNet always has both
  EXPECT_EQ(c.unembed_quant, QuantFormat::Q8_0);
  ASSERT_EQ(options.file.sections.size(), 2u);
  EXPECT_EQ(options.file.sections[0].kind, 3);
  EXPECT_EQ(options.file.sections[0].value, 77u);
  EXPECT_EQ(options.file.sections[1].kind, 2);
  EXPECT_EQ(options.file.sections[1].value, 0u);
  EXPECT_EQ(options.file.seed, 99u);
}

TEST(MakeModel, BadCommandLinesPrintTheUsageAndWriteNothing) {
  const std::vector<std::vector<std::string_view>> bad = {
      {},
      {"--arch", "1"},
      {"OUT"},
      {"OUT", "--arch", "7"},
      {"OUT", "--arch", "0"},
      {"OUT", "--arch"},
      {"OUT", "--arch", "1", "--hidden", "12x"},
      {"OUT", "--arch", "1", "--hidden", "500"},
      {"OUT", "--arch", "2", "--head-dim", "63", "--heads", "2"},
      {"OUT", "--arch", "1", "--vocab", "0"},
      {"OUT", "--arch", "1", "--version", "5"},
      {"OUT", "--arch", "1", "--activation", "2"},
      {"OUT", "--arch", "1", "--section", "256"},
      {"OUT", "--arch", "1", "--section", "3:x"},
      {"OUT", "--arch", "1", "--eos", "1,2,3,4,5,6,7,8,9"},
      {"OUT", "--arch", "1", "--unembed-quant", "q9"},
      {"OUT", "--arch", "1", "--frobnicate"},
      {"OUT", "--arch", "1", "SECOND"},
  };
  for (std::vector<std::string_view> args : bad) {
    TempDir dir;
    const std::string out = (dir.path() / "model").string();
    for (std::string_view& arg : args) {
      if (arg == "OUT") arg = out;
    }
    const ToolRun run = make_model(args);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("\nUsage: quorvel-make-model <output directory> --arch 1-6"), std::string::npos)
        << run.err;
    EXPECT_FALSE(std::filesystem::exists(out)) << run.err;
  }
}

TEST(MakeModel, UnpackableWidthsAreFineForPlainBf16Weights) {
  TempDir dir;
  const std::string out = (dir.path() / "model").string();
  const ToolRun run = make_model({out, "--arch", "6", "--hidden", "200", "--intermediate", "300", "--layers", "1"});
  EXPECT_EQ(run.status, 0) << run.err;
}

TEST(MakeModel, AnUnwritableDirectoryIsAnErrorWithoutUsage) {
  TempDir dir;
  const auto blocker = dir.path() / "file";
  std::ofstream(blocker) << "x";
  const ToolRun run = make_model({(blocker / "model").string(), "--arch", "2"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err.rfind("quorvel-make-model: ", 0), 0u) << run.err;
  EXPECT_EQ(run.err.find("\nUsage: "), std::string::npos) << run.err;
}

TEST(MakeRope, RewritesTheCacheFromInitText) {
  TempDir dir;
  const std::string out = dir.path().string();
  ASSERT_EQ(make_model({out, "--arch", "2", "--head-dim", "64", "--heads", "8", "--max-pos", "100",
                        "--rope-theta", "1000"})
                .status,
            0);
  const auto rope = dir.path() / "rope.cache";
  const std::vector<std::uint8_t> original = read_file(rope);
  std::filesystem::remove(rope);
  const ToolRun run = make_rope({out});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(read_file(rope), original);
  EXPECT_EQ(original.size(), 12u + 2 * 64 * 100 * 4);
}

TEST(MakeRope, NeedsExactlyTheDirectory) {
  for (const std::vector<std::string_view>& args : {std::vector<std::string_view>{},
                                                     std::vector<std::string_view>{"a", "b"}}) {
    const ToolRun run = make_rope(args);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "Usage: quorvel-make-rope <Model Directory>\n");
  }
}

TEST(MakeRope, ReportsAMissingOrUnusableInitText) {
  TempDir dir;
  const std::string out = dir.path().string();
  ToolRun run = make_rope({out});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("could not open"), std::string::npos) << run.err;

  std::ofstream(dir.path() / "init.txt") << "1\nhead_dim=64\n";
  run = make_rope({out});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "quorvel-make-rope: Init config missing required key 'arch_type'\n");

  std::ofstream(dir.path() / "init.txt") << "2\narch_type=1\nhead_dim=65\n";
  run = make_rope({out});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("head_dim must be even"), std::string::npos) << run.err;
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "rope.cache"));
}

}  // namespace
}  // namespace quorvel::tools
