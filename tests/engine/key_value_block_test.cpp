#include "engine/key_value_block.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>
#include <utility>

#include "support/capture_stderr.h"

namespace quorvel {
namespace {

using testing::CaptureStderr;

struct BlockRead {
  std::int32_t result;
  KeyValueBlock block;
  std::string stderr_text;
  std::string rest;  // what the reader left unread
};

BlockRead read_one(const std::string& input) {
  std::istringstream in(input);
  CaptureStderr capture;
  BlockRead read{0, {{"stale", "entry"}}, {}, {}};
  read.result = read_block(in, read.block);
  read.stderr_text = capture.text();
  in.clear();
  read.rest.assign(std::istreambuf_iterator<char>(in), {});
  return read;
}

TEST(ReadBlockCount, ZeroAndNegativeCountsReturnThemselvesAndReadNothingMore) {
  for (const auto& [input, expected] : {std::pair{"0\nk=v\n", 0}, {"-3\nk=v\n", -3}, {"  -1\nk=v\n", -1}}) {
    const BlockRead read = read_one(input);
    EXPECT_EQ(read.result, expected) << input;
    EXPECT_TRUE(read.block.empty()) << input;
    EXPECT_EQ(read.rest, "k=v\n") << input;
    EXPECT_EQ(read.stderr_text, "") << input;
  }
}

TEST(ReadBlockCount, TrailingTextAfterDigitsAndLeadingBlanksAreAccepted) {
  const BlockRead read = read_one(" 2abc\na=1\nb=2\nnext\n");
  EXPECT_EQ(read.result, 2);
  EXPECT_EQ(read.block, (KeyValueBlock{{"a", "1"}, {"b", "2"}}));
  EXPECT_EQ(read.rest, "next\n");
  EXPECT_EQ(read.stderr_text, "");
}

TEST(ReadBlockCount, NonIntegerCountLinesAreProtocolErrorsQuotingTheLine) {
  const std::pair<const char*, const char*> cases[] = {
      {"abc\n", "Protocol error: expected integer count, got 'abc'\n"},
      {"\n", "Protocol error: expected integer count, got ''\n"},
      {"2147483648\n", "Protocol error: expected integer count, got '2147483648'\n"},
      {"x1\r\n", "Protocol error: expected integer count, got 'x1\r'\n"},
  };
  for (const auto& [input, message] : cases) {
    const BlockRead read = read_one(input);
    EXPECT_EQ(read.result, -1) << input;
    EXPECT_TRUE(read.block.empty()) << input;
    EXPECT_EQ(read.stderr_text, message);
  }
}

TEST(ReadBlockCount, ExhaustedInputReturnsMinusOneSilently) {
  const BlockRead read = read_one("");
  EXPECT_EQ(read.result, -1);
  EXPECT_TRUE(read.block.empty());
  EXPECT_EQ(read.stderr_text, "");
}

TEST(ReadBlockLines, InputEndingInsideTheBlockNamesTheMissingLine) {
  const BlockRead two_of_two = read_one("2\na=1\n");
  EXPECT_EQ(two_of_two.result, -1);
  EXPECT_EQ(two_of_two.stderr_text, "Protocol error: EOF reading key=value line 2 of 2\n");

  const BlockRead one_of_three = read_one("3\n");
  EXPECT_EQ(one_of_three.result, -1);
  EXPECT_EQ(one_of_three.stderr_text, "Protocol error: EOF reading key=value line 1 of 3\n");
}

TEST(ReadBlockLines, LastLineWithoutLineFeedStillCounts) {
  const BlockRead read = read_one("1\nk=v");
  EXPECT_EQ(read.result, 1);
  EXPECT_EQ(read.block, (KeyValueBlock{{"k", "v"}}));
}

TEST(ReadBlockLines, MalformedLinesAreWarnedAndCountedAndSplitIsAtFirstEquals) {
  const BlockRead read = read_one("4\nx\na=1\n\nb=c=d\nnext=1\n");
  EXPECT_EQ(read.result, 4);
  EXPECT_EQ(read.block, (KeyValueBlock{{"a", "1"}, {"b", "c=d"}}));
  EXPECT_EQ(read.stderr_text,
            "Warning: malformed key=value line: 'x'\n"
            "Warning: malformed key=value line: ''\n");
  EXPECT_EQ(read.rest, "next=1\n");
}

TEST(ReadBlockLines, LastDuplicateWins) {
  const BlockRead read = read_one("3\na=1\nb=0\na=2\n");
  EXPECT_EQ(read.block, (KeyValueBlock{{"a", "2"}, {"b", "0"}}));
}

TEST(ReadBlockLines, EmptyKeysAndEmptyValuesAreKept) {
  EXPECT_EQ(read_one("1\n=v\n").block, (KeyValueBlock{{"", "v"}}));
  EXPECT_EQ(read_one("1\nk=\n").block, (KeyValueBlock{{"k", ""}}));
  EXPECT_EQ(read_one("1\n=\n").block, (KeyValueBlock{{"", ""}}));
}

TEST(ReadBlockLines, CarriageReturnsAndBlanksStayPartOfKeysAndValues) {
  const BlockRead read = read_one("2\r\nk=v\r\n k = v \n");
  EXPECT_EQ(read.result, 2);
  EXPECT_EQ(read.block, (KeyValueBlock{{"k", "v\r"}, {" k ", " v "}}));
}

TEST(ReadBlockLines, ConsecutiveBlocksAreFramedIndependently) {
  std::istringstream in("1\na=1\n2\nb=2\nc=3\n0\n");
  KeyValueBlock block;
  EXPECT_EQ(read_block(in, block), 1);
  EXPECT_EQ(block, (KeyValueBlock{{"a", "1"}}));
  EXPECT_EQ(read_block(in, block), 2);
  EXPECT_EQ(block, (KeyValueBlock{{"b", "2"}, {"c", "3"}}));
  EXPECT_EQ(read_block(in, block), 0);
  EXPECT_TRUE(block.empty());
  EXPECT_EQ(read_block(in, block), -1);
}

}  // namespace
}  // namespace quorvel
