#include "io/model_header.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "support/byte_writer.h"
#include "support/capture_stderr.h"

namespace quorvel {
namespace {

using testing::binary_stream;
using testing::ByteWriter;
using testing::CaptureStderr;

constexpr char kInvalid[] = "Invalid model file! Download the correct model file.\n";
constexpr char kTruncatedTable[] = "Model file section table is truncated.\n";

ByteWriter model_header(std::uint32_t version, std::int32_t arch, std::uint32_t section_count) {
  ByteWriter file;
  file.text("QVLM").u32(version).i32(arch).u32(section_count);
  return file;
}

struct HeaderCheck {
  bool ok;
  ModelFileInfo info;
  std::string stderr_text;
  std::streamoff position;  // where the weights would be read from; -1 once failed
};

HeaderCheck check(const std::string& bytes, std::int32_t expected_arch) {
  auto in = binary_stream(bytes);
  CaptureStderr capture;
  HeaderCheck result{};
  result.ok = check_model_header(in, expected_arch, &result.info);
  result.stderr_text = capture.text();
  result.position = in.tellg();
  return result;
}

TEST(ModelHeaderVersion3, ConsumesSixteenBytesWhateverTheFourthWord) {
  ByteWriter file = model_header(3, 2, 0xFFFFFFFF);
  file.u8(7);  // first weight byte
  const HeaderCheck result = check(file.bytes(), 2);
  EXPECT_TRUE(result.ok);
  EXPECT_EQ(result.stderr_text, "");
  EXPECT_EQ(result.position, 16);
  EXPECT_EQ(result.info.version, 3u);
  EXPECT_EQ(result.info.arch, 2);
  EXPECT_EQ(result.info.section_count, 0u);
  EXPECT_FALSE(result.info.has_section_2 || result.info.has_section_3 || result.info.has_section_4 ||
               result.info.has_section_5 || result.info.has_section_6);
}

TEST(ModelHeaderVersion3, InfoIsOptional) {
  auto in = binary_stream(model_header(3, 6, 0).bytes());
  EXPECT_TRUE(check_model_header(in, 6, nullptr));
  auto section_file = binary_stream(model_header(4, 3, 1).u8(3).u32(0).bytes());
  EXPECT_TRUE(check_model_header(section_file, 3, nullptr));
  EXPECT_EQ(section_file.tellg(), 21);
}

TEST(ModelHeaderVersion4, EmptyTableLeavesWeightsAtSixteen) {
  const HeaderCheck result = check(model_header(4, 1, 0).u32(0xDEADBEEF).bytes(), 1);
  EXPECT_TRUE(result.ok);
  EXPECT_EQ(result.position, 16);
  EXPECT_EQ(result.info.version, 4u);
  EXPECT_EQ(result.info.section_count, 0u);
}

TEST(ModelHeaderVersion4, KindsOneAndThreeReportOnlyMtp) {
  const HeaderCheck result = check(model_header(4, 3, 2).u8(1).u32(100).u8(3).u32(0xFFFFFFFF).u8(9).bytes(), 3);
  EXPECT_TRUE(result.ok);
  EXPECT_EQ(result.stderr_text, "");
  EXPECT_EQ(result.position, 26);
  EXPECT_EQ(result.info.section_count, 2u);
  EXPECT_FALSE(result.info.has_section_2);
  EXPECT_TRUE(result.info.has_section_3);
  EXPECT_FALSE(result.info.has_section_4 || result.info.has_section_5 || result.info.has_section_6);
}

TEST(ModelHeaderVersion4, EachKindTwoToSixSetsItsOwnFlag) {
  ByteWriter file = model_header(4, 5, 9);
  for (int kind : {0, 1, 2, 4, 5, 6, 7, 200, 255}) {
    file.u8(static_cast<std::uint8_t>(kind)).u32(static_cast<std::uint32_t>(kind));
  }
  const HeaderCheck result = check(file.bytes(), 5);
  EXPECT_TRUE(result.ok);
  EXPECT_EQ(result.position, 16 + 5 * 9);
  EXPECT_EQ(result.info.section_count, 9u);
  EXPECT_TRUE(result.info.has_section_2);
  EXPECT_FALSE(result.info.has_section_3);
  EXPECT_TRUE(result.info.has_section_4);
  EXPECT_TRUE(result.info.has_section_5);
  EXPECT_TRUE(result.info.has_section_6);
}

TEST(ModelHeaderVersion4, TableCutShortIsReported) {
  const std::string full = model_header(4, 3, 2).u8(2).u32(0).u8(3).u32(0).bytes();
  for (std::size_t length : {16u, 17u, 20u, 21u, 25u}) {
    const HeaderCheck result = check(full.substr(0, length), 3);
    EXPECT_FALSE(result.ok) << length;
    EXPECT_EQ(result.stderr_text, kTruncatedTable) << length;
  }
}

TEST(ModelHeaderInvalid, FewerThanSixteenBytesIsAnInvalidFileNotAVersionError) {
  const std::string full = model_header(5, 9, 0).bytes();
  for (std::size_t length : {0u, 3u, 4u, 8u, 12u, 15u}) {
    const HeaderCheck result = check(full.substr(0, length), 1);
    EXPECT_FALSE(result.ok) << length;
    EXPECT_EQ(result.stderr_text, kInvalid) << length;
  }
}

TEST(ModelHeaderInvalid, WrongMagicIsAnInvalidFile) {
  for (const char* magic : {"QVLA", "MLVQ", "qvlm", "QVRC"}) {
    ByteWriter file;
    file.text(magic).u32(4).i32(1).u32(0);
    const HeaderCheck result = check(file.bytes(), 1);
    EXPECT_FALSE(result.ok) << magic;
    EXPECT_EQ(result.stderr_text, kInvalid) << magic;
  }
}

TEST(ModelHeaderInvalid, VersionsOtherThanThreeAndFourAreRefusedBeforeTheArchitecture) {
  for (std::uint32_t version : {0u, 2u, 5u, 4294967295u}) {
    const HeaderCheck result = check(model_header(version, 2, 0).bytes(), 1);
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.stderr_text, "Model file version " + std::to_string(version) +
                                      ", engine expects version 3 or 4. Download the correct model file or "
                                      "update your engine.\n");
  }
}

TEST(ModelHeaderInvalid, ArchitectureMustMatchTheConfig) {
  const HeaderCheck mismatch = check(model_header(4, 2, 0).bytes(), 1);
  EXPECT_FALSE(mismatch.ok);
  EXPECT_EQ(mismatch.stderr_text,
            "Model file architecture 2, engine expects 1. Download the correct model file or use the right "
            "tensorfile.\n");

  const HeaderCheck negative = check(model_header(3, -1, 0).bytes(), 0);
  EXPECT_EQ(negative.stderr_text,
            "Model file architecture -1, engine expects 0. Download the correct model file or use the right "
            "tensorfile.\n");
}

}  // namespace
}  // namespace quorvel
