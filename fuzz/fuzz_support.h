// What the harnesses share: quiet engine messages, one-time settings, tiny
// model directories written with the tools library and kept in memory, and
// the byte layouts that both the harnesses and the seed writer use.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

#include "engine/init_config_parser.h"
#include "io/model_header.h"
#include "io/rope_header.h"
#include "models/model_base.h"
#include "runtime/thread_pool.h"
#include "tools/lib/init_text_writer.h"
#include "tools/lib/model_file_writer.h"
#include "tools/lib/rope_cache_writer.h"
#include "tools/lib/tool_commands.h"

namespace quorvel::fuzz {

namespace fs = std::filesystem;

// No model is built past this estimate, so that no input can make the
// fuzzer allocate gigabytes; the memory check of start-up gets it as the
// machine's size.
inline constexpr std::uint64_t kMemoryCap = 64ull << 20;

// A stream buffer that drops everything.
class NullBuffer final : public std::streambuf {
 protected:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// Engine messages (warnings, header and short-read reports) go to std::cerr;
// at tens of thousands of inputs a second they would drown the fuzzer's own
// output. QUORVEL_FUZZ_VERBOSE=1 keeps them, for reproducing one input.
// Sanitizer reports are written to the descriptor directly and stay.
inline void quiet_engine_messages() {
  static NullBuffer null_buffer;
  const char* verbose = std::getenv("QUORVEL_FUZZ_VERBOSE");
  if (verbose == nullptr || std::string_view(verbose) == "0") std::cerr.rdbuf(&null_buffer);
}

// A line about how an input ended, seen only with QUORVEL_FUZZ_VERBOSE=1.
inline void note(const std::string& text) { std::cerr << "[fuzz] " << text << std::endl; }

// One pool thread unless QUORVEL_FUZZ_THREADS says otherwise: the workers of
// a larger pool spin between jobs and would take cores from the fuzzer.
inline void set_fuzz_threads() {
  const char* text = std::getenv("QUORVEL_FUZZ_THREADS");
  set_thread_count(text != nullptr ? std::atoi(text) : 1);
}

// Takes bytes from the front of an input; reads past the end give zeros.
class ByteReader {
 public:
  ByteReader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  std::uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
  std::uint32_t u32() {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value |= static_cast<std::uint32_t>(byte()) << (8 * i);
    return value;
  }
  // Up to `n` bytes, fewer at the end of the input.
  std::string take(std::size_t n) {
    const std::size_t count = n < size_ - pos_ ? n : size_ - pos_;
    std::string bytes(reinterpret_cast<const char*>(data_ + pos_), count);
    pos_ += count;
    return bytes;
  }
  std::string rest() { return take(size_ - pos_); }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
};

// A width from one byte: below 0x80 the raw value (0..127, so zeros and odd
// widths are reached), from 0x80 on a multiple of 32 (0..4064, so that whole
// groups of 128 are reached too).
inline std::uint64_t width_from_byte(std::uint8_t b) {
  return (b & 0x80) != 0 ? std::uint64_t{b & 0x7fu} * 32 : std::uint64_t{b};
}
// The inverse for the seed writer; throws for widths that no byte gives.
inline std::uint8_t byte_for_width(std::uint64_t width) {
  if (width < 0x80) return static_cast<std::uint8_t>(width);
  if (width % 32 == 0 && width / 32 < 0x80) return static_cast<std::uint8_t>(0x80 | (width / 32));
  throw std::invalid_argument("no byte encodes width " + std::to_string(width));
}

// The first kModelConfigBytes bytes of a fuzz_model_file input:
//   0 arch_type % 8           1 hidden_dim (width)        2 intermediate_dim (width)
//   3 head_dim (width)        4 num_heads & 15            5 num_kv_heads & 15
//   6 vocab_size (width)      7 num_layers & 7            8 max_position_embeddings (width)
//   9 flags: 1 tied, 2 qkv bias, 4 activation, 8 rope stream from the input,
//            16 attention sub-norm, 32 feed-forward sub-norm
//  10 unembed_quant % 7 (the raw format codes, NONE and TERNARY included)
//  11 prompt tokens % 4 for one forward pass after loading (0: none)
// With flag 8 a little-endian u32 length L and L bytes of "rope.cache"
// follow; the rest is "qmodel.tensors".
inline constexpr std::size_t kModelConfigBytes = 12;
inline constexpr std::uint8_t kRopeFromInput = 8;

struct ModelInput {
  InitConfig config;
  bool rope_from_input = false;
  std::uint8_t prompt_tokens = 0;
};

inline ModelInput decode_model_config(ByteReader& in) {
  ModelInput input;
  InitConfig& c = input.config;
  c.arch_type = in.byte() % 8;
  c.hidden_dim = width_from_byte(in.byte());
  c.intermediate_dim = width_from_byte(in.byte());
  c.head_dim = width_from_byte(in.byte());
  c.num_heads = in.byte() & 15u;
  c.num_kv_heads = in.byte() & 15u;
  c.vocab_size = width_from_byte(in.byte());
  c.num_layers = in.byte() & 7u;
  c.max_position_embeddings = width_from_byte(in.byte());
  const std::uint8_t flags = in.byte();
  c.tie_word_embeddings = (flags & 1) != 0;
  c.has_qkv_bias = (flags & 2) != 0;
  c.activation = (flags & 4) != 0 ? 1 : 0;
  input.rope_from_input = (flags & kRopeFromInput) != 0;
  c.has_attn_sub_norm = (flags & 16) != 0;
  c.has_ffn_sub_norm = (flags & 32) != 0;
  c.unembed_quant = static_cast<QuantFormat>(in.byte() % 7);
  input.prompt_tokens = in.byte() % 4;
  c.num_eos_tokens = 1;
  c.eos_tokens[0] = 0;
  return input;
}

inline std::string encode_model_config(const InitConfig& c, std::uint8_t prompt_tokens, bool rope_from_input) {
  std::string bytes;
  auto put = [&](std::uint64_t b) { bytes.push_back(static_cast<char>(b)); };
  put(static_cast<std::uint64_t>(c.arch_type));
  put(byte_for_width(c.hidden_dim));
  put(byte_for_width(c.intermediate_dim));
  put(byte_for_width(c.head_dim));
  put(c.num_heads);
  put(c.num_kv_heads);
  put(byte_for_width(c.vocab_size));
  put(c.num_layers);
  put(byte_for_width(c.max_position_embeddings));
  put((c.tie_word_embeddings ? 1u : 0u) | (c.has_qkv_bias ? 2u : 0u) | (c.activation != 0 ? 4u : 0u) |
      (rope_from_input ? kRopeFromInput : 0u) | (c.has_attn_sub_norm ? 16u : 0u) | (c.has_ffn_sub_norm ? 32u : 0u));
  put(static_cast<std::uint64_t>(c.unembed_quant));
  put(prompt_tokens);
  return bytes;
}

// A valid "rope.cache" image: the header, then cosines of 1 and sines of 0
// (the tables' values do not matter to memory safety).
inline std::string synthesize_rope(std::uint64_t head_dim, std::uint64_t positions) {
  std::string bytes = "QVRC";
  auto put_u32 = [&](std::uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<char>(v >> (8 * i)));
  };
  put_u32(kRopeCacheVersion);
  put_u32(0);
  const std::uint64_t values = head_dim * positions;
  bytes.reserve(bytes.size() + values * 8);
  for (std::uint64_t i = 0; i < values; ++i) put_u32(0x3f800000u);  // 1.0f
  bytes.append(values * 4, '\0');
  return bytes;
}

inline std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A fresh directory under the temporary folder, removed with the object.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "quorvel-fuzz-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

// A model directory's files, in memory, and its parsed init config.
struct ModelFiles {
  InitConfig config;
  std::string tensors;
  std::string rope;
  std::string init_text;
};

// Small shapes that every architecture loads (the per-head norms of arch 4
// to 6 need head_dim 128), with grouped-query attention (two query heads per
// key/value head) and a vocabulary that is no multiple of 32; `extra` adds
// quorvel-make-model options.
inline std::vector<std::string> tiny_model_args(int arch, std::vector<std::string> extra = {}) {
  std::vector<std::string> args = {"--arch",  std::to_string(arch), "--hidden", "128", "--intermediate", "256",
                                   "--layers", "2", "--heads", "2", "--kv-heads", "1", "--head-dim", "128",
                                   "--vocab", "48", "--max-pos", "24", "--eos", "2"};
  args.insert(args.end(), extra.begin(), extra.end());
  return args;
}

// Runs quorvel-make-model with `args` into a temporary directory and reads
// the files back; throws with the tool's message when it refuses.
inline ModelFiles make_model_files(const std::vector<std::string>& args) {
  TempDir dir;
  std::vector<std::string_view> argv{dir.path().native()};
  for (const auto& a : args) argv.push_back(a);
  std::ostringstream err;
  if (tools::run_make_model(argv, err) != 0) throw std::runtime_error("quorvel-make-model: " + err.str());
  ModelFiles files;
  files.tensors = read_file(dir.path() / tools::kModelFileName);
  files.rope = read_file(dir.path() / tools::kRopeCacheFileName);
  files.init_text = read_file(dir.path() / tools::kInitTextFileName);
  std::istringstream init(files.init_text);
  files.config = read_init_config(init);
  files.config.lora_dir.clear();  // the directory is gone; adapters come from the input
  return files;
}

// Builds the model of `files` under `config` (which it borrows: keep it
// alive) the way start-up does after its checks.
inline std::unique_ptr<ModelBase> load_model(const ModelFiles& files, const InitConfig& config) {
  std::istringstream tensors(files.tensors);
  std::istringstream rope(files.rope);
  if (!check_model_header(tensors, config.arch_type, nullptr) || !check_rope_header(rope, kRopeCacheVersion)) {
    throw std::logic_error("the tools wrote a model whose headers the engine refuses");
  }
  return create_model(tensors, rope, config);
}

}  // namespace quorvel::fuzz
