// tokenizer.json contents the tokenizer cannot encode exactly are refused with one message naming the file
// and what is unsupported, never guessed at.
#include <gtest/gtest.h>

#include <functional>
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

// The message of `load`, which must fail.
std::string message_of(const std::function<void()>& load, const std::string& what) {
  try {
    load();
  } catch (const TextError& error) {
    return error.what();
  }
  ADD_FAILURE() << what << " was accepted";
  return "";
}

// The message of loading `path`, which must fail.
std::string refusal(const std::filesystem::path& path) {
  const std::string message = message_of([&] { Tokenizer loaded(path); }, path.string());
  std::filesystem::remove(path);
  return message;
}

std::string refusal(const json& document, const std::string& name) {
  return refusal(write_tokenizer(document, name));
}

void expect_refusal(const std::string& message, const std::string& name, const std::string& problem) {
  EXPECT_EQ(message.rfind("Error: ", 0), 0u) << message;
  EXPECT_NE(message.find(name + ".json: "), std::string::npos) << message;
  EXPECT_NE(message.find(problem), std::string::npos) << message;
}

TEST(TokenizerRefusal, OtherModelsAndModelOptions) {
  json document = small_tokenizer({});
  document["model"]["type"] = "Unigram";
  expect_refusal(refusal(document, "unigram"), "unigram", "model type 'Unigram' is not supported");
  document = small_tokenizer({});
  document["model"]["byte_fallback"] = true;
  expect_refusal(refusal(document, "fallback"), "fallback", "byte_fallback true is not supported");
  document = small_tokenizer({});
  document["model"]["continuing_subword_prefix"] = "##";
  expect_refusal(refusal(document, "prefix"), "prefix", "continuing_subword_prefix is not supported");
}

TEST(TokenizerRefusal, OtherNormalizersAndPreTokenizers) {
  json document = small_tokenizer({});
  document["normalizer"] = {{"type", "NFKC"}};
  expect_refusal(refusal(document, "nfkc"), "nfkc", "normalizer 'NFKC' is not supported");
  document = small_tokenizer({});
  document["pre_tokenizer"] = {{"type", "Metaspace"}, {"replacement", "_"}};
  expect_refusal(refusal(document, "metaspace"), "metaspace", "pre_tokenizer is not supported");
  document = small_tokenizer({});
  document["pre_tokenizer"]["pretokenizers"][0]["behavior"] = "Removed";
  expect_refusal(refusal(document, "removed"), "removed", "pre_tokenizer is not supported");
  document = small_tokenizer({});
  document["pre_tokenizer"]["pretokenizers"][1]["use_regex"] = true;
  expect_refusal(refusal(document, "regex-twice"), "regex-twice", "pre_tokenizer is not supported");
  document = small_tokenizer({});
  document["pre_tokenizer"]["pretokenizers"][0]["pattern"]["Regex"] = "(unclosed";
  expect_refusal(refusal(document, "bad-regex"), "bad-regex", "the pre-tokenizer regex does not compile");
  document["pre_tokenizer"]["pretokenizers"][0]["pattern"]["Regex"] = R"(\s+|\C)";
  expect_refusal(refusal(document, "one-byte"), "one-byte", "does not compile at offset 6: using \\C is disabled");
}

TEST(TokenizerRefusal, VocabularyAndMergesThatDoNotFit) {
  json document = small_tokenizer({});
  document["model"]["vocab"].erase("a");
  expect_refusal(refusal(document, "no-byte"), "no-byte", "has no token for byte 97");
  document = small_tokenizer({});
  document["model"]["merges"].push_back("a q");
  expect_refusal(refusal(document, "merge"), "merge", "merge 0 joins tokens that are not in the vocabulary");
  document = small_tokenizer({});
  document["model"]["merges"].push_back("abc");
  expect_refusal(refusal(document, "merge-text"), "merge-text", "'abc' is not two symbols separated by a space");
  document = small_tokenizer({});
  document["model"]["merges"].push_back(json::array({"a", "b", "c"}));
  expect_refusal(refusal(document, "triple"), "triple", "merge 0 is not a pair of symbols");
  document = small_tokenizer({});
  document["model"]["vocab"]["\xe4\xb8\xad"] = 300;
  expect_refusal(refusal(document, "alphabet"), "alphabet", "is not written in the byte-level alphabet");
  document = small_tokenizer({});
  document["model"]["vocab"]["a"] = -3;
  expect_refusal(refusal(document, "negative"), "negative", "has an id outside 0..2097151");
  document = small_tokenizer({});
  document["model"]["vocab"]["a"] = "97";
  expect_refusal(refusal(document, "string-id"), "string-id", "model.vocab holds a string where a token id belongs");
  document = small_tokenizer({});
  document["model"].erase("merges");
  expect_refusal(refusal(document, "no-merges"), "no-merges", "model.merges is missing");
}

TEST(TokenizerRefusal, AddedTokenMatchingRulesThatAreNotImplemented) {
  for (const char* option : {"lstrip", "rstrip", "single_word"}) {
    json document = small_tokenizer({});
    document["added_tokens"].push_back({{"id", 300}, {"content", "<x>"}, {"special", true}, {option, true}});
    expect_refusal(refusal(document, option), option,
                   "added token '<x>': " + std::string(option) + " true is not supported");
    document["added_tokens"][0][option] = false;
    EXPECT_EQ(Tokenizer::from_json_text(document.dump(), option).encode("a<x>"), (std::vector<TokenId>{'a', 300}));
  }
  // Under NFC a normalized token would be looked for in the normalized text; a token that is not special
  // is normalized unless it says otherwise.
  json document = small_tokenizer({});
  document["normalizer"] = {{"type", "NFC"}};
  document["added_tokens"] = {{{"id", 300}, {"content", "<x>"}, {"special", false}}};
  expect_refusal(refusal(document, "nfc-plain"), "nfc-plain",
                 "added token '<x>': normalized true is not supported with the NFC normalizer");
  document["added_tokens"] = {{{"id", 300}, {"content", "<s>"}, {"special", true}, {"normalized", true}}};
  expect_refusal(refusal(document, "nfc-special"), "nfc-special", "added token '<s>': normalized true is not");
  document["added_tokens"] = {{{"id", 300}, {"content", "<x>"}, {"special", false}, {"normalized", false}},
                              {{"id", 301}, {"content", "<s>"}, {"special", true}}};
  EXPECT_EQ(Tokenizer::from_json_text(document.dump(), "nfc-raw").encode("<x><s>"), (std::vector<TokenId>{300, 301}));
  // Without a normalizer the normalized text is the text.
  document["normalizer"] = nullptr;
  document["added_tokens"][0]["normalized"] = true;
  EXPECT_EQ(Tokenizer::from_json_text(document.dump(), "raw").encode("<x><s>"), (std::vector<TokenId>{300, 301}));
}

TEST(TokenizerRefusal, BrokenFilesAndValues) {
  json document = small_tokenizer({});
  document["added_tokens"].push_back({{"id", 1.5}, {"content", "<x>"}});
  expect_refusal(refusal(document, "fraction"), "fraction", "added token '<x>' has an id that is not");
  expect_refusal(refusal(write_tokenizer(std::string("{\"model\": {\"vocab\": {"), "cut")), "cut", "is not valid JSON");
  expect_refusal(refusal(write_tokenizer(std::string("[1, 2]"), "list")), "list", "does not hold a JSON object");
  // A document in memory is named as its caller names it.
  expect_refusal(message_of([] { Tokenizer::from_json_text("{\"model\": 3", "in-memory.json"); }, "in-memory"),
                 "in-memory", "is not valid JSON");
  document = small_tokenizer({});
  document["normalizer"] = 7;
  expect_refusal(refusal(document, "shape"), "shape", "normalizer '' is not supported");
  const std::filesystem::path missing = std::filesystem::temp_directory_path() / "quorvel-text-missing.json";
  expect_refusal(refusal(missing), "quorvel-text-missing", "cannot be opened");
  const std::filesystem::path folder = std::filesystem::temp_directory_path() / "quorvel-text-folder.json";
  std::filesystem::create_directories(folder);
  expect_refusal(refusal(folder), "quorvel-text-folder", "is not a regular file");
}

TEST(TokenizerRefusal, AddedTokenIdsThatStandForOtherText) {
  // Decoding would not give back the text that was encoded.
  json document = small_tokenizer({});
  document["added_tokens"].push_back({{"id", 97}, {"content", "<x>"}});
  expect_refusal(refusal(document, "vocab-id"), "vocab-id",
                 "added token '<x>' has id 97, which model.vocab gives to other text");
  document["added_tokens"] = {{{"id", 300}, {"content", "<a>"}}, {{"id", 300}, {"content", "<b>"}}};
  expect_refusal(refusal(document, "shared-id"), "shared-id", "added tokens '<a>' and '<b>' have the same id 300");
  // The same text under the same id, in the vocabulary or listed twice, is no contradiction.
  document = small_tokenizer({{"a", "b"}});
  document["added_tokens"] = {
      {{"id", 256}, {"content", "ab"}}, {{"id", 300}, {"content", "<a>"}}, {{"id", 300}, {"content", "<a>"}}};
  const Tokenizer tokenizer = Tokenizer::from_json_text(document.dump(), "same-text");
  EXPECT_EQ(tokenizer.encode("<a>ab"), (std::vector<TokenId>{300, 256}));
  EXPECT_EQ(tokenizer.decode({300, 256}), "<a>ab");
}

}  // namespace
}  // namespace quorvel::text
