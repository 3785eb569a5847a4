// The published Llama 3 and Qwen3 tokenizer.json files against the ids the JavaScript tokenizer gives for a
// corpus of inputs that are hard to tokenize (expected_ids.json, written by make_expected_ids.mjs).
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/text/chat_format.h"
#include "host/text/nfc.h"
#include "host/text/stream_decoder.h"
#include "host/text/tokenizer.h"
#include "host/text/utf8.h"

namespace quorvel::text {
namespace {

using nlohmann::json;

const json& expected() {
  static const json ids = [] {
    std::ifstream in(QUORVEL_EXPECTED_IDS);
    return json::parse(in);
  }();
  return ids;
}

std::vector<std::string> corpus() { return expected()["corpus"].get<std::vector<std::string>>(); }

struct Fixture {
  const char* name;
  const char* path;
  bool nfc;
};

class FixtureTokenizer : public ::testing::TestWithParam<Fixture> {
 protected:
  const Tokenizer& tokenizer() {
    static std::map<std::string, std::unique_ptr<Tokenizer>> loaded;
    auto& slot = loaded[GetParam().name];
    if (!slot) slot = std::make_unique<Tokenizer>(GetParam().path);
    return *slot;
  }
  std::vector<TokenId> expected_ids(const char* mode, std::size_t entry) {
    return expected()["tokenizers"][GetParam().name][mode][entry].get<std::vector<TokenId>>();
  }
};

TEST_P(FixtureTokenizer, EncodesTheCorpusLikeTheReferenceWithSpecialTokensOnAndOff) {
  const std::vector<std::string> texts = corpus();
  ASSERT_GT(texts.size(), 10u);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    EXPECT_EQ(tokenizer().encode(texts[i], true), expected_ids("special_on", i)) << "entry " << i << ": " << texts[i];
    EXPECT_EQ(tokenizer().encode(texts[i], false), expected_ids("special_off", i)) << "entry " << i << ": " << texts[i];
  }
}

TEST_P(FixtureTokenizer, SpecialTokenTextIsOneIdOnlyWithMatchingOn) {
  const std::string eot = GetParam().nfc ? "<|im_end|>" : "<|eot_id|>";
  const TokenId eot_id = GetParam().nfc ? 151645 : 128009;
  EXPECT_EQ(tokenizer().encode(eot, true), std::vector<TokenId>{eot_id});
  const std::vector<TokenId> plain = tokenizer().encode(eot, false);
  EXPECT_GT(plain.size(), 1u);
  EXPECT_EQ(std::count(plain.begin(), plain.end(), eot_id), 0);
  EXPECT_EQ(tokenizer().decode(plain), eot);
}

// A chat turn: markup around a message. The message's special-token text is
// plain text, and ordinary text runs on across the parts as in one string
// (the BitNet format's "User: " is followed by the message's first word).
TEST_P(FixtureTokenizer, ChatPartsMatchSpecialTokensOnlyInTheMarkup) {
  const ChatFormat format = ChatFormat::named(GetParam().nfc ? "chatml" : "bitnet");
  bool saw_special_text = false;
  for (const std::string& text : corpus()) {
    const std::vector<ChatMessage> turn{{"user", text}};
    const std::vector<TokenId> ids = tokenizer().encode(format.render(turn));
    const std::string whole = joined(format.render(turn));
    EXPECT_EQ(tokenizer().decode(ids), GetParam().nfc ? to_nfc(whole) : whole);
    const std::vector<TokenId> as_one_string = tokenizer().encode(whole);
    if (tokenizer().encode(text, false) == tokenizer().encode(text, true)) {
      EXPECT_EQ(ids, as_one_string) << text;
    } else {
      saw_special_text = true;
      EXPECT_GT(ids.size(), as_one_string.size()) << text;
    }
  }
  EXPECT_TRUE(saw_special_text);
}

TEST_P(FixtureTokenizer, DecodeGivesBackTheTextInNormalForm) {
  for (const std::string& text : corpus()) {
    const std::string original = GetParam().nfc ? to_nfc(text) : text;
    EXPECT_EQ(tokenizer().decode(tokenizer().encode(text, true)), original);
    EXPECT_EQ(tokenizer().decode(tokenizer().encode(text, false)), original);
  }
}

TEST_P(FixtureTokenizer, StreamingDecodeEmitsOnlyWholeCharactersAndTheFullText) {
  for (const std::string& text : corpus()) {
    const std::vector<TokenId> ids = tokenizer().encode(text, true);
    StreamDecoder stream(tokenizer());
    std::string streamed;
    for (const TokenId id : ids) {
      const std::string part = stream.push(id);
      EXPECT_FALSE(first_invalid_utf8_byte(part).has_value()) << "a partial character came out of " << text;
      streamed += part;
    }
    streamed += stream.finish();
    EXPECT_EQ(streamed, tokenizer().decode(ids));
  }
}

TEST_P(FixtureTokenizer, HelloWorldHasThePublishedIds) {
  const std::vector<TokenId> llama3{9906, 11, 1917, 0};
  const std::vector<TokenId> qwen3{9707, 11, 1879, 0};
  EXPECT_EQ(tokenizer().encode("Hello, world!"), GetParam().nfc ? qwen3 : llama3);
}

INSTANTIATE_TEST_SUITE_P(Published, FixtureTokenizer,
                         ::testing::Values(Fixture{"llama3", QUORVEL_LLAMA3_TOKENIZER, false},
                                           Fixture{"qwen3", QUORVEL_QWEN3_TOKENIZER, true}),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace quorvel::text
