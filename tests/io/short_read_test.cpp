#include "io/short_read.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "support/byte_writer.h"
#include "support/capture_stderr.h"

namespace quorvel {
namespace {

using testing::binary_stream;
using testing::ByteWriter;
using testing::CaptureStderr;

TEST(ReadExact, FullReadCopiesTheBytesAndKeepsTheStreamGood) {
  auto in = binary_stream("abcdefgh");
  std::array<char, 5> buffer{};
  const ReadResult result = read_exact(in, buffer.data(), 5);
  EXPECT_TRUE(result);
  EXPECT_EQ(result.bytes_read, 5u);
  EXPECT_EQ(std::string(buffer.data(), 5), "abcde");
  EXPECT_EQ(in.tellg(), 5);
}

TEST(ReadExact, ShortReadReportsWhatArrivedAndLaterReadsDeliverNothing) {
  auto in = binary_stream("abcdef");
  std::array<char, 10> buffer{};
  const ReadResult short_read = read_exact(in, buffer.data(), 10);
  EXPECT_FALSE(short_read);
  EXPECT_EQ(short_read.bytes_read, 6u);
  EXPECT_TRUE(in.eof());

  const ReadResult after = read_exact(in, buffer.data(), 1);
  EXPECT_FALSE(after);
  EXPECT_EQ(after.bytes_read, 0u);
}

TEST(ReadExact, CountBeyondOneStreamReadFailsWithoutWriting) {
  auto in = binary_stream("abcdef");
  std::array<char, 4> buffer{'w', 'x', 'y', 'z'};
  const auto too_many = static_cast<std::uint64_t>(std::numeric_limits<std::streamsize>::max()) + 1;
  const ReadResult result = read_exact(in, buffer.data(), too_many);
  EXPECT_FALSE(result);
  EXPECT_EQ(result.bytes_read, 0u);
  EXPECT_EQ(std::string(buffer.data(), 4), "wxyz");
  EXPECT_TRUE(in.fail());
  EXPECT_FALSE(in.eof());
}

TEST(ReportShortRead, TableCutShortReportsWholeElementsEofAndFailedPosition) {
  // A RoPE-like file: 12 header bytes, then 10 floats and half of an 11th,
  // where 16 floats were expected.
  ByteWriter file;
  file.text("QVRC").u32(4).u32(0);
  for (int i = 0; i < 10; ++i) file.f32(0.5f);
  file.u16(0x3F80);
  auto in = binary_stream(file.bytes());
  in.seekg(12);
  std::array<float, 16> table{};
  const ReadResult result = read_exact(in, table.data(), sizeof(table));
  ASSERT_FALSE(result);

  CaptureStderr capture;
  report_short_read(in, "Could not read in cos: read_bytes (", result.bytes_read / sizeof(float), table.size());
  EXPECT_EQ(capture.text(), "Could not read in cos: read_bytes (10) != 16; EOF: 1, FTELL: -1\n");
}

TEST(ReportShortRead, PrefixAndNumbersAreTheCallersChoice) {
  auto in = binary_stream("abc");
  std::array<char, 8> gamma{};
  const ReadResult result = read_exact(in, gamma.data(), gamma.size());
  CaptureStderr capture;
  report_short_read(in, "Could not read in Gamma: read_bytes (", result.bytes_read, 1);
  report_short_read(in, "Could not read BF16 embed_tokens: read_bytes (", 0, 18446744073709551615u);
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                 "Could not read in Gamma: read_bytes (3) != 1; EOF: 1, FTELL: -1",
                                 "Could not read BF16 embed_tokens: read_bytes (0) != 18446744073709551615; "
                                 "EOF: 1, FTELL: -1",
                             }));
}

TEST(ReportShortRead, FailureWithoutEndOfFileAndALivePositionArePrintedAsTheyAre) {
  auto failed = binary_stream("abcdef");
  failed.setstate(std::ios::failbit);
  auto live = binary_stream("abcdef");
  live.seekg(4);
  CaptureStderr capture;
  report_short_read(failed, "Could not read q1 lm_head: read_bytes (", 2, 3);
  report_short_read(live, "Could not read in bias: read_bytes (", 4, 6);
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                 "Could not read q1 lm_head: read_bytes (2) != 3; EOF: 0, FTELL: -1",
                                 "Could not read in bias: read_bytes (4) != 6; EOF: 0, FTELL: 4",
                             }));
}

}  // namespace
}  // namespace quorvel
