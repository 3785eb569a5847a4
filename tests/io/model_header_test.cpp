#include "io/model_header.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

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

// Flags of section kinds 2 to 6, in order.
std::array<bool, 5> section_flags(const ModelFileInfo& info) {
  return {info.has_section_2, info.has_section_3, info.has_section_4, info.has_section_5, info.has_section_6};
}

// Accepted headers: where the weights begin and what the table announced.
// Version 3 takes sixteen bytes whatever its fourth word; in version 4, kind
// 3 alone of kinds 1 and 3 is reported, and each of kinds 2 to 6 sets its
// own flag while other kinds are skipped.
TEST(ModelHeaderAccepted, WeightsBeginAfterTheTableAndKindsSetTheirFlags) {
  ByteWriter every_kind = model_header(4, 5, 9);
  for (int kind : {0, 1, 2, 4, 5, 6, 7, 200, 255}) {
    every_kind.u8(static_cast<std::uint8_t>(kind)).u32(static_cast<std::uint32_t>(kind));
  }
  struct Accepted {
    std::string bytes;
    std::uint32_t version;
    std::int32_t arch;
    std::streamoff position;
    std::uint32_t section_count;
    std::array<bool, 5> flags;
  };
  const Accepted cases[] = {
      {model_header(3, 2, 0xFFFFFFFF).u8(7).bytes(), 3, 2, 16, 0, {}},
      {model_header(4, 1, 0).u32(0xDEADBEEF).bytes(), 4, 1, 16, 0, {}},
      {model_header(4, 3, 2).u8(1).u32(100).u8(3).u32(0xFFFFFFFF).u8(9).bytes(), 4, 3, 26, 2,
       {false, true, false, false, false}},
      {every_kind.bytes(), 4, 5, 16 + 5 * 9, 9, {true, false, true, true, true}},
  };
  for (const Accepted& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.bytes));
    const HeaderCheck result = check(c.bytes, c.arch);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.stderr_text, "");
    EXPECT_EQ(result.position, c.position);
    EXPECT_EQ(result.info.version, c.version);
    EXPECT_EQ(result.info.arch, c.arch);
    EXPECT_EQ(result.info.section_count, c.section_count);
    EXPECT_EQ(section_flags(result.info), c.flags);
  }
}

TEST(ModelHeaderVersion3, InfoIsOptional) {
  auto in = binary_stream(model_header(3, 6, 0).bytes());
  EXPECT_TRUE(check_model_header(in, 6, nullptr));
  auto section_file = binary_stream(model_header(4, 3, 1).u8(3).u32(0).bytes());
  EXPECT_TRUE(check_model_header(section_file, 3, nullptr));
  EXPECT_EQ(section_file.tellg(), 21);
}

std::string version_message(std::uint32_t version) {
  return "Model file version " + std::to_string(version) +
         ", engine expects version 3 or 4. Download the correct model file or update your engine.\n";
}

std::string arch_message(std::int32_t arch, std::int32_t expected) {
  return "Model file architecture " + std::to_string(arch) + ", engine expects " + std::to_string(expected) +
         ". Download the correct model file or use the right tensorfile.\n";
}

// Each refused header and its one report line. Fewer than sixteen bytes is an
// invalid file, not a version error; the version is checked before the
// architecture; a table cut anywhere is reported as such.
TEST(ModelHeaderInvalid, EachFaultHasItsOwnReport) {
  const std::string table = model_header(4, 3, 2).u8(2).u32(0).u8(3).u32(0).bytes();
  const std::string bad_version = model_header(5, 9, 0).bytes();
  std::vector<std::tuple<std::string, std::int32_t, std::string>> cases;
  for (std::size_t length : {16u, 17u, 20u, 21u, 25u}) cases.emplace_back(table.substr(0, length), 3, kTruncatedTable);
  for (std::size_t length : {0u, 3u, 4u, 8u, 12u, 15u}) cases.emplace_back(bad_version.substr(0, length), 1, kInvalid);
  for (const char* magic : {"QVLA", "MLVQ", "qvlm", "QVRC"}) {
    cases.emplace_back(ByteWriter().text(magic).u32(4).i32(1).u32(0).bytes(), 1, kInvalid);
  }
  for (std::uint32_t version : {0u, 2u, 5u, 4294967295u}) {
    cases.emplace_back(model_header(version, 2, 0).bytes(), 1, version_message(version));
  }
  cases.emplace_back(model_header(4, 2, 0).bytes(), 1, arch_message(2, 1));
  cases.emplace_back(model_header(3, -1, 0).bytes(), 0, arch_message(-1, 0));
  for (const auto& [bytes, expected_arch, message] : cases) {
    SCOPED_TRACE(::testing::PrintToString(bytes));
    const HeaderCheck result = check(bytes, expected_arch);
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.stderr_text, message);
  }
}

}  // namespace
}  // namespace quorvel
