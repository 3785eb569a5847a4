// "rope.cache" as the rotary embedding reads it: a 12-byte header, then the
// cosine and the sine table, row p holding position p, both halves of a row
// repeating the angles of the half-split pairing.
#include "tools/lib/rope_cache_writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "io/rope_header.h"
#include "tools/tool_test_files.h"

namespace quorvel::tools {
namespace {

using testing::read_file;
using testing::TempDir;
using testing::value_at;

constexpr std::uint64_t kHeadDim = 64;
constexpr std::uint64_t kPositions = 300;

float table_value(const std::vector<std::uint8_t>& bytes, int table, std::uint64_t p, std::uint64_t i) {
  const std::uint64_t element = static_cast<std::uint64_t>(table) * kHeadDim * kPositions + p * kHeadDim + i;
  return value_at<float>(bytes, 12 + 4 * element);
}

TEST(RopeCacheWriter, HeaderThenTwoTablesOfHeadDimByPositions) {
  TempDir dir;
  write_rope_cache(dir.path() / "rope.cache", kHeadDim, kPositions, 10000.0);
  const auto bytes = read_file(dir.path() / "rope.cache");
  ASSERT_EQ(bytes.size(), 12 + 2 * kHeadDim * kPositions * 4);
  EXPECT_EQ(std::memcmp(bytes.data(), "QVRC", 4), 0);
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 4), 4u);
  EXPECT_EQ(value_at<std::uint32_t>(bytes, 8), 0u);

  std::ifstream in(dir.path() / "rope.cache", std::ios::binary);
  ASSERT_TRUE(check_rope_header(in, 4));
  EXPECT_EQ(in.tellg(), 12);
}

// The angle written here as exp(-ln(theta) * 2k / D) rather than as a power,
// so that the check does not repeat the writer's formula. Columns 32 and up
// are the second half of a row and repeat the angles of the first.
TEST(RopeCacheWriter, HoldsCosineAndSineOfTheRotaryAngles) {
  TempDir dir;
  const double theta = 500000.0;
  write_rope_cache(dir.path() / "rope.cache", kHeadDim, kPositions, theta);
  const auto bytes = read_file(dir.path() / "rope.cache");
  ASSERT_EQ(bytes.size(), 12 + 2 * kHeadDim * kPositions * 4);
  for (std::uint64_t p : {0u, 1u, 17u, 299u}) {
    for (std::uint64_t i : {0u, 1u, 31u, 32u, 45u, 63u}) {
      const double k = static_cast<double>(i % (kHeadDim / 2));
      const double angle = static_cast<double>(p) * std::exp(-std::log(theta) * 2.0 * k / kHeadDim);
      EXPECT_NEAR(table_value(bytes, 0, p, i), std::cos(angle), 1e-6) << "cos p=" << p << " i=" << i;
      EXPECT_NEAR(table_value(bytes, 1, p, i), std::sin(angle), 1e-6) << "sin p=" << p << " i=" << i;
    }
  }
}

TEST(RopeCacheWriter, RefusesHeadDimsWithoutPairsBeforeCreatingTheFile) {
  TempDir dir;
  for (std::uint64_t head_dim : {0u, 63u}) {
    EXPECT_TRUE(unwritable_rope_shape(head_dim).has_value());
    EXPECT_THROW(write_rope_cache(dir.path() / "rope.cache", head_dim, 4, 10000.0), std::invalid_argument);
  }
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "rope.cache"));
}

}  // namespace
}  // namespace quorvel::tools
