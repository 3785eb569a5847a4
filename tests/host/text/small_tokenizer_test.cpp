// Encoding rules on small hand-written tokenizers: merge order, both spellings of merges, ignore_merges,
// added tokens, and the refusal of input that is not UTF-8.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/text/text_error.h"
#include "host/text/tokenizer.h"
#include "tests/host/text/small_tokenizer.h"

namespace quorvel::text {
namespace {

using testing::json;
using testing::small_tokenizer;
using testing::write_tokenizer;

Tokenizer load(const json& document, const std::string& name) {
  const std::filesystem::path path = write_tokenizer(document, name);
  Tokenizer loaded(path);
  std::filesystem::remove(path);
  return loaded;
}

// The ids of single-byte tokens, which are the bytes' values.
std::vector<TokenId> bytes(const std::string& text) {
  std::vector<TokenId> ids;
  for (const char byte : text) ids.push_back(static_cast<unsigned char>(byte));
  return ids;
}

TEST(SmallTokenizer, MergesTheLowestRankFirstAndTheLeftmostOnATie) {
  // 256: "bc" outranks "ab" (257), so "abc" is a + bc, not ab + c.
  const Tokenizer tokenizer = load(small_tokenizer({{"b", "c"}, {"a", "b"}, {"a", "a"}}), "ranks");
  EXPECT_EQ(tokenizer.encode("abc"), (std::vector<TokenId>{'a', 256}));
  EXPECT_EQ(tokenizer.encode("ab"), (std::vector<TokenId>{257}));
  // "aaa": the leftmost pair merges first.
  EXPECT_EQ(tokenizer.encode("aaa"), (std::vector<TokenId>{258, 'a'}));
  EXPECT_EQ(tokenizer.encode("aaaa"), (std::vector<TokenId>{258, 258}));
  // Pieces are split before merging: the space starts a new piece.
  EXPECT_EQ(tokenizer.encode("ab ab"), (std::vector<TokenId>{257, ' ', 257}));
}

TEST(SmallTokenizer, BothSpellingsOfMergesGiveTheSameTokens) {
  json strings = small_tokenizer({{"h", "e"}, {"l", "l"}, {"he", "ll"}, {" ", "w"}});
  json pairs = strings;
  for (json& merge : pairs["model"]["merges"]) {
    const std::string text = merge.get<std::string>();
    merge = json::array({text.substr(0, text.find(' ')), text.substr(text.find(' ') + 1)});
  }
  const std::vector<TokenId> expected{258, 'o', 259, 'o', 'r', 'l', 'd'};
  EXPECT_EQ(load(strings, "strings").encode("hello world"), expected);
  EXPECT_EQ(load(pairs, "pairs").encode("hello world"), expected);
  // The document's text in memory loads the same tokenizer as its file.
  EXPECT_EQ(Tokenizer::from_json_text(pairs.dump(), "in-memory").encode("hello world"), expected);
}

TEST(SmallTokenizer, IgnoreMergesTakesAWholePieceThatIsInTheVocabulary) {
  // "abc" is a token (id 300) that no merge reaches: only ignore_merges finds it.
  json document = small_tokenizer({{"a", "b"}});
  document["model"]["vocab"]["abc"] = 300;
  EXPECT_EQ(load(document, "merging").encode("abc abcd"), (std::vector<TokenId>{256, 'c', ' ', 256, 'c', 'd'}));
  document["model"]["ignore_merges"] = true;
  EXPECT_EQ(load(document, "ignoring").encode("abc abcd"), (std::vector<TokenId>{300, ' ', 256, 'c', 'd'}));
}

TEST(SmallTokenizer, AddedTokensMatchLeftmostLongestAndSpecialOnesOnlyOnRequest) {
  json document = small_tokenizer({});
  document["added_tokens"] = json::array({
      {{"id", 300}, {"content", "<|a|>"}, {"special", true}},
      {{"id", 301}, {"content", "<|a|><|a|>"}, {"special", true}},
      {{"id", 302}, {"content", "<t>"}, {"special", false}},
  });
  const Tokenizer tokenizer = load(document, "added");
  EXPECT_EQ(tokenizer.encode("x<|a|><|a|><|a|>"), (std::vector<TokenId>{'x', 301, 300}));
  EXPECT_EQ(tokenizer.encode("<t><|a|>", false), (std::vector<TokenId>{302, '<', '|', 'a', '|', '>'}));
  EXPECT_EQ(tokenizer.decode({'x', 301, 302}), "x<|a|><|a|><t>");
}

TEST(SmallTokenizer, InputThatIsNotUtf8IsRefusedAtItsFirstBadByte) {
  const Tokenizer tokenizer = load(small_tokenizer({}), "utf8");
  const std::vector<std::pair<std::string, std::size_t>> cases{
      {"ab\x80", 2},                // a lone continuation byte
      {"abc\xC3", 3},               // a sequence cut off by the end
      {"\xC3(x", 0},                // a lead byte without its continuation
      {"ok \xC0\xAF", 3},           // an overlong form
      {"\xE2\x82\xAC \xED\xA0\x80", 4},  // a surrogate, after a valid euro sign
      {"\xF4\x90\x80\x80", 0},      // above U+10FFFF
      {"x\xFF", 1},
  };
  for (const auto& [text, offset] : cases) {
    try {
      tokenizer.encode(text);
      ADD_FAILURE() << "accepted byte " << offset;
    } catch (const TextError& error) {
      EXPECT_EQ(std::string(error.what()), "Error: input is not valid UTF-8 at byte " + std::to_string(offset));
    }
  }
  EXPECT_EQ(tokenizer.encode("\xF0\x9F\x98\x80"), (bytes("\xF0\x9F\x98\x80")));
}

TEST(SmallTokenizer, ARegexThatBacktracksWithoutEndIsStoppedWithAnError) {
  json document = small_tokenizer({});
  document["pre_tokenizer"]["pretokenizers"][0]["pattern"]["Regex"] = R"((\p{L}+\s?)+$|\S)";
  const Tokenizer tokenizer = load(document, "backtracking");
  EXPECT_EQ(tokenizer.encode("ab!"), (std::vector<TokenId>{'a', 'b', '!'}));
  try {
    tokenizer.encode(std::string(40, 'a') + "!");
    ADD_FAILURE() << "the match limit was not reached";
  } catch (const TextError& error) {
    EXPECT_EQ(std::string(error.what()), "Error: the pre-tokenizer regex failed on the input (match limit exceeded)");
  }
}

TEST(SmallTokenizer, DecodingAnIdWithoutATokenIsAnError) {
  const Tokenizer tokenizer = load(small_tokenizer({}), "decode");
  EXPECT_EQ(tokenizer.decode(bytes("hi")), "hi");
  for (const TokenId id : {256, -1, 1 << 30}) {
    EXPECT_THROW(
        {
          try {
            tokenizer.decode({id});
          } catch (const TextError& error) {
            EXPECT_EQ(std::string(error.what()), "Error: token id " + std::to_string(id) + " is not in the vocabulary");
            throw;
          }
        },
        TextError);
  }
}

}  // namespace
}  // namespace quorvel::text
