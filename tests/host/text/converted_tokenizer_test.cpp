// The tokenizer.json that quorvel-convert writes from a GGUF file's metadata loads in this library and
// encodes as the metadata says, with either split rule (qwen2 adds the NFC normalizer).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/text/tokenizer.h"
#include "tests/host/text/small_tokenizer.h"
#include "tools/convert/gguf_tokenizer.h"
#include "tools/tool_test_files.h"

namespace quorvel::text {
namespace {

// Every byte a token (ids 0..255), then "ab" (256), " ab" (257), a control token (258) and a user-defined
// one (259).
convert::GgufMetadata metadata_with_split_rule(const std::string& pre) {
  std::vector<std::string> tokens;
  for (unsigned byte = 0; byte < 256; ++byte) tokens.push_back(testing::symbol_of(byte));
  tokens.insert(tokens.end(), {"ab", testing::symbols_of(" ab"), "<|end|>", "<tool>"});
  std::vector<std::int64_t> types(tokens.size(), 1);
  types[258] = 3;
  types[259] = 4;
  convert::GgufMetadata metadata("model.gguf");
  metadata.add("general.architecture", std::string("llama"));
  metadata.add("tokenizer.ggml.model", std::string("gpt2"));
  metadata.add("tokenizer.ggml.pre", pre);
  metadata.add("tokenizer.ggml.tokens", tokens);
  metadata.add("tokenizer.ggml.token_type", types);
  metadata.add("tokenizer.ggml.merges", std::vector<std::string>{"a b", testing::symbols_of(" ") + " ab"});
  metadata.add("tokenizer.ggml.eos_token_id", std::uint64_t{258});
  return metadata;
}

TEST(ConvertedTokenizer, LoadsAndMatchesItsAddedTokens) {
  for (const char* pre : {"llama-bpe", "qwen2"}) {
    tools::testing::TempDir dir;
    ASSERT_TRUE(convert::write_gguf_tokenizer(metadata_with_split_rule(pre), dir.path()).written) << pre;
    const Tokenizer tokenizer(dir.path() / "tokenizer.json");
    EXPECT_EQ(tokenizer.encode("ab ab<tool>c<|end|>"), (std::vector<TokenId>{256, 257, 259, 'c', 258})) << pre;
    EXPECT_EQ(tokenizer.decode({259, 258}), "<tool><|end|>") << pre;
  }
}

}  // namespace
}  // namespace quorvel::text
