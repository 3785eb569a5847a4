// The RoPE cache and LoRA adapter headers share one shape; each file's
// check is run over the same cases with its own magic and messages.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "io/lora_header.h"
#include "io/rope_header.h"
#include "support/byte_writer.h"
#include "support/capture_stderr.h"

namespace quorvel {
namespace {

using testing::binary_stream;
using testing::ByteWriter;
using testing::CaptureStderr;

struct HeaderFile {
  const char* name;
  const char* magic;
  const char* other_magic;  // another file's magic, which must be refused
  bool (*check)(std::istream&, std::uint32_t);
  const char* invalid_line;
  const char* version_3_line;  // file version 3 against expected 4
  const char* version_4_against_7_line;
};

const HeaderFile kRope{
    "rope",
    "QVRC",
    "QVLA",
    check_rope_header,
    "Invalid RoPE cache file. Re-run: make generate MODEL_DIR=<path>.\n",
    "RoPE cache version 3, engine expects version 4. Re-run: make generate MODEL_DIR=<path>.\n",
    "RoPE cache version 4, engine expects version 7. Re-run: make generate MODEL_DIR=<path>.\n",
};

const HeaderFile kLora{
    "lora",
    "QVLA",
    "QVRC",
    check_lora_header,
    "Invalid LoRA file. Download the correct LoRA file for the model.\n",
    "LoRA file version 3, engine expects version 4. Download the correct LoRA file for the model or update "
    "your engine.\n",
    "LoRA file version 4, engine expects version 7. Download the correct LoRA file for the model or update "
    "your engine.\n",
};

class VersionedHeader : public ::testing::TestWithParam<HeaderFile> {
 protected:
  struct Outcome {
    bool ok;
    std::string stderr_text;
    std::streamoff position;
  };

  Outcome run(const std::string& bytes, std::uint32_t expected_version) const {
    auto in = binary_stream(bytes);
    CaptureStderr capture;
    const bool ok = GetParam().check(in, expected_version);
    return {ok, capture.text(), in.tellg()};
  }

  ByteWriter header(std::uint32_t version, std::uint32_t reserved) const {
    ByteWriter file;
    file.text(GetParam().magic).u32(version).u32(reserved);
    return file;
  }
};

TEST_P(VersionedHeader, AcceptsAnyReservedWordAndStopsAtOffsetTwelve) {
  for (std::uint32_t reserved : {0u, 1u, 0xFFFFFFFFu}) {
    const Outcome outcome = run(header(4, reserved).f32(1.0f).f32(0.0f).bytes(), 4);
    EXPECT_TRUE(outcome.ok) << reserved;
    EXPECT_EQ(outcome.stderr_text, "");
    EXPECT_EQ(outcome.position, 12);
  }
}

// Each refused header with its report: a short header or a wrong magic is an
// invalid file (not a version error); a version must equal the expected one.
TEST_P(VersionedHeader, EachFaultHasItsOwnReport) {
  const HeaderFile& file = GetParam();
  const std::string full = header(3, 0).bytes();
  std::vector<std::tuple<std::string, std::uint32_t, std::string>> cases;
  for (std::size_t length : {0u, 4u, 7u, 8u, 11u}) cases.emplace_back(full.substr(0, length), 4, file.invalid_line);
  for (const char* magic : {file.other_magic, "QVLM", "\0\0\0\0"}) {
    cases.emplace_back(ByteWriter().text(std::string_view(magic, 4)).u32(4).u32(0).bytes(), 4, file.invalid_line);
  }
  cases.emplace_back(full, 4, file.version_3_line);
  cases.emplace_back(header(4, 0).bytes(), 7, file.version_4_against_7_line);
  for (const auto& [bytes, expected_version, message] : cases) {
    SCOPED_TRACE(::testing::PrintToString(bytes));
    const Outcome outcome = run(bytes, expected_version);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.stderr_text, message);
  }
}

INSTANTIATE_TEST_SUITE_P(Files, VersionedHeader, ::testing::Values(kRope, kLora),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace quorvel
