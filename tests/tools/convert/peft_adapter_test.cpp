// quorvel-convert --lora: PEFT factors transposed into qmodel.lora with the
// scale folded into B (lora_alpha / r, rsLoRA, per-module patterns), modules
// of a smaller rank padded with zeros, and every refusal as one
// "Error: FILE: what is wrong" line that leaves no adapter file behind.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <iterator>
#include <sstream>

#include "runtime/bf16.h"
#include "tools/convert/checkpoint_files.h"
#include "tools/convert/convert_command.h"
#include "tools/lib/init_text_writer.h"
#include "tools/tool_test_files.h"

namespace quorvel::convert::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using tools::testing::read_file;
using tools::testing::small_config;
using tools::testing::TempDir;
using tools::testing::value_at;

// (in, out) and PEFT module of the records K, V, Q, O, gate, up, down, for
// small_config (a model of two layers).
constexpr std::array<std::pair<std::uint64_t, std::uint64_t>, 7> kShapes = {
    {{256, 128}, {256, 128}, {256, 512}, {512, 256}, {256, 384}, {256, 384}, {384, 256}}};
const std::array<std::string, 7> kModules = {"self_attn.k_proj", "self_attn.v_proj", "self_attn.q_proj",
                                             "self_attn.o_proj", "mlp.gate_proj",    "mlp.up_proj",
                                             "mlp.down_proj"};
enum Record { K, V, Q, O, GATE, UP, DOWN };

// One module of an adapter: A [rank, in] and B [out, rank], row-major, and
// the scale the converter should fold into B.
struct PeftModule {
  std::uint64_t layer;
  Record record;
  std::uint64_t rank;
  double scale;
  std::string dtype = "F32";
  std::vector<float> a, b;
};

// Multiples of 1/16 within [-1/2, 1/2], exact in f16 and bf16 (so are the
// scaled values below), different for every seed.
std::vector<float> values(std::size_t count, std::uint64_t seed) {
  std::vector<float> v(count);
  for (std::size_t i = 0; i < count; ++i) v[i] = static_cast<float>(static_cast<int>((i * 7 + seed) % 17) - 8) / 16;
  return v;
}

PeftModule module(std::uint64_t layer, Record record, std::uint64_t rank, double scale, std::string dtype = "F32") {
  const auto [in, out] = kShapes[record];
  const std::uint64_t seed = 10 * layer + record;
  return {layer, record, rank, scale, std::move(dtype), values(rank * in, seed), values(out * rank, seed + 5)};
}

std::string factor_name(std::uint64_t layer, const std::string& module, char factor) {
  return "base_model.model.model.layers." + std::to_string(layer) + "." + module + ".lora_" + factor + ".weight";
}

std::string encoded(const std::vector<float>& v, const std::string& dtype) {
  return dtype == "F32" ? f32_bytes(v) : dtype == "F16" ? f16_bytes(v) : bf16_bytes(v);
}

std::vector<TensorBytes> tensors_of(const std::vector<PeftModule>& modules) {
  std::vector<TensorBytes> tensors;
  for (const PeftModule& m : modules) {
    const auto [in, out] = kShapes[m.record];
    tensors.push_back({factor_name(m.layer, kModules[m.record], 'A'), m.dtype, {m.rank, in}, encoded(m.a, m.dtype)});
    tensors.push_back({factor_name(m.layer, kModules[m.record], 'B'), m.dtype, {out, m.rank}, encoded(m.b, m.dtype)});
  }
  return tensors;
}

json lora_config(std::uint64_t rank, double alpha) {
  return {{"peft_type", "LORA"},   {"r", rank},       {"lora_alpha", alpha},  {"use_rslora", false},
          {"use_dora", false},     {"bias", "none"},  {"modules_to_save", nullptr},
          {"target_modules", {"q_proj", "k_proj", "v_proj", "o_proj", "gate_proj", "up_proj", "down_proj"}}};
}

// A record of qmodel.lora, widened back to floats.
struct FileRecord {
  bool present = false;
  std::vector<float> a, b;  // in x rank, rank x out
};

std::vector<float> bf16_values(const std::vector<std::uint8_t>& bytes, std::size_t& at, std::uint64_t count) {
  std::vector<float> v(count);
  for (float& value : v) value = widen(bf16{value_at<std::uint16_t>(bytes, (at += 2) - 2)});
  return v;
}

// What each record of the file should hold: A transposed, B transposed and
// scaled, zero beyond the module's own rank.
std::vector<FileRecord> expected_records(const std::vector<PeftModule>& modules, std::uint64_t rank) {
  std::vector<FileRecord> records(2 * 7);
  for (const PeftModule& m : modules) {
    const auto [in, out] = kShapes[m.record];
    FileRecord& r = records[7 * m.layer + m.record];
    r = {true, std::vector<float>(in * rank), std::vector<float>(rank * out)};
    for (std::uint64_t k = 0; k < m.rank; ++k) {
      for (std::uint64_t j = 0; j < in; ++j) r.a[j * rank + k] = m.a[k * in + j];
      for (std::uint64_t j = 0; j < out; ++j) r.b[k * out + j] = static_cast<float>(m.scale * m.b[j * m.rank + k]);
    }
  }
  return records;
}

void expect_file(const fs::path& file, const std::vector<PeftModule>& modules, std::uint32_t rank) {
  const std::vector<std::uint8_t> bytes = read_file(file);
  ASSERT_GE(bytes.size(), 24u);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 4), "QVLA");
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 12), rank);
  const std::vector<FileRecord> expected = expected_records(modules, rank);
  std::size_t at = 24;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const auto [in, out] = kShapes[i % 7];
    ASSERT_LT(at, bytes.size());
    ASSERT_EQ(bytes[at++] == 1, expected[i].present) << "layer " << i / 7 << ", record " << i % 7;
    if (!expected[i].present) continue;
    EXPECT_EQ(bf16_values(bytes, at, in * rank), expected[i].a) << "A of layer " << i / 7 << ", record " << i % 7;
    EXPECT_EQ(bf16_values(bytes, at, rank * out), expected[i].b) << "B of layer " << i / 7 << ", record " << i % 7;
  }
  EXPECT_EQ(at, bytes.size());
}

class PeftAdapter : public ::testing::Test {
 protected:
  PeftAdapter() {
    fs::create_directories(model_dir());
    fs::create_directories(adapter_dir());
    tools::write_init_text(model_dir() / "init.txt", small_config(6));
  }
  fs::path model_dir() const { return dir_.path() / "model"; }
  fs::path adapter_dir() const { return dir_.path() / "adapter"; }
  std::string config_file() const { return (adapter_dir() / "adapter_config.json").string(); }
  std::string tensor_file() const { return (adapter_dir() / "adapter_model.safetensors").string(); }

  struct Run {
    int status;
    std::string out, err;
  };
  Run convert(const json& config, const std::vector<TensorBytes>& tensors) {
    write_bytes(adapter_dir() / "adapter_config.json", config.dump());
    write_bytes(tensor_file(), safetensors_bytes(tensors));
    const std::string adapter = adapter_dir().string(), model = model_dir().string();
    const std::vector<std::string_view> args = {"--lora", adapter, model};
    std::ostringstream out, err;
    const int status = run_convert(args, out, err);
    return {status, out.str(), err.str()};
  }

  // Converts and expects `line` as the one error, with init.txt alone left.
  void expect_refusal(const json& config, const std::vector<TensorBytes>& tensors, const std::string& line) {
    const Run run = convert(config, tensors);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "Error: " + line + "\n");
    EXPECT_EQ(std::distance(fs::directory_iterator(model_dir()), {}), 1) << line;
  }

  TempDir dir_;
};

TEST_F(PeftAdapter, FactorsAreTransposedWithTheScaleFoldedIntoB) {
  const std::vector<PeftModule> modules = {module(0, K, 4, 2.0, "F16"), module(0, Q, 4, 2.0),
                                           module(1, DOWN, 4, 2.0, "BF16"), module(1, O, 4, 2.0)};
  const Run run = convert(lora_config(4, 8.0), tensors_of(modules));
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find(": rank 4, 4 projections\n"), std::string::npos) << run.out;
  expect_file(model_dir() / "qmodel.lora", modules, 4);
}

// rank_pattern gives down_proj rank 2 (and so the scale 8 / 2): its A gets
// two zero columns and its B two zero rows in the file of rank 4.
TEST_F(PeftAdapter, ASmallerRankIsPaddedWithZeros) {
  json config = lora_config(4, 8.0);
  config["rank_pattern"] = {{"down_proj", 2}};
  const std::vector<PeftModule> modules = {module(0, UP, 4, 2.0), module(0, DOWN, 2, 4.0), module(1, DOWN, 2, 4.0)};
  const Run run = convert(config, tensors_of(modules));
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find(": rank 4, 3 projections (2 of a smaller rank, padded with zeros)"), std::string::npos);
  expect_file(model_dir() / "qmodel.lora", modules, 4);
}

// rsLoRA divides by sqrt(r); alpha_pattern keys match a module's name or a
// tail of its path after a dot ("p_proj" is neither for up_proj).
TEST_F(PeftAdapter, RsLoraAndAlphaPatternSetEachScale) {
  json config = lora_config(4, 6.0);
  config["use_rslora"] = true;
  config["alpha_pattern"] = {{"q_proj", 10.0}, {"layers.1.mlp.down_proj", 2.0}, {"p_proj", 100.0}};
  const std::vector<PeftModule> modules = {module(0, K, 4, 3.0),    module(0, Q, 4, 5.0),   module(1, Q, 4, 5.0),
                                           module(0, DOWN, 4, 3.0), module(1, DOWN, 4, 1.0), module(0, UP, 4, 3.0)};
  const Run run = convert(config, tensors_of(modules));
  ASSERT_EQ(run.status, 0) << run.err;
  expect_file(model_dir() / "qmodel.lora", modules, 4);
}

TEST_F(PeftAdapter, ConfigsAskingForMoreThanTwoFactorsAreRefused) {
  const std::vector<TensorBytes> tensors = tensors_of({module(0, Q, 4, 2.0)});
  const std::string file = config_file();
  const auto with = [](const char* key, const json& value) {
    json config = lora_config(4, 8.0);
    config[key] = value;
    return config;
  };
  expect_refusal(with("use_dora", true), tensors,
                 file + ": use_dora is true; qmodel.lora has no place for DoRA's magnitude vectors");
  expect_refusal(with("bias", "lora_only"), tensors,
                 file + ": bias is \"lora_only\"; qmodel.lora has no place for trained biases");
  expect_refusal(with("modules_to_save", {"lm_head"}), tensors,
                 file + ": modules_to_save lists [\"lm_head\"]; qmodel.lora has no place for whole trained modules");
  expect_refusal(with("target_modules", {"q_proj", "embed_tokens"}), tensors,
                 file + ": target_modules names 'embed_tokens'; qmodel.lora holds adapters of q_proj, k_proj, "
                        "v_proj, o_proj, gate_proj, up_proj or down_proj only");
  expect_refusal(with("peft_type", "LOHA"), tensors, file + ": peft_type is LOHA; only LORA adapters convert");
  expect_refusal(with("r", 0), tensors, file + ": key 'r' must be at least 1");
  expect_refusal(with("lora_alpha", nullptr), tensors, file + ": key 'lora_alpha' is missing");
  expect_refusal(with("rank_pattern", {{"q_proj", 2}, {"layers.0.self_attn.q_proj", 3}}), tensors,
                 file + ": rank_pattern keys 'layers.0.self_attn.q_proj' and 'q_proj' both match "
                        "model.layers.0.self_attn.q_proj with different values");
  expect_refusal(with("alpha_pattern", {{".*q_proj", 1}}), tensors,
                 file + ": alpha_pattern key '.*q_proj' is a regular expression; name the modules instead (e.g. "
                        "q_proj or model.layers.0.self_attn.q_proj)");
  expect_refusal(with("rank_pattern", {{"q_proj", 0}}), tensors,
                 file + ": rank_pattern gives model.layers.0.self_attn.q_proj rank 0; a rank is a whole number of "
                        "1 or more");
  InitConfig unknown = small_config(6);
  unknown.arch_type = 9;
  tools::write_init_text(model_dir() / "init.txt", unknown);
  expect_refusal(lora_config(4, 8.0), tensors, (model_dir() / "init.txt").string() + ": Unknown architecture type: 9");
}

TEST_F(PeftAdapter, TensorsTheFileCannotHoldAreRefused) {
  const json config = lora_config(4, 8.0);
  const std::string file = tensor_file();
  const std::vector<TensorBytes> q = tensors_of({module(0, Q, 4, 2.0)});
  const std::string q_a = q[0].name, q_b = q[1].name;
  const auto edited = [&](std::size_t index, auto edit) {
    std::vector<TensorBytes> tensors = q;
    edit(tensors[index]);
    return tensors;
  };
  expect_refusal(config, {q[0]}, file + ": tensor " + q_a + " has no matching " + q_b);
  expect_refusal(config, {q[1]}, file + ": tensor " + q_b + " has no matching " + q_a);
  const std::string not_a_factor = " is not the lora_A or lora_B weight of a layer's q_proj, k_proj, v_proj, "
                                   "o_proj, gate_proj, up_proj or down_proj";
  for (const std::string& name : {factor_name(0, "self_attn.qkv_proj", 'A'), factor_name(1, "self_attn.q_proj", 'C'),
                                 factor_name(0, "", 'B'), std::string("base_model.model.lm_head.lora_A.weight")}) {
    expect_refusal(config, edited(0, [&](TensorBytes& t) { t.name = name; }), file + ": tensor " + name + not_a_factor);
  }
  const std::string layer_2 = factor_name(2, "self_attn.q_proj", 'B');
  expect_refusal(config, edited(1, [&](TensorBytes& t) { t.name = layer_2; }),
                 file + ": tensor " + layer_2 + " is for layer 2, but the model has 2 layers");
  expect_refusal(config, edited(0, [](TensorBytes& t) { t.dtype = "I8", t.bytes.resize(t.bytes.size() / 4); }),
                 file + ": tensor " + q_a + " has dtype I8; LoRA factors must be F32, F16 or BF16");
  expect_refusal(config, edited(0, [](TensorBytes& t) { t.shape = {4, 255}, t.bytes.resize(4 * 255 * 4); }),
                 file + ": tensor " + q_a + " has shape [4, 255], expected [4, 256] (rank from adapter_config.json, "
                                            "256 -> 512 projection of the model)");
  expect_refusal(config, tensors_of({module(0, Q, 2, 4.0)}),
                 file + ": tensor " + q_a + " has shape [2, 256], expected [4, 256] (rank from adapter_config.json, "
                                            "256 -> 512 projection of the model)");
  expect_refusal(config, edited(1, [](TensorBytes& t) { t.bytes.replace(20, 4, f32_bytes({NAN})); }),
                 file + ": tensor " + q_b + " holds a non-finite value");
  expect_refusal(config, {}, file + ": holds no LoRA factors");
}

}  // namespace
}  // namespace quorvel::convert::testing
