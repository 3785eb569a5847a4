// The buffered file writer keeps the bytes in order across its buffer's
// edges: small writes, writes that cross a full buffer, and writes larger
// than the buffer that go to the file directly.
#include "tools/lib/binary_writer.h"

#include <gtest/gtest.h>

#include <string>

#include "tools/tool_test_files.h"

namespace quorvel::tools {
namespace {

TEST(BinaryWriter, WritesOfEverySizeArriveInOrder) {
  testing::TempDir dir;
  const std::size_t kMiB = std::size_t{1} << 20;
  std::string expected;
  BinaryWriter out(dir.path() / "file");
  std::uint64_t value = 1;
  for (const std::size_t size : {std::size_t{3}, kMiB - 2, std::size_t{5}, 3 * kMiB + 7, kMiB, std::size_t{1}, kMiB}) {
    std::string chunk(size, '\0');
    for (char& c : chunk) c = static_cast<char>(value++ * 2654435761u >> 24);
    out.write_bytes(chunk.data(), chunk.size());
    expected += chunk;
    EXPECT_EQ(out.bytes_written(), expected.size());
  }
  out.finish();
  EXPECT_TRUE(testing::read_text(dir.path() / "file") == expected);
}

TEST(BinaryWriter, AFileThatCannotBeCreatedIsAnError) {
  testing::TempDir dir;
  EXPECT_THROW(BinaryWriter(dir.path() / "missing" / "file"), std::runtime_error);
}

}  // namespace
}  // namespace quorvel::tools
