// The streaming decoder fed one byte-token at a time: whole characters only, held tails, and U+FFFD for
// bytes that can no longer become a character.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/text/stream_decoder.h"
#include "host/text/tokenizer.h"
#include "tests/host/text/small_tokenizer.h"

namespace quorvel::text {
namespace {

const std::string kReplacement = "\xEF\xBF\xBD";

class StreamDecoderTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    const std::filesystem::path path = testing::write_tokenizer(testing::small_tokenizer({}), "stream");
    tokenizer_ = new Tokenizer(path);
    std::filesystem::remove(path);
  }
  static void TearDownTestSuite() { delete tokenizer_; }

  // What each pushed byte gives, and then what finish() gives.
  static std::vector<std::string> stream(const std::string& bytes) {
    StreamDecoder decoder(*tokenizer_);
    std::vector<std::string> parts;
    for (const char byte : bytes) parts.push_back(decoder.push(static_cast<unsigned char>(byte)));
    parts.push_back(decoder.finish());
    return parts;
  }

  static Tokenizer* tokenizer_;
};

Tokenizer* StreamDecoderTest::tokenizer_ = nullptr;

TEST_F(StreamDecoderTest, HoldsAnIncompleteCharacterUntilItsLastByte) {
  EXPECT_EQ(stream("a\xE2\x82\xAC"), (std::vector<std::string>{"a", "", "", "\xE2\x82\xAC", ""}));
  EXPECT_EQ(stream("\xF0\x9F\x98\x80!"), (std::vector<std::string>{"", "", "", "\xF0\x9F\x98\x80", "!", ""}));
}

TEST_F(StreamDecoderTest, ReplacesBytesAsSoonAsNoContinuationCanMendThem) {
  // A byte that never starts a character, at once.
  EXPECT_EQ(stream("\xFFx"), (std::vector<std::string>{kReplacement, "x", ""}));
  // A started character interrupted by ASCII: the replacement comes with the ASCII byte.
  EXPECT_EQ(stream("\xE2\x82x"), (std::vector<std::string>{"", "", kReplacement + "x", ""}));
  // A surrogate is bad from its second byte on; the stray continuation is replaced on its own.
  EXPECT_EQ(stream("\xED\xA0\x80"), (std::vector<std::string>{"", kReplacement + kReplacement, kReplacement, ""}));
}

TEST_F(StreamDecoderTest, FinishReplacesAHeldTailAndEmptiesTheDecoder) {
  EXPECT_EQ(stream("ok\xE2\x82"), (std::vector<std::string>{"o", "k", "", "", kReplacement}));
  StreamDecoder decoder(*tokenizer_);
  decoder.push(0xC3);
  EXPECT_EQ(decoder.finish(), kReplacement);
  EXPECT_EQ(decoder.finish(), "");
  EXPECT_EQ(decoder.push('z'), "z");
}

}  // namespace
}  // namespace quorvel::text
