// quorvel-convert end to end: a model written by the model tool is taken
// apart, written as a published checkpoint in one of the forms the converter
// reads (safetensors or GGUF, packed ternary, block types, real weights),
// converted back, and compared with the original: the model file byte for
// byte, the rotary tables, and what the engine generates from each.
#include <fstream>

#include "e2e_support.h"
#include "tools/convert/checkpoint_forms.h"
#include "tools/convert/convert_command.h"
#include "tools/tool_test_files.h"

namespace quorvel::e2e {
namespace {

using namespace convert::testing;
using nlohmann::json;

struct Case {
  std::string name;
  int arch;
  std::vector<std::string> model_options = {};  // --tied, --qkv-bias
  std::string architecture;                // config.json's class, or GGUF general.architecture
  CheckpointRecipe recipe;
  json quantization_config = nullptr;  // safetensors only; null when absent
  std::vector<std::string> convert_options = {};
  bool exact = true;  // the checkpoint holds the model's weights exactly
  bool sharded = false;
};

const std::vector<std::string> kShape = {"--hidden", "256", "--intermediate", "768", "--layers", "2",
                                         "--heads", "4", "--kv-heads", "2", "--head-dim", "128",
                                         "--vocab", "300", "--max-pos", "64", "--eos", "2", "--seed", "5"};

const json kBitlinear = {{"quant_method", "bitnet"}, {"linear_class", "bitlinear"}};
const json kAutobitlinear = {{"quant_method", "bitnet"}, {"linear_class", "autobitlinear"},
                             {"quantization_mode", "offline"}};

CheckpointRecipe packed(bool divide, const std::string& scale_dtype) {
  return {.projections = Form::PACKED_U8, .divide_by_weight_scale = divide, .weight_scale_dtype = scale_dtype};
}
CheckpointRecipe gguf(Form tables, Form projections, Form vectors, bool permute = false) {
  return {.gguf = true, .tables = tables, .projections = projections, .vectors = vectors, .permute_qk = permute};
}
CheckpointRecipe real(Form form) { return {.tables = form, .projections = form}; }

const Case kCases[] = {
    {.name = "BitNetPackedBitlinear", .arch = 1, .model_options = {"--tied"}, .architecture = "BitNetForCausalLM",
     .recipe = packed(true, "BF16"), .quantization_config = kBitlinear},
    {.name = "BitNetPackedAutobitlinear", .arch = 1, .model_options = {"--tied"}, .architecture = "BitNetForCausalLM",
     .recipe = packed(false, "F32"), .quantization_config = kAutobitlinear},
    {.name = "BitNetGgufI2S", .arch = 1, .model_options = {"--tied"}, .architecture = "bitnet",
     .recipe = gguf(Form::BF16, Form::I2_S, Form::F16)},
    {.name = "LlamaPackedShardedWithBias", .arch = 2, .model_options = {"--qkv-bias"},
     .architecture = "LlamaForCausalLM", .recipe = packed(true, "BF16"), .quantization_config = kBitlinear,
     .sharded = true},
    {.name = "LlamaGgufTQ2_0Permuted", .arch = 2, .model_options = {"--qkv-bias"}, .architecture = "llama",
     .recipe = gguf(Form::BF16, Form::TQ2_0, Form::F32, true)},
    {.name = "LlamaGgufI2SPermuted", .arch = 2, .model_options = {"--tied"}, .architecture = "llama",
     .recipe = gguf(Form::F32, Form::I2_S, Form::F32, true)},
    {.name = "Qwen3GgufQ1_0", .arch = 4, .architecture = "qwen3", .recipe = gguf(Form::Q1_0, Form::Q1_0, Form::F32)},
    {.name = "Qwen3Bf16ToQ1_0", .arch = 4, .model_options = {"--tied"}, .architecture = "Qwen3ForCausalLM",
     .recipe = real(Form::BF16), .convert_options = {"--to", "q1_0_128"}},
    {.name = "Qwen3GgufQ2_0", .arch = 5, .model_options = {"--tied"}, .architecture = "qwen3",
     .recipe = gguf(Form::Q2_0, Form::Q2_0, Form::BF16)},
    {.name = "Qwen3Bf16", .arch = 6, .model_options = {"--tied", "--qkv-bias"}, .architecture = "Qwen3ForCausalLM",
     .recipe = real(Form::BF16)},
    {.name = "Qwen3GgufF32", .arch = 6, .architecture = "qwen3", .recipe = gguf(Form::BF16, Form::F32, Form::F16)},
    {.name = "BitNetMasterWeights", .arch = 1, .model_options = {"--tied"}, .architecture = "BitNetForCausalLM",
     .recipe = real(Form::BF16), .exact = false},
    {.name = "Qwen3GgufQ8_0", .arch = 6, .model_options = {"--tied"}, .architecture = "qwen3",
     .recipe = gguf(Form::BF16, Form::Q8_0, Form::BF16), .exact = false},
    {.name = "Qwen3Bf16ToQ1_58", .arch = 5, .architecture = "Qwen3ForCausalLM", .recipe = real(Form::BF16),
     .convert_options = {"--to", "q1.58"}, .exact = false},
};

// The model tool's model, with ternary gammas made powers of two.
struct Reference : ModelParts {
  TempDir dir;
};

void make_reference(Reference& ref, const Case& c) {
  std::vector<std::string> options = kShape;
  options.insert(options.end(), {"--arch", std::to_string(c.arch)});
  options.insert(options.end(), c.model_options.begin(), c.model_options.end());
  if (c.arch == 1) options.insert(options.end(), {"--activation", "0"});  // BitNet's relu^2
  make_model(ref.dir.path(), options);
  static_cast<ModelParts&>(ref) = read_model_parts(ref.dir.path());
  round_gammas_to_powers_of_two(ref.file, ref.objects);
  write_bytes(ref.dir.path() / "qmodel.tensors", ref.file);
}

void write_safetensors_checkpoint(const fs::path& dir, const Case& c, const Reference& ref) {
  json config = config_json(ref.config, c.architecture);
  if (!c.quantization_config.is_null()) config["quantization_config"] = c.quantization_config;
  std::ofstream(dir / "config.json") << config.dump(1);
  std::ofstream(dir / "tokenizer.json") << "{}";
  const std::vector<TensorBytes> tensors = checkpoint_tensors(ref.config, ref.objects, c.recipe);
  if (!c.sharded) return write_bytes(dir / "model.safetensors", safetensors_bytes(tensors));
  const std::size_t half = tensors.size() / 2;
  const std::vector<TensorBytes> first(tensors.begin(), tensors.begin() + static_cast<long>(half));
  const std::vector<TensorBytes> second(tensors.begin() + static_cast<long>(half), tensors.end());
  write_bytes(dir / "model-00001-of-00002.safetensors", safetensors_bytes(first));
  write_bytes(dir / "model-00002-of-00002.safetensors", safetensors_bytes(second));
  json map = json::object();
  for (std::size_t i = 0; i < tensors.size(); ++i) {
    map[tensors[i].name] = i < half ? "model-00001-of-00002.safetensors" : "model-00002-of-00002.safetensors";
  }
  std::ofstream(dir / "model.safetensors.index.json") << json{{"weight_map", map}}.dump();
}

fs::path write_checkpoint(const fs::path& dir, const Case& c, const Reference& ref) {
  if (!c.recipe.gguf) {
    write_safetensors_checkpoint(dir, c, ref);
    return dir;
  }
  GgufBuilder builder = gguf_metadata(ref.config, c.architecture);
  for (TensorBytes& t : checkpoint_tensors(ref.config, ref.objects, c.recipe)) builder.tensor(std::move(t));
  write_bytes(dir / "model.gguf", builder.bytes());
  return dir / "model.gguf";
}

// The object as the converter must write it from a lossy form: real
// ternary weights keep their codes under gamma = mean |W|; real weights in
// q1.58 keep their codes under d = mean |x| per block; Q8_0 gives its
// dequantized values narrowed to bf16.
std::string converted_bytes(const PayloadObject& o, Form form) {
  const std::vector<float> values = real_values(o);
  const bool real_form = form == Form::BF16 || form == Form::F16 || form == Form::F32;
  if (real_form && o.format == WeightFormat::TERNARY) {
    double sum = 0.0;
    for (const float v : values) sum += std::fabs(static_cast<double>(v));
    const double gamma = sum / static_cast<double>(values.size());
    return std::string(reinterpret_cast<const char*>(&gamma), 8) + o.bytes.substr(8);
  }
  if (real_form && o.format == WeightFormat::Q1_58) {
    std::string blocks = o.bytes;
    for (std::size_t b = 0; b < values.size() / 128; ++b) {
      float sum = 0.0f;
      for (std::size_t j = 0; j < 128; ++j) sum += std::fabs(values[128 * b + j]);
      const std::uint16_t d = float_to_bf16(std::max(sum / 128.0f, 1e-5f));
      std::memcpy(blocks.data() + b * sizeof(formats::BlockQ1_58) + 32, &d, 2);
    }
    return blocks;
  }
  if (form == Form::Q8_0) {
    std::vector<float> dequantized;
    q8_0_blocks(values, dequantized);
    return bf16_bytes(dequantized);
  }
  return o.bytes;
}

std::string expected_file(const Case& c, const Reference& ref) {
  std::string file = ref.file;
  for (const PayloadObject& o : ref.objects) {
    file.replace(o.offset, o.bytes.size(), converted_bytes(o, form_of(o, c.recipe)));
  }
  return file;
}

std::string generate(const fs::path& dir) {
  const ProcessResult result =
      run_engine(dir, init_block(dir) + request({"tokens=11,57,203,9,140", "temperature=0", "max_tokens=12"}));
  EXPECT_EQ(result.exit_status, 0) << result.err;
  return result.out;
}

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

// Where two model files first differ, by payload object.
std::string first_difference(const std::string& got, const std::string& want, const Reference& ref) {
  if (got == want) return "";
  std::size_t at = 0;
  while (at < got.size() && at < want.size() && got[at] == want[at]) ++at;
  std::ostringstream text;
  text << "sizes " << got.size() << " and " << want.size() << ", first difference at byte " << at;
  for (const PayloadObject& o : ref.objects) {
    if (at >= o.offset && at < o.offset + o.bytes.size()) {
      text << ": object kind " << o.kind << ", layer " << o.layer << ", slot " << static_cast<int>(o.slot)
           << ", byte " << at - o.offset << " of " << o.bytes.size();
    }
  }
  return text.str();
}

class ConvertCheckpoint : public ::testing::TestWithParam<Case> {};

TEST_P(ConvertCheckpoint, GivesBackTheModelItWasWrittenFrom) {
  const Case& c = GetParam();
  Reference ref;
  make_reference(ref, c);
  if (HasFatalFailure()) return;
  TempDir work;
  const fs::path source = write_checkpoint(work.path(), c, ref);
  const fs::path out = work.path() / "converted";
  std::vector<std::string> args{source.string(), out.string()};
  args.insert(args.end(), c.convert_options.begin(), c.convert_options.end());
  const std::vector<std::string_view> views(args.begin(), args.end());
  std::ostringstream log, err;
  ASSERT_EQ(convert::run_convert(views, log, err), 0) << err.str();

  EXPECT_EQ(first_difference(tools::testing::read_text(out / "qmodel.tensors"), expected_file(c, ref), ref), "");
  EXPECT_EQ(tools::testing::read_text(out / "rope.cache"), tools::testing::read_text(ref.dir.path() / "rope.cache"));
  if (c.exact) {
    EXPECT_EQ(generate(out), generate(ref.dir.path()));
  }
  if (!c.recipe.gguf) {
    EXPECT_TRUE(fs::exists(out / "tokenizer.json"));
  }
  for (const PayloadObject& o : ref.objects) {
    if (o.format == WeightFormat::TERNARY && o.slot == LayerSlot::Q && o.layer == 0 && c.exact) {
      std::ostringstream gamma;
      gamma << "layer 0 Q gamma   " << ternary_gamma(o) << " (";
      EXPECT_NE(log.str().find(gamma.str()), std::string::npos) << log.str();
    }
  }
}

INSTANTIATE_TEST_SUITE_P(EveryForm, ConvertCheckpoint, ::testing::ValuesIn(kCases),
                         [](const auto& param_info) { return param_info.param.name; });

}  // namespace
}  // namespace quorvel::e2e
