// "init.txt" must read back through the engine's own block reader and
// parser into the record it was written from, with no key the engine does
// not know.
#include "tools/lib/init_text_writer.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

#include "engine/init_config_parser.h"
#include "engine/key_value_block.h"
#include "tools/tool_test_files.h"

namespace quorvel::tools {
namespace {

// Parses `text` as the engine does, failing the test on any warning (such as
// a line without '='), on a count that differs from the lines that follow, or
// on text left after the block.
InitConfig engine_reading(const std::string& text) {
  std::istringstream in(text);
  testing::CapturedCerr warnings;
  KeyValueBlock block;
  const std::int32_t count = read_block(in, block);
  EXPECT_EQ(count, static_cast<std::int32_t>(block.size()));
  const InitConfig config = parse_init_config(block);
  EXPECT_EQ(warnings.text(), "");
  std::string rest;
  EXPECT_FALSE(std::getline(in, rest)) << "text after the block: " << rest;
  return config;
}

InitConfig unusual_config() {
  InitConfig c;
  c.arch_type = 5;
  c.activation = 0;
  c.hidden_dim = 2560;
  c.intermediate_dim = 6912;
  c.num_layers = 30;
  c.num_heads = 20;
  c.num_kv_heads = 5;
  c.vocab_size = 128256;
  c.head_dim = 128;
  c.max_position_embeddings = 131072;
  c.norm_eps = 1.0e-6;
  c.rope_theta = 1.0e6 / 3.0;  // no short decimal form: needs every digit
  c.tie_word_embeddings = true;
  c.has_qkv_bias = true;
  c.has_attn_sub_norm = true;
  c.has_ffn_sub_norm = false;
  c.lora_quant = QuantFormat::Q8_0;
  c.unembed_quant = QuantFormat::Q6_K;
  c.num_threads = 3;
  c.num_eos_tokens = 3;
  c.eos_tokens = {128001, 128009, -7, 0, 0, 0, 0, 0};
  c.lora_dir = "/models/adapter dir";
  return c;
}

void expect_same_record(const InitConfig& got, const InitConfig& want) {
  EXPECT_EQ(got.arch_type, want.arch_type);
  EXPECT_EQ(got.activation, want.activation);
  EXPECT_EQ(got.hidden_dim, want.hidden_dim);
  EXPECT_EQ(got.intermediate_dim, want.intermediate_dim);
  EXPECT_EQ(got.num_layers, want.num_layers);
  EXPECT_EQ(got.num_heads, want.num_heads);
  EXPECT_EQ(got.num_kv_heads, want.num_kv_heads);
  EXPECT_EQ(got.vocab_size, want.vocab_size);
  EXPECT_EQ(got.head_dim, want.head_dim);
  EXPECT_EQ(got.max_position_embeddings, want.max_position_embeddings);
  EXPECT_EQ(got.norm_eps, want.norm_eps);
  EXPECT_EQ(got.rope_theta, want.rope_theta);
  EXPECT_EQ(got.tie_word_embeddings, want.tie_word_embeddings);
  EXPECT_EQ(got.has_qkv_bias, want.has_qkv_bias);
  EXPECT_EQ(got.has_attn_sub_norm, want.has_attn_sub_norm);
  EXPECT_EQ(got.has_ffn_sub_norm, want.has_ffn_sub_norm);
  EXPECT_EQ(got.lora_quant, want.lora_quant);
  EXPECT_EQ(got.unembed_quant, want.unembed_quant);
  EXPECT_EQ(got.num_threads, want.num_threads);
  EXPECT_EQ(got.num_eos_tokens, want.num_eos_tokens);
  EXPECT_EQ(got.eos_tokens, want.eos_tokens);
  EXPECT_EQ(got.lora_dir, want.lora_dir);
}

TEST(InitTextWriter, UnusualValuesRoundTripThroughTheEngineParser) {
  const InitConfig written = unusual_config();
  const std::string text = format_init_text(written);
  EXPECT_EQ(text.substr(0, 15), "21\narch_type=5\n");  // every field but the derived EOS count
  expect_same_record(engine_reading(text), written);
}

TEST(InitTextWriter, DefaultsRoundTripWithAnEmptyEosListAndNoLoraDir) {
  InitConfig written;
  written.arch_type = 1;
  const std::string text = format_init_text(written);
  EXPECT_NE(text.find("\neos_tokens=\n"), std::string::npos);
  EXPECT_EQ(text.find("lora_dir"), std::string::npos);
  expect_same_record(engine_reading(text), written);
}

TEST(InitTextWriter, RefusesAFormatWithoutConfigText) {
  InitConfig config;
  config.lora_quant = QuantFormat::TERNARY;
  EXPECT_THROW(format_init_text(config), std::invalid_argument);
}

}  // namespace
}  // namespace quorvel::tools
