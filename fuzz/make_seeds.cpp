// Writes the seed corpora of the harnesses into <dir>/<harness>/, with the
// same file writers the tests use: init texts, model files, RoPE caches and
// LoRA adapters of small models of every architecture, request texts like
// the end-to-end tests send, safetensors and GGUF checkpoints, and small
// tokenizer.json documents.
#include <bit>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "config/init_config.h"
#include "fuzz_support.h"
#include "host/text/small_tokenizer.h"
#include "tools/lib/init_text_writer.h"
#include "tools/lib/lora_file_writer.h"
#include "tools/lib/model_file_writer.h"
#include "tools/convert/checkpoint_files.h"
#include "tools/lib/rope_cache_writer.h"

namespace fs = std::filesystem;
using namespace quorvel;

namespace {

class SeedWriter {
 public:
  explicit SeedWriter(fs::path root) : root_(std::move(root)) {}

  void add(const std::string& harness, const std::string& name, const std::string& bytes) {
    const fs::path dir = root_ / harness;
    fs::create_directories(dir);
    std::ofstream out(dir / name, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + (dir / name).string());
  }

 private:
  fs::path root_;
};

// The loadable small shape of every architecture, as the tests use it.
InitConfig small_config(std::int32_t arch) {
  InitConfig c;
  c.arch_type = arch;
  c.hidden_dim = 128;
  c.intermediate_dim = 256;
  c.num_layers = 1;
  c.num_heads = 2;
  c.num_kv_heads = 1;
  c.head_dim = 128;
  c.vocab_size = 40;
  c.max_position_embeddings = 8;
  c.num_eos_tokens = 1;
  c.eos_tokens[0] = 2;
  c.has_attn_sub_norm = c.has_ffn_sub_norm = arch == 1;
  if (arch == 6) {  // bf16 sources, quantized while loading: keep the file small
    c.num_heads = 1;
    c.intermediate_dim = 32;
  }
  return c;
}

template <typename Write>
std::string written(Write write) {
  fuzz::TempDir dir;
  const fs::path path = dir.path() / "file";
  write(path);
  return fuzz::read_file(path);
}

std::string model_bytes(const InitConfig& config, const tools::ModelFileOptions& options = {}) {
  return written([&](const fs::path& path) { tools::write_model_file(path, config, options); });
}

std::string rope_bytes(std::uint64_t head_dim, std::uint64_t positions) {
  return written([&](const fs::path& path) { tools::write_rope_cache(path, head_dim, positions, 10000.0); });
}

std::string lora_bytes(const InitConfig& config, const tools::LoraFileOptions& options) {
  return written([&](const fs::path& path) { tools::write_lora_file(path, config, options); });
}

std::string u32_bytes(std::uint32_t v) {
  std::string bytes;
  for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<char>(v >> (8 * i)));
  return bytes;
}

std::string request(const std::vector<std::string>& lines) {
  std::string block = std::to_string(lines.size()) + "\n";
  for (const auto& line : lines) block += line + "\n";
  return block;
}

void init_config_seeds(SeedWriter& seeds) {
  for (std::int32_t arch = 1; arch <= 6; ++arch) {
    InitConfig c = small_config(arch);
    seeds.add("fuzz_init_config", "arch" + std::to_string(arch), tools::format_init_text(c));
    c.tie_word_embeddings = c.has_qkv_bias = true;
    c.unembed_quant = static_cast<QuantFormat>(2 + arch % 5);
    c.lora_quant = QuantFormat::Q6_K;
    c.num_threads = 2;
    c.num_eos_tokens = 3;
    c.eos_tokens = {2, 7, 11};
    c.lora_dir = "/tmp/adapter";
    seeds.add("fuzz_init_config", "arch" + std::to_string(arch) + "-variant",
              tools::format_init_text(c) + request({"tokens=1,2,3", "max_tokens=4", "temperature=0"}));
  }
  // A real-sized shape: the estimate and the memory refusal.
  InitConfig large = small_config(1);
  large.hidden_dim = 2560;
  large.intermediate_dim = 6912;
  large.num_layers = 30;
  large.num_heads = 20;
  large.num_kv_heads = 5;
  large.vocab_size = 128256;
  large.max_position_embeddings = 4096;
  seeds.add("fuzz_init_config", "large", tools::format_init_text(large));
}

void model_file_seeds(SeedWriter& seeds) {
  for (std::int32_t arch = 1; arch <= 6; ++arch) {
    const InitConfig c = small_config(arch);
    const std::string name = "arch" + std::to_string(arch);
    seeds.add("fuzz_model_file", name, fuzz::encode_model_config(c, 2, false) + model_bytes(c));
    InitConfig variant = c;
    variant.tie_word_embeddings = variant.has_qkv_bias = true;
    variant.unembed_quant = static_cast<QuantFormat>(2 + arch % 5);
    variant.activation = 0;
    tools::ModelFileOptions v3;
    v3.version = arch % 2 == 0 ? 3 : 4;
    v3.sections = {{1, 0}, {4, 7}};
    seeds.add("fuzz_model_file", name + "-variant",
              fuzz::encode_model_config(variant, 3, false) + model_bytes(variant, v3));
  }
  // The rotary tables from the input as well.
  const InitConfig c = small_config(2);
  const std::string rope = rope_bytes(c.head_dim, c.max_position_embeddings);
  seeds.add("fuzz_model_file", "arch2-rope",
            fuzz::encode_model_config(c, 1, true) + u32_bytes(static_cast<std::uint32_t>(rope.size())) + rope +
                model_bytes(c));
}

void rope_seeds(SeedWriter& seeds) {
  // head_dim, positions, heads byte, rows, start
  const std::vector<std::vector<std::uint8_t>> shapes = {{8, 4, 0, 3, 0}, {16, 8, 1, 2, 5}, {64, 3, 3, 1, 2},
                                                         {128, 2, 1, 2, 0}};
  for (const auto& s : shapes) {
    const std::string prefix(s.begin(), s.end());
    seeds.add("fuzz_rope_cache", "d" + std::to_string(s[0]) + "-p" + std::to_string(s[1]),
              prefix + rope_bytes(s[0], s[1]));
  }
}

void lora_seeds(SeedWriter& seeds) {
  // The byte order of the harness: none, int8, q4_0, q5_0, q6_k, q8_0.
  for (std::uint8_t arch = 1; arch <= 6; ++arch) {
    const InitConfig config = fuzz::make_model_files(fuzz::tiny_model_args(arch)).config;
    tools::LoraFileOptions all;
    all.rank = 4;
    tools::LoraFileOptions some;
    some.rank = 1;
    some.targets = tools::parse_lora_targets("q,o,down");
    some.layer_targets[1] = tools::parse_lora_targets("none");
    const std::string a = std::to_string(arch);
    seeds.add("fuzz_lora_file", "arch" + a + "-all", std::string{char(arch % 6), char(arch - 1)} + lora_bytes(config, all));
    seeds.add("fuzz_lora_file", "arch" + a + "-some",
              std::string{char((arch + 3) % 6), char(arch - 1)} + lora_bytes(config, some));
  }
}

void request_seeds(SeedWriter& seeds) {
  seeds.add("fuzz_requests", "greedy", request({"tokens=11,17,3", "max_tokens=4", "temperature=0"}));
  seeds.add("fuzz_requests", "sampled",
            request({"tokens=5,9,21,30", "temperature=0.7", "top_k=5", "top_p=0.8", "repetition_penalty=1.3",
                     "rep_penalty_lookback=3", "max_tokens=6"}));
  seeds.add("fuzz_requests", "conversation",
            request({"tokens=1,2,3,4", "max_tokens=3", "temperature=0"}) +
                request({"tokens=8,9", "kv_position=8", "max_tokens=2"}) + request({"kv_position=12", "max_tokens=2"}));
  seeds.add("fuzz_requests", "full-context", request({"tokens=4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19", "temperature=0"}));
  seeds.add("fuzz_requests", "empty-then-end", request({}) + "0\n");
}

std::vector<float> ramp(std::size_t count) {
  std::vector<float> values(count);
  for (std::size_t i = 0; i < count; ++i) values[i] = static_cast<float>(i % 9) * 0.25f - 1.0f;
  return values;
}

void safetensors_seeds(SeedWriter& seeds) {
  using namespace convert::testing;
  seeds.add("fuzz_safetensors", "real",
            safetensors_bytes({{"model.embed_tokens.weight", "BF16", {4, 8}, bf16_bytes(ramp(32))},
                               {"model.norm.weight", "F32", {8}, f32_bytes(ramp(8))},
                               {"lm_head.weight", "F16", {4, 8}, f16_bytes(ramp(32))}},
                              {{"format", "pt"}}));
  // Packed ternary: four rows a byte, codes 0..2, and a scale beside it.
  seeds.add("fuzz_safetensors", "packed",
            safetensors_bytes({{"model.layers.0.self_attn.q_proj.weight", "U8", {2, 8}, std::string(16, '\x24')},
                               {"model.layers.0.self_attn.q_proj.weight_scale", "BF16", {1}, bf16_bytes({0.5f})},
                               {"bias", "I8", {3}, "\x01\xff\x7f"},
                               {"steps", "I64", {2}, std::string(16, '\0')}}));
}

// Metadata of every value kind and the keys the converter reads.
convert::testing::GgufBuilder gguf_metadata() {
  using namespace convert::testing;
  using quorvel::testing::ByteWriter;
  GgufBuilder gguf;
  gguf.str("general.architecture", "qwen3")
      .u32("qwen3.context_length", 4096)
      .u32("qwen3.embedding_length", 128)
      .u64("qwen3.block_count", 1)
      .f32("qwen3.attention.layer_norm_rms_epsilon", 1e-6f)
      .boolean("general.flag", true)
      .raw("general.u8", GGUF_U8, ByteWriter().u8(7).bytes())
      .raw("general.i16", GGUF_I16, ByteWriter().u16(0xfffe).bytes())
      .raw("general.i64", GGUF_I64, ByteWriter().u64(static_cast<std::uint64_t>(-5)).bytes())
      .raw("general.f64", GGUF_F64, ByteWriter().u64(std::bit_cast<std::uint64_t>(1.0)).bytes())
      .str("tokenizer.ggml.model", "gpt2")
      .strings("tokenizer.ggml.tokens", {"a", "b", "ab", "<|end|>"})
      .strings("tokenizer.ggml.merges", {"a b"})
      .i32s("tokenizer.ggml.token_type", {1, 1, 1, 3})
      .f32s("tokenizer.ggml.scores", {0.0f, 0.0f, -1.0f, 0.0f})
      .raw("general.bools", GGUF_ARRAY, ByteWriter().u32(GGUF_BOOL).u64(2).u8(1).u8(0).bytes())
      .u32("tokenizer.ggml.eos_token_id", 3);
  return gguf;
}

void gguf_seeds(SeedWriter& seeds) {
  using namespace convert::testing;
  // Every block type with bytes 0x3c: finite f16 and f32 scales, codes 0..3.
  const std::vector<TensorBytes> tensors = {
      {"token_embd.weight", "", {4, 8}, f32_bytes(ramp(32)), GGML_F32},
      {"output_norm.weight", "", {8}, f16_bytes(ramp(8)), GGML_F16},
      {"blk.0.attn_norm.weight", "", {8}, bf16_bytes(ramp(8)), GGML_BF16},
      {"blk.0.attn_q.weight", "", {2, 128}, std::string(36, '\x3c'), GGML_Q1_0},
      {"blk.0.attn_k.weight", "", {2, 64}, std::string(36, '\x3c'), GGML_Q2_0},
      {"blk.0.attn_v.weight", "", {1, 64}, std::string(68, '\x3c'), GGML_Q8_0},
      {"blk.0.attn_output.weight", "", {1, 256}, std::string(66, '\x3c'), GGML_TQ2_0},
      {"blk.0.ffn_up.weight", "", {2, 128}, std::string(96, '\x3c'), GGML_I2_S},
      {"blk.0.ffn_gate.weight", "", {1, 256}, std::string(144, '\x3c'), 12},  // Q4_K: listed, not read
      {"blk.0.ffn_down.weight", "", {3}, std::string("\x01\xff\x7f"), 24},   // I8
  };
  GgufBuilder every_type = gguf_metadata();
  for (const TensorBytes& t : tensors) every_type.tensor(t);
  seeds.add("fuzz_gguf", "every-type", every_type.bytes());
  GgufBuilder aligned = gguf_metadata();
  aligned.u32("general.alignment", 64);
  for (std::size_t i = 0; i < 4; ++i) aligned.tensor(tensors[i]);
  seeds.add("fuzz_gguf", "v2-aligned-64", aligned.bytes(2, 64));
  seeds.add("fuzz_gguf", "metadata-only", gguf_metadata().bytes());
}

// The harness's input: the document, then a NUL and a text to encode.
std::string with_text(const nlohmann::json& document, const std::string& text) {
  return document.dump() + std::string(1, '\0') + text;
}

void tokenizer_seeds(SeedWriter& seeds) {
  using quorvel::text::testing::small_tokenizer;
  using quorvel::text::testing::symbols_of;
  using nlohmann::json;
  const json plain = small_tokenizer({{"h", "e"}, {"l", "l"}, {"he", "ll"}, {"hell", "o"}, {" ", "w"}, {"o", "r"},
                                      {" w", "or"}, {"a", "b"}, {"ab", "c"}, {"\n", "\n"}, {"\xc3", "\xa9"}});
  seeds.add("fuzz_tokenizer_json", "plain", plain.dump());
  json pairs = plain;
  for (json& merge : pairs["model"]["merges"]) {
    const std::string text = merge.get<std::string>();
    const std::size_t space = text.find(' ');
    merge = json::array({text.substr(0, space), text.substr(space + 1)});
  }
  seeds.add("fuzz_tokenizer_json", "merge-pairs", with_text(pairs, "hello world\n\nab abc"));
  json whole_words = plain;
  whole_words["model"]["ignore_merges"] = true;
  whole_words["model"]["vocab"][symbols_of(" world")] = 500;
  seeds.add("fuzz_tokenizer_json", "ignore-merges", with_text(whole_words, "hello world worlds"));
  json added = plain;
  added["added_tokens"] = json::array(
      {{{"id", 1000}, {"content", "<|endoftext|>"}, {"special", true}, {"normalized", false}},
       {{"id", 1001}, {"content", "<x>"}, {"special", false}, {"normalized", true}, {"lstrip", false},
        {"rstrip", false}, {"single_word", false}},
       {{"id", 1002}, {"content", "<x><x>"}, {"special", true}}});
  seeds.add("fuzz_tokenizer_json", "added-tokens", with_text(added, "a<x><x><x>b<|endoftext|>c<|endof"));
  // Under NFC only added tokens matched as written load.
  json nfc = added;
  nfc["normalizer"] = {{"type", "NFC"}};
  nfc["added_tokens"][1]["normalized"] = false;
  seeds.add("fuzz_tokenizer_json", "nfc", with_text(nfc, "e\xcc\x81t\xc3\xa9 caf\xc3\xa9<x>"));
}

void api_request_seeds(SeedWriter& seeds) {
  seeds.add("fuzz_api_request", "chat",
            R"({"model":"m","messages":[{"role":"system","content":"Be brief."},{"role":"user","content":"Hi"}],)"
            R"("max_tokens":8,"temperature":0.7,"top_p":0.9,"top_k":40,"stop":["\n\n","END"],"stream":true,)"
            R"("stream_options":{"include_usage":true}})");
  seeds.add("fuzz_api_request", "chat-parts",
            R"({"messages":[{"role":"developer","content":[{"type":"text","text":"a"},{"type":"text","text":"b"}]},)"
            R"({"role":"assistant","content":null},{"role":"user","content":"\u00e9\ud83d\ude00"}],"seed":1,"temperature":0})");
  seeds.add("fuzz_api_request", "completion",
            R"({"prompt":"Once upon a time","max_completion_tokens":16,"repeat_penalty":1.1,"stop":"."})");
  seeds.add("fuzz_api_request", "refused", R"({"prompt":["a","b"],"n":2,"frequency_penalty":0.5,"logprobs":true})");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "Usage: " << argv[0] << " <corpus directory>\n";
    return 1;
  }
  fuzz::quiet_engine_messages();
  try {
    SeedWriter seeds{fs::path(argv[1])};
    init_config_seeds(seeds);
    model_file_seeds(seeds);
    rope_seeds(seeds);
    lora_seeds(seeds);
    request_seeds(seeds);
    safetensors_seeds(seeds);
    gguf_seeds(seeds);
    tokenizer_seeds(seeds);
    api_request_seeds(seeds);
  } catch (const std::exception& e) {
    std::cerr << "fuzz_make_seeds: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
