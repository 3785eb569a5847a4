// A PEFT adapter converted by quorvel-convert --lora and served by the
// engine: it changes what the model generates, and exactly as the same
// factors do when the LoRA file writer writes them (transposed, the scale
// folded into B) without the converter.
#include <cmath>

#include "e2e_support.h"
#include "engine/init_config_parser.h"
#include "tools/convert/checkpoint_files.h"
#include "tools/convert/convert_command.h"
#include "tools/lib/lora_file_writer.h"
#include "tools/lib/weight_random.h"
#include "tools/tool_test_files.h"

namespace quorvel::e2e {
namespace {

using convert::testing::TensorBytes;

const std::vector<std::string> kShape = {"--hidden", "256", "--intermediate", "512", "--layers", "2",
                                         "--heads", "2", "--kv-heads", "1", "--head-dim", "128",
                                         "--vocab", "300", "--max-pos", "64", "--eos", "2", "--seed", "11"};

// The PEFT module of each record (K, V, Q, O, FFN 1, FFN 2, down).
const std::array<std::string, 7> kModules = {"self_attn.k_proj", "self_attn.v_proj", "self_attn.q_proj",
                                             "self_attn.o_proj", "mlp.gate_proj",    "mlp.up_proj",
                                             "mlp.down_proj"};

// r 8 and lora_alpha 16 (scale 2), but down_proj has rank 4 (scale 4), so the
// file pads it; layer 1 adapts q, v and down only.
constexpr std::uint64_t kRank = 8, kDownRank = 4;
constexpr double kAlpha = 16.0;
const nlohmann::json kConfig = {{"peft_type", "LORA"}, {"r", kRank}, {"lora_alpha", kAlpha},
                                {"rank_pattern", {{"down_proj", kDownRank}}},
                                {"target_modules", {"q_proj", "k_proj", "v_proj", "o_proj", "gate_proj", "up_proj",
                                                    "down_proj"}}};

bool adapted(std::uint64_t layer, std::uint32_t record) {
  return layer == 0 || record == 1 || record == 2 || record == 6;
}

// A module's factors as PEFT stores them: A [rank, in], B [out, rank].
struct PeftModule {
  std::uint64_t rank;
  std::vector<float> a, b;
};

// Uniform values of RMS `rms`.
std::vector<float> random_values(tools::WeightRandom& random, std::uint64_t count, double rms) {
  std::vector<float> values(count);
  for (float& v : values) v = static_cast<float>(rms * std::sqrt(3.0)) * random.uniform();
  return values;
}

// Sized so that the correction is about as large as the projection's output
// (the synthetic adapter's rule): x A has RMS near 1, and s x A B near 1.
std::map<std::pair<std::uint64_t, std::uint32_t>, PeftModule> peft_modules(const InitConfig& config) {
  tools::WeightRandom random(23);
  std::map<std::pair<std::uint64_t, std::uint32_t>, PeftModule> modules;
  const std::vector<tools::LayerTensor> projections = tools::lora_target_projections(config);
  for (std::uint64_t layer = 0; layer < config.num_layers; ++layer) {
    for (std::uint32_t t = 0; t < 7; ++t) {
      if (!adapted(layer, t)) continue;
      const std::uint64_t rank = t == 6 ? kDownRank : kRank, in = projections[t].in_width;
      const double scale = kAlpha / static_cast<double>(rank);
      modules[{layer, t}] = {rank, random_values(random, rank * in, 1.0 / std::sqrt(static_cast<double>(in))),
                             random_values(random, projections[t].out_width * rank,
                                           1.0 / (scale * std::sqrt(static_cast<double>(rank))))};
    }
  }
  return modules;
}

// The adapter directory: A in BF16, B in F32.
void write_peft_adapter(const fs::path& dir, const InitConfig& config) {
  std::vector<TensorBytes> tensors;
  const std::vector<tools::LayerTensor> projections = tools::lora_target_projections(config);
  for (const auto& [key, m] : peft_modules(config)) {
    const std::string name =
        "base_model.model.model.layers." + std::to_string(key.first) + "." + kModules[key.second];
    const tools::LayerTensor& p = projections[key.second];
    tensors.push_back({name + ".lora_A.weight", "BF16", {m.rank, p.in_width}, convert::testing::bf16_bytes(m.a)});
    tensors.push_back({name + ".lora_B.weight", "F32", {p.out_width, m.rank}, convert::testing::f32_bytes(m.b)});
  }
  fs::create_directories(dir);
  convert::testing::write_bytes(dir / "adapter_config.json", kConfig.dump());
  convert::testing::write_bytes(dir / "adapter_model.safetensors", convert::testing::safetensors_bytes(tensors));
}

// The same factors in the engine's layout, by the LoRA file writer alone.
void write_expected_lora(const fs::path& file, const InitConfig& config) {
  const auto modules = peft_modules(config);
  const auto factors = [&](std::uint64_t layer, std::uint32_t target, const tools::LayerTensor& projection) {
    const auto found = modules.find({layer, target});
    if (found == modules.end()) return std::optional<tools::LoraFactors>();
    const PeftModule& m = found->second;
    const std::uint64_t in = projection.in_width, out = projection.out_width;
    const double scale = kAlpha / static_cast<double>(m.rank);
    tools::LoraFactors file_factors{std::vector<float>(in * kRank), std::vector<float>(kRank * out)};
    for (std::uint64_t k = 0; k < m.rank; ++k) {
      for (std::uint64_t j = 0; j < in; ++j) file_factors.a[j * kRank + k] = m.a[k * in + j];
      for (std::uint64_t j = 0; j < out; ++j) {
        file_factors.b[k * out + j] = static_cast<float>(scale * m.b[j * m.rank + k]);
      }
    }
    return std::optional(file_factors);
  };
  tools::write_lora_records(file, config, kRank, factors);
}

ProcessResult serve(const fs::path& dir, const std::map<std::string, std::string>& init = {}) {
  const std::string ask = request({"tokens=11,57,203,9,140", "temperature=0", "max_tokens=12"});
  const ProcessResult result = run_engine(dir, init_block(dir, init) + ask);
  EXPECT_EQ(result.signal, 0) << result.err;
  EXPECT_EQ(result.exit_status, 0) << result.err;
  return result;
}

class ConvertedAdapter : public ::testing::TestWithParam<int> {};

TEST_P(ConvertedAdapter, GeneratesWhatTheSameFactorsWrittenDirectlyGenerate) {
  TempDir root;
  const fs::path plain = root.path() / "plain", converted = root.path() / "converted", direct = root.path() / "direct";
  std::vector<std::string> options = kShape;
  options.insert(options.end(), {"--arch", std::to_string(GetParam())});
  make_model(plain, options);
  fs::copy(plain, converted);
  fs::copy(plain, direct);
  std::ifstream init(plain / "init.txt");
  const InitConfig config = read_init_config(init);

  write_peft_adapter(root.path() / "adapter", config);
  const std::string adapter = (root.path() / "adapter").string(), model = converted.string();
  const std::vector<std::string_view> args = {"--lora", adapter, model};
  std::ostringstream log, err;
  ASSERT_EQ(convert::run_convert(args, log, err), 0) << err.str();
  EXPECT_NE(log.str().find(": rank 8, 10 projections (2 of a smaller rank, padded with zeros)"), std::string::npos)
      << log.str();
  write_expected_lora(direct / "qmodel.lora", config);
  const std::string converted_file = tools::testing::read_text(converted / "qmodel.lora");
  EXPECT_TRUE(converted_file == tools::testing::read_text(direct / "qmodel.lora"));

  const ProcessResult without = serve(plain);
  const ProcessResult with_converted = serve(converted, {{"lora_dir", converted.string()}});
  const ProcessResult with_direct = serve(direct, {{"lora_dir", direct.string()}});
  EXPECT_NE(with_converted.err.find("LoRA rank: 8, layers: 2, targets/layer: 7"), std::string::npos)
      << with_converted.err;
  EXPECT_NE(with_converted.out, without.out);
  EXPECT_EQ(with_converted.out, with_direct.out);
}

INSTANTIATE_TEST_SUITE_P(Codes, ConvertedAdapter, ::testing::Values(2, 6));

}  // namespace
}  // namespace quorvel::e2e
