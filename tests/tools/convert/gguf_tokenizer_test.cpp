#include "tools/convert/gguf_tokenizer.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include <nlohmann/json.hpp>

#include "tools/convert/convert_error.h"
#include "tools/tool_test_files.h"

namespace quorvel::convert {
namespace {

using nlohmann::json;
using tools::testing::read_text;
using tools::testing::TempDir;
using Values = std::map<std::string, GgufValue>;

// A byte-level vocabulary of six pieces, two control tokens (bos, eos) and
// one user-defined token.
Values llama_bpe_values() {
  return {
      {"general.architecture", std::string("llama")},
      {"llama.context_length", std::uint64_t{8192}},
      {"tokenizer.ggml.model", std::string("gpt2")},
      {"tokenizer.ggml.pre", std::string("llama-bpe")},
      {"tokenizer.ggml.tokens",
       std::vector<std::string>{"a", "b", "c", "Ġ", "ab", "Ġab", "<|begin|>", "<|end|>", "<tool>"}},
      {"tokenizer.ggml.token_type", std::vector<std::int64_t>{1, 1, 1, 1, 1, 1, 3, 3, 4}},
      {"tokenizer.ggml.scores", std::vector<double>(9, 0.0)},
      {"tokenizer.ggml.merges", std::vector<std::string>{"a b", "Ġ ab"}},
      {"tokenizer.ggml.bos_token_id", std::uint64_t{6}},
      {"tokenizer.ggml.eos_token_id", std::uint64_t{7}},
      {"tokenizer.chat_template", std::string("{{ bos_token }}{{ messages }}")},
  };
}

GgufMetadata metadata_of(const Values& values) {
  GgufMetadata metadata("model.gguf");
  for (const auto& [key, value] : values) metadata.add(key, value);
  return metadata;
}

json read_json(const std::filesystem::path& file) { return json::parse(read_text(file)); }

std::string split_regex(const json& tokenizer) {
  return tokenizer["pre_tokenizer"]["pretokenizers"][0]["pattern"]["Regex"];
}

TEST(GgufTokenizer, WritesLlamaBpeVocabMergesAndAddedTokens) {
  TempDir dir;
  const TokenizerExport result = write_gguf_tokenizer(metadata_of(llama_bpe_values()), dir.path());
  ASSERT_TRUE(result.written) << result.note;
  EXPECT_EQ(result.note,
            "tokenizer: wrote tokenizer.json (byte-level BPE, 9 tokens, 2 merges, llama-bpe split) and "
            "tokenizer_config.json");

  const json tokenizer = read_json(dir.path() / "tokenizer.json");
  const json& model = tokenizer["model"];
  EXPECT_EQ(model["type"], "BPE");
  EXPECT_EQ(model["vocab"], (json{{"a", 0}, {"b", 1}, {"c", 2}, {"Ġ", 3}, {"ab", 4}, {"Ġab", 5}}));
  EXPECT_EQ(model["merges"], (json{"a b", "Ġ ab"}));
  EXPECT_EQ(model["ignore_merges"], true);
  EXPECT_TRUE(tokenizer["normalizer"].is_null());
  EXPECT_EQ(split_regex(tokenizer),
            R"((?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?\p{L}+|\p{N}{1,3}| ?[^\s\p{L}\p{N}]+[\r\n]*|)"
            R"(\s*[\r\n]+|\s+(?!\S)|\s+)");

  const json& added = tokenizer["added_tokens"];
  ASSERT_EQ(added.size(), 3u);
  EXPECT_EQ(added[0]["id"], 6);
  EXPECT_EQ(added[0]["content"], "<|begin|>");
  EXPECT_EQ(added[0]["special"], true);
  EXPECT_EQ(added[0]["normalized"], false);
  EXPECT_EQ(added[2]["id"], 8);
  EXPECT_EQ(added[2]["content"], "<tool>");
  EXPECT_EQ(added[2]["special"], false);
  EXPECT_EQ(added[2]["normalized"], false);

  const json config = read_json(dir.path() / "tokenizer_config.json");
  EXPECT_EQ(config["bos_token"], "<|begin|>");
  EXPECT_EQ(config["eos_token"], "<|end|>");
  EXPECT_EQ(config["chat_template"], "{{ bos_token }}{{ messages }}");
  EXPECT_EQ(config["model_max_length"], 8192);
  EXPECT_EQ(config["added_tokens_decoder"]["7"]["content"], "<|end|>");
  EXPECT_EQ(config["added_tokens_decoder"]["8"]["special"], false);
  EXPECT_EQ(config["added_tokens_decoder"].size(), 3u);
}

TEST(GgufTokenizer, Qwen2SplitsSingleDigitsAndNormalizesNfc) {
  Values values = llama_bpe_values();
  values["tokenizer.ggml.pre"] = std::string("qwen2");
  TempDir dir;
  ASSERT_TRUE(write_gguf_tokenizer(metadata_of(values), dir.path()).written);

  const json tokenizer = read_json(dir.path() / "tokenizer.json");
  EXPECT_EQ(tokenizer["normalizer"], (json{{"type", "NFC"}}));
  EXPECT_EQ(tokenizer["model"]["ignore_merges"], false);
  EXPECT_EQ(split_regex(tokenizer),
            R"((?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?\p{L}+|\p{N}| ?[^\s\p{L}\p{N}]+[\r\n]*|)"
            R"(\s*[\r\n]+|\s+(?!\S)|\s+)");
}

TEST(GgufTokenizer, WithoutTokenTypesOnlyBosAndEosAreAdded) {
  Values values = llama_bpe_values();
  values.erase("tokenizer.ggml.token_type");
  values["tokenizer.ggml.bos_token_id"] = std::uint64_t{7};
  values["tokenizer.ggml.eos_token_id"] = std::uint64_t{6};
  TempDir dir;
  ASSERT_TRUE(write_gguf_tokenizer(metadata_of(values), dir.path()).written);

  const json tokenizer = read_json(dir.path() / "tokenizer.json");
  ASSERT_EQ(tokenizer["added_tokens"].size(), 2u);
  EXPECT_EQ(tokenizer["added_tokens"][0]["id"], 6);
  EXPECT_EQ(tokenizer["added_tokens"][1]["id"], 7);
  EXPECT_EQ(tokenizer["added_tokens"][1]["special"], true);
  EXPECT_EQ(tokenizer["model"]["vocab"]["<tool>"], 8);
  EXPECT_EQ(read_json(dir.path() / "tokenizer_config.json")["bos_token"], "<|end|>");
}

struct Unexported {
  const char* key;
  const char* value;  // nullptr removes the key
  const char* note_part;
};

TEST(GgufTokenizer, OtherTokenizersAreLeftToTheUser) {
  const Unexported cases[] = {
      {"tokenizer.ggml.model", "llama", "a 'llama' (sentencepiece) tokenizer; only byte-level BPE"},
      {"tokenizer.ggml.model", nullptr, "carries no tokenizer"},
      {"tokenizer.ggml.pre", "deepseek-coder",
       "'deepseek-coder', whose split rule is not known (known: llama-bpe, llama3, qwen2)"},
      {"tokenizer.ggml.pre", nullptr, "no pre-tokenizer"},
  };
  for (const Unexported& c : cases) {
    Values values = llama_bpe_values();
    values.erase(c.key);
    if (c.value) values[c.key] = std::string(c.value);
    TempDir dir;
    const TokenizerExport result = write_gguf_tokenizer(metadata_of(values), dir.path());
    EXPECT_FALSE(result.written) << c.note_part;
    EXPECT_NE(result.note.find(c.note_part), std::string::npos) << result.note;
    EXPECT_TRUE(std::filesystem::is_empty(dir.path())) << c.note_part;
  }
}

struct Contradiction {
  const char* key;
  GgufValue value;
  const char* message;
};

TEST(GgufTokenizer, ContradictoryMetadataIsRefusedByKey) {
  using Strings = std::vector<std::string>;
  const Contradiction cases[] = {
      {"tokenizer.ggml.token_type", std::vector<std::int64_t>(8, 1),
       "key 'tokenizer.ggml.token_type' has 8 entries for 9 tokens"},
      {"tokenizer.ggml.scores", std::vector<double>(10, 0.0),
       "key 'tokenizer.ggml.scores' has 10 entries for 9 tokens"},
      {"tokenizer.ggml.tokens", Strings{"a", "b", "c", "Ġ", "ab", "Ġab", "<|begin|>", "<|end|>", "b"},
       "key 'tokenizer.ggml.tokens' lists 'b' twice (ids 1 and 8)"},
      {"tokenizer.ggml.merges", Strings{"a b", "ab"},
       "key 'tokenizer.ggml.merges' has merge 1 ('ab'), which is not two symbols separated by one space"},
      {"tokenizer.ggml.merges", Strings{"a  b"}, "merge 0 ('a  b'), which is not two symbols"},
      {"tokenizer.ggml.merges", Strings{"a b", "Ġ "}, "merge 1 ('Ġ '), which is not two symbols"},
      {"tokenizer.ggml.merges", Strings{"a b", "b x"}, "merge 1 ('b x'), which needs 'x', not in the vocabulary"},
      {"tokenizer.ggml.merges", Strings{"b c"}, "merge 0 ('b c'), which needs 'bc', not in the vocabulary"},
      {"tokenizer.ggml.merges", Strings{"a <tool>"}, "needs '<tool>', not in the vocabulary"},
      {"tokenizer.ggml.bos_token_id", std::uint64_t{9}, "key 'tokenizer.ggml.bos_token_id' is 9, outside the 9 tokens"},
      {"tokenizer.ggml.token_type", std::string("normal"), "key 'tokenizer.ggml.token_type' must be a list"},
      {"tokenizer.chat_template", std::string("\xff\xfe"), "holds text that is not valid UTF-8"},
  };
  for (const Contradiction& c : cases) {
    Values values = llama_bpe_values();
    values[c.key] = c.value;
    TempDir dir;
    try {
      write_gguf_tokenizer(metadata_of(values), dir.path());
      ADD_FAILURE() << "accepted: " << c.message;
    } catch (const ConvertError& error) {
      const std::string what = error.what();
      EXPECT_EQ(what.rfind("model.gguf: ", 0), 0u) << what;
      EXPECT_NE(what.find(c.message), std::string::npos) << what;
    }
    EXPECT_TRUE(std::filesystem::is_empty(dir.path())) << c.message;
  }
}

}  // namespace
}  // namespace quorvel::convert
