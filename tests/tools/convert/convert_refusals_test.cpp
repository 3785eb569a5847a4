// What quorvel-convert refuses: broken checkpoint files, tensors that are
// missing or disagree with the config, scales that are not finite, and the
// architectures, types and settings it cannot convert exactly. Each gets one
// "Error: FILE: what is wrong" line and exit status 1, and leaves nothing
// behind that looks like a model directory.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

#include "tools/convert/checkpoint_forms.h"
#include "tools/convert/convert_command.h"
#include "tools/lib/tool_commands.h"
#include "tools/tool_test_files.h"

namespace quorvel::convert::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using tools::testing::TempDir;

// A small model of the architecture, taken apart as the converter's tests do.
ModelParts small_model(int arch) {
  TempDir dir;
  const std::vector<std::string> args = {dir.path().string(), "--arch", std::to_string(arch), "--hidden", "256",
                                         "--intermediate", "768", "--layers", "2", "--heads", "2", "--kv-heads",
                                         "1", "--head-dim", "128", "--vocab", "40", "--max-pos", "32", "--tied"};
  const std::vector<std::string_view> views(args.begin(), args.end());
  std::ostringstream err;
  EXPECT_EQ(tools::run_make_model(views, err), 0) << err.str();
  return read_model_parts(dir.path());
}

struct ConvertRun {
  int status;
  std::string err;
};

class Refusals : public ::testing::Test {
 protected:
  fs::path source() const { return dir_.path() / "source"; }
  fs::path out() const { return dir_.path() / "out"; }

  ConvertRun convert(const fs::path& from, std::vector<std::string> extra = {}) {
    std::vector<std::string> args{from.string(), out().string()};
    args.insert(args.end(), extra.begin(), extra.end());
    const std::vector<std::string_view> views(args.begin(), args.end());
    std::ostringstream log, err;
    const int status = run_convert(views, log, err);
    return {status, err.str()};
  }

  // Runs the conversion, expects exactly `line` and nothing left behind.
  void expect_refusal(const fs::path& from, const std::string& line, std::vector<std::string> extra = {}) {
    const ConvertRun run = convert(from, extra);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "Error: " + line + "\n");
    for (const auto& entry : fs::directory_iterator(dir_.path())) {
      EXPECT_EQ(entry.path().filename().string().find("out"), std::string::npos) << entry.path();
    }
  }

  // A BitNet checkpoint of packed ternary weights, changed by `edit` before
  // it is written.
  fs::path bitnet_checkpoint(const std::function<void(json&, std::vector<TensorBytes>&)>& edit) {
    static const ModelParts model = small_model(1);
    json config = config_json(model.config, "BitNetForCausalLM");
    CheckpointRecipe recipe;
    recipe.projections = Form::PACKED_U8;
    std::vector<TensorBytes> tensors = checkpoint_tensors(model.config, model.objects, recipe);
    edit(config, tensors);
    fs::create_directories(source());
    std::ofstream(source() / "config.json") << config.dump();
    write_bytes(source() / "model.safetensors", safetensors_bytes(tensors));
    return source();
  }

  // A GGUF file of the architecture, its tensors in `form`, changed by `edit`.
  fs::path gguf_checkpoint(int arch, const std::string& name, Form form,
                           const std::function<void(std::vector<TensorBytes>&)>& edit) {
    const ModelParts model = small_model(arch);
    CheckpointRecipe recipe{.gguf = true, .projections = form};
    std::vector<TensorBytes> tensors = checkpoint_tensors(model.config, model.objects, recipe);
    edit(tensors);
    GgufBuilder builder = gguf_metadata(model.config, name);
    for (TensorBytes& t : tensors) builder.tensor(std::move(t));
    const fs::path file = dir_.path() / "model.gguf";
    write_bytes(file, builder.bytes());
    return file;
  }

  TempDir dir_;
};

TensorBytes& named(std::vector<TensorBytes>& tensors, const std::string& name) {
  for (TensorBytes& t : tensors) {
    if (t.name == name) return t;
  }
  ADD_FAILURE() << "no tensor " << name;
  return tensors.front();
}

void write_raw_safetensors(const fs::path& file, const std::string& header, const std::string& data) {
  quorvel::testing::ByteWriter bytes;
  bytes.u64(header.size()).text(header).text(data);
  write_bytes(file, bytes.bytes());
}

TEST_F(Refusals, BrokenSafetensorsFiles) {
  const fs::path file = bitnet_checkpoint([](json&, std::vector<TensorBytes>&) {}) / "model.safetensors";
  const std::string entry = R"({"dtype":"BF16","shape":[2,2],"data_offsets":)";
  const struct {
    std::string header, data, problem;
  } kCases[] = {
      {"", "", "header length 0 is beyond the file's 8 bytes"},
      {R"({"t":)" + entry + "[0,8]}}", "1234", "tensor t: data_offsets lie outside the 4-byte data block"},
      {R"({"t":)" + entry + "[4,2]}}", "1234", "tensor t: data_offsets lie outside the 4-byte data block"},
      {R"({"t":)" + entry + "[0,6]}}", "123456",
       "tensor t: dtype BF16 and its shape need 8 bytes, but data_offsets hold 6"},
      {R"({"t":{"dtype":"F32","shape":[4611686018427387904,8],"data_offsets":[0,8]}})", "12345678",
       "tensor t: dtype F32 and its shape need more than 2^64 bytes, but data_offsets hold 8"},
      {R"({"t":{"dtype":"Q9","shape":[1],"data_offsets":[0,1]}})", "1", "tensor t: unknown dtype 'Q9'"},
      {R"({"t":)" + entry + "[0,8]},\"t\":" + entry + "[0,8]}}", "12345678", "tensor t appears twice"},
  };
  for (const auto& c : kCases) {
    if (c.header.empty()) {
      write_bytes(file, std::string("\xE8\x03\0\0\0\0\0\0", 8));
      expect_refusal(source(), file.string() + ": header length 1000 is beyond the file's 8 bytes");
      continue;
    }
    write_raw_safetensors(file, c.header, c.data);
    expect_refusal(source(), file.string() + ": " + c.problem);
  }
  write_raw_safetensors(file, "{\"\xFF\":1}", "");
  const ConvertRun run = convert(source());
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(run.err.starts_with("Error: " + file.string() + ": header is not valid UTF-8 JSON")) << run.err;
}

TEST_F(Refusals, TensorsThatDisagreeWithTheConfig) {
  const std::string down = "model.layers.1.mlp.down_proj.weight";
  const fs::path dir = bitnet_checkpoint([&](json&, std::vector<TensorBytes>& tensors) {
    std::erase_if(tensors, [&](const TensorBytes& t) { return t.name == down; });
  });
  expect_refusal(dir, dir.string() + ": missing tensor " + down);

  bitnet_checkpoint([](json& config, std::vector<TensorBytes>&) { config["intermediate_size"] = 640; });
  expect_refusal(dir, (dir / "model.safetensors").string() +
                          ": tensor model.layers.0.mlp.gate_proj.weight has shape [768, 256], but the model's config "
                          "needs [640, 256]");

  const std::string scale = "model.layers.0.self_attn.k_proj.weight_scale";
  for (const float bad : {std::numeric_limits<float>::infinity(), std::nanf(""), 0.0f}) {
    bitnet_checkpoint(
        [&](json&, std::vector<TensorBytes>& tensors) { named(tensors, scale).bytes = bf16_bytes({bad}); });
    expect_refusal(dir,
                   (dir / "model.safetensors").string() + ": tensor " + scale + " holds a zero or non-finite scale");
  }

  bitnet_checkpoint([&](json&, std::vector<TensorBytes>& tensors) {
    std::erase_if(tensors, [&](const TensorBytes& t) { return t.name == scale; });
  });
  expect_refusal(dir, (dir / "model.safetensors").string() +
                          ": packed ternary tensor model.layers.0.self_attn.k_proj.weight has no " + scale);
}

TEST_F(Refusals, WhatCannotBeConvertedExactlyIsNamed) {
  const fs::path config = source() / "config.json";
  bitnet_checkpoint([](json& c, std::vector<TensorBytes>&) { c["architectures"] = {"MistralForCausalLM"}; });
  expect_refusal(source(), config.string() +
                               ": architecture 'MistralForCausalLM' is not supported; supported: BitNetForCausalLM, "
                               "LlamaForCausalLM with a bitnet quantization_config (1.58-bit), Qwen3ForCausalLM");

  bitnet_checkpoint([](json& c, std::vector<TensorBytes>&) { c["rope_scaling"] = {{"rope_type", "yarn"}}; });
  expect_refusal(source(), config.string() + ": rope_scaling type 'yarn' is not supported (supported: linear, llama3)");

  bitnet_checkpoint([](json& c, std::vector<TensorBytes>&) {
    c["quantization_config"] = {{"quant_method", "bitnet"}, {"linear_class", "autobitlinear"},
                                {"quantization_mode", "online"}};
  });
  expect_refusal(source(), config.string() +
                               ": quantization_config linear_class 'autobitlinear' is not supported (supported: "
                               "bitlinear, autobitlinear with quantization_mode offline)");

  bitnet_checkpoint([](json&, std::vector<TensorBytes>&) {});
  expect_refusal(source(),
                 config.string() + ": --to applies to Qwen3ForCausalLM checkpoints only, not BitNetForCausalLM",
                 {"--to", "q1.58"});

  bitnet_checkpoint([](json& c, std::vector<TensorBytes>& tensors) {
    c["architectures"] = {"Qwen3ForCausalLM"};
    TensorBytes& norm = named(tensors, "model.norm.weight");
    norm.dtype = "I32";
    norm.bytes += norm.bytes;
  });
  expect_refusal(source(), (source() / "model.safetensors").string() +
                               ": tensor model.norm.weight has type I32; writing it as bf16 needs F32, F16, BF16, "
                               "Q8_0 or a ternary or 1-bit type");
}

TEST_F(Refusals, GgufBlockScalesMustFitTheTarget) {
  const std::string query = "blk.0.attn_q.weight";
  // TQ2_0 blocks of one matrix with two different scales are not one ternary matrix.
  fs::path file = gguf_checkpoint(2, "llama", Form::TQ2_0, [&](std::vector<TensorBytes>& tensors) {
    std::string& bytes = named(tensors, query).bytes;
    bytes[bytes.size() - 1] = static_cast<char>(bytes[bytes.size() - 1] ^ 0x04);  // the last block's d
  });
  expect_refusal(file, file.string() + ": tensor " + query +
                           " is not per-tensor ternary: its block scales differ (row 255), so it cannot become one "
                           "ternary matrix");

  file = gguf_checkpoint(4, "qwen3", Form::Q1_0, [&](std::vector<TensorBytes>& tensors) {
    named(tensors, "blk.0.attn_k.weight").bytes[0x12 * 3 + 1] = static_cast<char>(0x7C);  // block 3's d: +inf
  });
  expect_refusal(file, file.string() + ": tensor blk.0.attn_k.weight has a non-finite scale in row 1");

  file = gguf_checkpoint(6, "gemma", Form::BF16, [](std::vector<TensorBytes>&) {});
  expect_refusal(file, file.string() +
                           ": architecture 'gemma' is not supported; supported: bitnet and llama with ternary "
                           "projections (I2_S, TQ2_0), qwen3 with Q1_0, Q2_0, Q8_0, F16, BF16 or F32 projections");
}

// A path that begins with a slash is a path on every platform, not a Windows-style option.
TEST_F(Refusals, AMissingSourceIsNamedEvenWhenItBeginsWithASlash) {
  expect_refusal("/quorvel-no-such-checkpoint", "/quorvel-no-such-checkpoint: does not exist");
}

TEST_F(Refusals, AnOccupiedDestinationIsKeptUnlessForced) {
  const fs::path dir = bitnet_checkpoint([](json&, std::vector<TensorBytes>&) {});
  fs::create_directories(out());
  std::ofstream(out() / "notes.txt") << "mine";
  ConvertRun run = convert(dir);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "Error: " + out().string() + ": exists and is not empty (--force replaces it)\n");
  EXPECT_EQ(tools::testing::read_text(out() / "notes.txt"), "mine");

  run = convert(dir, {"--force"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_FALSE(fs::exists(out() / "notes.txt"));
  EXPECT_TRUE(fs::exists(out() / "qmodel.tensors"));

  run = convert(dir, {"--to", "q4"});
  EXPECT_EQ(run.status, 2);
  EXPECT_TRUE(run.err.starts_with("Error: --to: q4 not in {")) << run.err;
}

}  // namespace
}  // namespace quorvel::convert::testing
