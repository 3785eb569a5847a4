#include "engine/init_config_parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/capture_stderr.h"

namespace quorvel {
namespace {

using testing::CaptureStderr;

// The message of the engine error that `run` throws; fails the test when
// nothing (or no engine error) is thrown.
std::string error_of(const std::function<void()>& run) {
  try {
    run();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  ADD_FAILURE() << "no std::runtime_error thrown";
  return {};
}

std::string parse_error(const KeyValueBlock& block) {
  return error_of([&] { parse_init_config(block); });
}

InitConfig parse_with(const std::string& key, const std::string& value) {
  return parse_init_config({{"arch_type", "1"}, {key, value}});
}

TEST(InitConfigDefaults, OnlyArchTypeGivesEveryOtherFieldItsDefault) {
  CaptureStderr capture;
  const InitConfig config = parse_init_config({{"arch_type", "1"}});
  EXPECT_EQ(config.arch_type, 1);
  EXPECT_EQ(config.activation, 1);
  EXPECT_EQ(config.hidden_dim, 4096u);
  EXPECT_EQ(config.intermediate_dim, 8192u);
  EXPECT_EQ(config.num_layers, 32u);
  EXPECT_EQ(config.num_heads, 32u);
  EXPECT_EQ(config.num_kv_heads, 8u);
  EXPECT_EQ(config.vocab_size, 32000u);
  EXPECT_EQ(config.head_dim, 128u);
  EXPECT_EQ(config.max_position_embeddings, 4096u);
  EXPECT_EQ(config.norm_eps, 1e-5);
  EXPECT_EQ(config.rope_theta, 10000.0);
  EXPECT_FALSE(config.tie_word_embeddings);
  EXPECT_FALSE(config.has_qkv_bias);
  EXPECT_FALSE(config.has_attn_sub_norm);
  EXPECT_FALSE(config.has_ffn_sub_norm);
  EXPECT_EQ(config.lora_quant, QuantFormat::NONE);
  EXPECT_EQ(config.unembed_quant, QuantFormat::INT8);
  EXPECT_EQ(config.num_threads, 0);
  EXPECT_EQ(config.num_eos_tokens, 0u);
  EXPECT_EQ(config.eos_tokens, (std::array<std::int64_t, kMaxEosTokens>{}));
  EXPECT_EQ(config.lora_dir, "");
  EXPECT_EQ(capture.text(), "");
}

TEST(InitConfigKeys, EveryKeyReachesItsOwnField) {
  const InitConfig config = parse_init_config({
      {"arch_type", "6"}, {"activation", "0"}, {"hidden_dim", "11"}, {"intermediate_dim", "12"},
      {"num_layers", "13"}, {"num_heads", "14"}, {"num_kv_heads", "15"}, {"vocab_size", "16"},
      {"head_dim", "17"}, {"max_position_embeddings", "18"}, {"norm_eps", "1e-6"},
      {"rope_theta", "500000.5"}, {"tie_word_embeddings", "1"}, {"has_qkv_bias", "1"},
      {"has_attn_sub_norm", "1"}, {"has_ffn_sub_norm", "1"}, {"lora_quant", "q8_0"},
      {"unembed_quant", "q6_k"}, {"num_threads", "-3"}, {"eos_tokens", "5,6"}, {"lora_dir", " /tmp/a=b "},
  });
  EXPECT_EQ(config.arch_type, 6);
  EXPECT_EQ(config.activation, 0);
  EXPECT_EQ(config.hidden_dim, 11u);
  EXPECT_EQ(config.intermediate_dim, 12u);
  EXPECT_EQ(config.num_layers, 13u);
  EXPECT_EQ(config.num_heads, 14u);
  EXPECT_EQ(config.num_kv_heads, 15u);
  EXPECT_EQ(config.vocab_size, 16u);
  EXPECT_EQ(config.head_dim, 17u);
  EXPECT_EQ(config.max_position_embeddings, 18u);
  EXPECT_EQ(config.norm_eps, 1e-6);
  EXPECT_EQ(config.rope_theta, 500000.5);
  EXPECT_TRUE(config.tie_word_embeddings);
  EXPECT_TRUE(config.has_qkv_bias);
  EXPECT_TRUE(config.has_attn_sub_norm);
  EXPECT_TRUE(config.has_ffn_sub_norm);
  EXPECT_EQ(config.lora_quant, QuantFormat::Q8_0);
  EXPECT_EQ(config.unembed_quant, QuantFormat::Q6_K);
  EXPECT_EQ(config.num_threads, -3);
  EXPECT_EQ(config.num_eos_tokens, 2u);
  EXPECT_EQ(config.eos_tokens, (std::array<std::int64_t, kMaxEosTokens>{5, 6}));
  EXPECT_EQ(config.lora_dir, " /tmp/a=b ");
}

TEST(InitConfigKeys, UnknownKeysAreWarnedAndIgnoredAndMatchingIsCaseSensitive) {
  CaptureStderr capture;
  const InitConfig config =
      parse_init_config({{"arch_type", "2"}, {"Hidden_dim", "1"}, {"hidden_dim ", "2"}, {"", "3"}});
  EXPECT_EQ(config.hidden_dim, 4096u);
  std::vector<std::string> lines = capture.lines();
  std::sort(lines.begin(), lines.end());  // a hash map's iteration order is arbitrary
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "Warning: unknown init config key ''",
                       "Warning: unknown init config key 'Hidden_dim'",
                       "Warning: unknown init config key 'hidden_dim '",
                   }));
}

TEST(InitConfigValues, OnlyALoneZeroClearsAFlag) {
  const std::pair<const char*, bool> cases[] = {
      {"0", false}, {"1", true}, {"y", true}, {"true", true}, {"false", true},
      {"00", true}, {"", true},  {" 0", true}, {"0\r", true},
  };
  for (const auto& [value, expected] : cases) {
    EXPECT_EQ(parse_with("has_qkv_bias", value).has_qkv_bias, expected) << "'" << value << "'";
  }
}

TEST(InitConfigValues, NumbersFollowTheStandardConversions) {
  EXPECT_EQ(parse_with("vocab_size", "-1").vocab_size, std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(parse_with("hidden_dim", "  2048xyz").hidden_dim, 2048u);
  EXPECT_EQ(parse_with("num_threads", " +7abc").num_threads, 7);
  EXPECT_EQ(parse_with("rope_theta", "1e6").rope_theta, 1e6);
  EXPECT_EQ(parse_init_config({{"arch_type", "  5th"}}).arch_type, 5);

  EXPECT_THROW(parse_with("hidden_dim", "abc"), std::invalid_argument);
  EXPECT_THROW(parse_with("norm_eps", ""), std::invalid_argument);
  EXPECT_THROW(parse_with("activation", "2147483648"), std::out_of_range);
  EXPECT_THROW(parse_with("head_dim", "18446744073709551616"), std::out_of_range);
}

TEST(InitConfigValues, QuantTextsAreLowerCasedBeforeMatching) {
  const std::pair<const char*, QuantFormat> cases[] = {
      {"none", QuantFormat::NONE}, {"BF16", QuantFormat::NONE}, {"Int8", QuantFormat::INT8},
      {"Q4_0", QuantFormat::Q4_0}, {"q5_0", QuantFormat::Q5_0}, {"Q6_K", QuantFormat::Q6_K},
      {"Q8_0", QuantFormat::Q8_0},
  };
  for (const auto& [text, format] : cases) {
    EXPECT_EQ(parse_quant_format("unembed_quant", text), format) << text;
    EXPECT_EQ(parse_with("lora_quant", text).lora_quant, format) << text;
  }
}

// What the carriage return of a CR LF host does to each kind of value: a
// number or token list still reads, a text names nothing any more.
TEST(InitConfigValues, ACarriageReturnEndsNumbersButStaysInTexts) {
  EXPECT_EQ(parse_with("hidden_dim", "2048\r").hidden_dim, 2048u);
  EXPECT_EQ(parse_with("norm_eps", "1e-6\r").norm_eps, 1e-6);
  EXPECT_EQ(parse_token_list("2,7\r"), (std::vector<std::int64_t>{2, 7}));
  EXPECT_EQ(parse_with("lora_dir", "/adapters\r").lora_dir, "/adapters\r");
  EXPECT_EQ(parse_error({{"arch_type", "1\r"}, {"unembed_quant", "int8\r"}}),
            "Unknown value for unembed_quant: int8\r");
}

TEST(TokenList, SplitsAtCommasSkipsEmptyPiecesAndWrapsNegatives) {
  using Ids = std::vector<std::int64_t>;
  EXPECT_EQ(parse_token_list("2,,7,"), (Ids{2, 7}));
  EXPECT_EQ(parse_token_list(""), Ids{});
  EXPECT_EQ(parse_token_list(",,,"), Ids{});
  EXPECT_EQ(parse_token_list("128001, 128009"), (Ids{128001, 128009}));
  EXPECT_EQ(parse_token_list("-1,18446744073709551615"), (Ids{-1, -1}));
  EXPECT_EQ(parse_token_list("3x,4"), (Ids{3, 4}));
  EXPECT_THROW(parse_token_list("1, ,2"), std::invalid_argument);
  EXPECT_THROW(parse_token_list("18446744073709551616"), std::out_of_range);
}

TEST(InitConfigEosTokens, UpToEightIdsFillTheFirstSlots) {
  const InitConfig eight = parse_with("eos_tokens", "1,2,3,4,5,6,7,8");
  EXPECT_EQ(eight.num_eos_tokens, 8u);
  EXPECT_EQ(eight.eos_tokens, (std::array<std::int64_t, kMaxEosTokens>{1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(parse_with("eos_tokens", ",").num_eos_tokens, 0u);
}

TEST(InitConfigChecks, EachBadValueHasItsOwnMessage) {
  const std::pair<KeyValueBlock, const char*> cases[] = {
      {{}, "Init config missing required key 'arch_type'"},
      {{{"hidden_dim", "64"}, {"arch", "1"}}, "Init config missing required key 'arch_type'"},
      {{{"arch_type", "1"}, {"activation", "2"}}, "Unknown activation type: 2"},
      {{{"arch_type", "1"}, {"activation", "-1"}}, "Unknown activation type: -1"},
      {{{"arch_type", "1"}, {"activation", "-2147483648"}}, "Unknown activation type: -2147483648"},
      {{{"arch_type", "1"}, {"eos_tokens", "1,2,3,4,5,6,7,8,9"}}, "Too many EOS tokens: 9"},
      // Unknown quant texts name the key and the lower-cased value.
      {{{"arch_type", "1"}, {"lora_quant", "Ternary"}}, "Unknown value for lora_quant: ternary"},
      {{{"arch_type", "1"}, {"unembed_quant", " Q8_0"}}, "Unknown value for unembed_quant:  q8_0"},
      {{{"arch_type", "1"}, {"unembed_quant", ""}}, "Unknown value for unembed_quant: "},
  };
  CaptureStderr capture;  // the unknown key "arch"
  for (const auto& [block, message] : cases) EXPECT_EQ(parse_error(block), message);
}

TEST(ReadInitConfig, NoBlockIsAFailureToRead) {
  for (const char* input : {"", "0\n", "-2\n", "2\narch_type=1\n"}) {
    std::istringstream in(input);
    CaptureStderr capture;
    EXPECT_EQ(error_of([&] { read_init_config(in); }), "Failed to read init config block") << input;
  }
}

TEST(ReadInitConfig, ParsesTheFirstBlockOnly) {
  std::istringstream in("2\narch_type=4\nhidden_dim=256\n1\narch_type=2\n");
  const InitConfig config = read_init_config(in);
  EXPECT_EQ(config.arch_type, 4);
  EXPECT_EQ(config.hidden_dim, 256u);
  std::string next;
  std::getline(in, next);
  EXPECT_EQ(next, "1");
}

TEST(UnsupportedFormats, FirstFailingCheckIsReported) {
  InitConfig config = parse_init_config({{"arch_type", "1"}});
  EXPECT_EQ(unsupported_format_message(config), std::nullopt);

  config = parse_with("unembed_quant", "BF16");
  EXPECT_EQ(unsupported_format_message(config), "Error: unembed_quant does not support 'none' or 'ternary'");
  config.unembed_quant = QuantFormat::TERNARY;
  EXPECT_EQ(unsupported_format_message(config), "Error: unembed_quant does not support 'none' or 'ternary'");

  // No text selects TERNARY for LoRA, but a record can still hold it.
  config.lora_quant = QuantFormat::TERNARY;
  EXPECT_EQ(unsupported_format_message(config), "Error: lora_quant does not support 'ternary'");

  config = parse_with("lora_quant", "bf16");
  EXPECT_EQ(unsupported_format_message(config), std::nullopt);
}

}  // namespace
}  // namespace quorvel
