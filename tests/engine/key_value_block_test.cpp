#include "engine/key_value_block.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>

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

// One case of the framing: the input, and what the reader returns, fills
// in, reports and leaves unread.
struct FramingCase {
  const char* input;
  std::int32_t result;
  KeyValueBlock block;
  const char* stderr_text;
  const char* rest;
};

TEST(ReadBlock, FramesCountsAndLinesAsTheProtocolSays) {
  const FramingCase cases[] = {
      // Zero and negative counts return themselves and read nothing more.
      {"0\nk=v\n", 0, {}, "", "k=v\n"},
      {"-3\nk=v\n", -3, {}, "", "k=v\n"},
      {"  -1\nk=v\n", -1, {}, "", "k=v\n"},
      // Leading blanks and text after the digits are accepted.
      {" 2abc\na=1\nb=2\nnext\n", 2, {{"a", "1"}, {"b", "2"}}, "", "next\n"},
      // Exhausted input is -1, silently.
      {"", -1, {}, "", ""},
      // A non-integer count line is quoted whole.
      {"abc\n", -1, {}, "Protocol error: expected integer count, got 'abc'\n", ""},
      {"\n", -1, {}, "Protocol error: expected integer count, got ''\n", ""},
      {"2147483648\n", -1, {}, "Protocol error: expected integer count, got '2147483648'\n", ""},
      {"x1\r\n", -1, {}, "Protocol error: expected integer count, got 'x1\r'\n", ""},
      // Input ending inside the block names the missing line; what was read stays.
      {"2\na=1\n", -1, {{"a", "1"}}, "Protocol error: EOF reading key=value line 2 of 2\n", ""},
      {"3\n", -1, {}, "Protocol error: EOF reading key=value line 1 of 3\n", ""},
      // A last line without a line feed still counts.
      {"1\nk=v", 1, {{"k", "v"}}, "", ""},
      // Malformed lines are warned and counted; the split is at the first '='.
      {"4\nx\na=1\n\nb=c=d\nnext=1\n", 4, {{"a", "1"}, {"b", "c=d"}},
       "Warning: malformed key=value line: 'x'\nWarning: malformed key=value line: ''\n", "next=1\n"},
      // The last duplicate wins; empty keys and values are kept.
      {"3\na=1\nb=0\na=2\n", 3, {{"a", "2"}, {"b", "0"}}, "", ""},
      {"1\n=v\n", 1, {{"", "v"}}, "", ""},
      {"1\nk=\n", 1, {{"k", ""}}, "", ""},
      {"1\n=\n", 1, {{"", ""}}, "", ""},
      // Carriage returns and blanks stay part of keys and values.
      {"2\r\nk=v\r\n k = v \n", 2, {{"k", "v\r"}, {" k ", " v "}}, "", ""},
  };
  for (const FramingCase& c : cases) {
    SCOPED_TRACE(c.input);
    const BlockRead read = read_one(c.input);
    EXPECT_EQ(read.result, c.result);
    EXPECT_EQ(read.block, c.block);
    EXPECT_EQ(read.stderr_text, c.stderr_text);
    EXPECT_EQ(read.rest, c.rest);
  }
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

// A host that ends its lines with CR LF: only the line feed ends a line, so
// the count still reads (the conversion stops at the carriage return), a
// blank line is a malformed one that still counts, and every value keeps
// its carriage return. The framing stays in step with the host.
TEST(ReadBlockLines, CrLfLinesKeepTheirCarriageReturns) {
  std::istringstream in("3\r\nmax_tokens=5\r\n\r\ntokens=1,2\r\n1\r\nlora_dir=/m\r\n");
  KeyValueBlock block;
  CaptureStderr capture;
  EXPECT_EQ(read_block(in, block), 3);
  EXPECT_EQ(block, (KeyValueBlock{{"max_tokens", "5\r"}, {"tokens", "1,2\r"}}));
  EXPECT_EQ(capture.text(), "Warning: malformed key=value line: '\r'\n");
  EXPECT_EQ(read_block(in, block), 1);
  EXPECT_EQ(block, (KeyValueBlock{{"lora_dir", "/m\r"}}));
  EXPECT_EQ(read_block(in, block), -1);
}

}  // namespace
}  // namespace quorvel
