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
  static std::vector<std::string> stream(const std::string& bytes, std::vector<std::string> stops = {}) {
    StreamDecoder decoder(*tokenizer_, std::move(stops));
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

TEST_F(StreamDecoderTest, EndsWhereAStopStringBeginsAndHoldsWhatMayStillBeginOne) {
  // "\nU" could begin the stop string until "x" shows it does not.
  EXPECT_EQ(stream("a\nUx", {"\nUser:"}), (std::vector<std::string>{"a", "", "", "\nUx", ""}));
  std::vector<std::string> until_stop{"h", "i"};
  until_stop.resize(std::string("hi\nUser: more").size() + 1);  // nothing more, finish() included
  EXPECT_EQ(stream("hi\nUser: more", {"\nUser:"}), until_stop);
  // The earliest of two stop strings wins, wherever it is in the list; what is held at the end is text.
  EXPECT_EQ(stream("xyzw", {"zw", "yz"}), (std::vector<std::string>{"x", "", "", "", ""}));
  EXPECT_EQ(stream("go!", {"!?"}), (std::vector<std::string>{"g", "o", "", "!"}));
}

TEST_F(StreamDecoderTest, CountsTheBytesBeforeTheStopStringAndClosesACharacterCutByIt) {
  StreamDecoder decoder(*tokenizer_, {"END"});
  std::string text;
  for (const char byte : std::string("\xE2\x82\xAC \xE2\x82" "END!")) text += decoder.push(static_cast<unsigned char>(byte));
  EXPECT_TRUE(decoder.stopped());
  EXPECT_EQ(decoder.accepted_bytes(), 6u);
  EXPECT_EQ(text, "\xE2\x82\xAC " + kReplacement);
  EXPECT_EQ(decoder.finish(), "");

  StreamDecoder plain(*tokenizer_, {"END"});
  plain.push('E');
  EXPECT_FALSE(plain.stopped());
  EXPECT_EQ(plain.accepted_bytes(), 1u);
}

}  // namespace
}  // namespace quorvel::text
