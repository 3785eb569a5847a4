// Payload reads go in pieces of 16 MiB: an item larger than that must arrive
// whole and in order, and a file that ends in a later piece must report the
// item's count so far against its full size, exactly as one read would.
#include "layers/payload_read.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "layer_test_support.h"

namespace quorvel::layers {
namespace {

using quorvel::testing::binary_stream;

constexpr std::uint64_t kPiece = std::uint64_t{16} << 20;
const PayloadText kText{"Could not read in table: read_bytes (", "Failed to read table"};

// Bytes that differ from piece to piece and from their neighbours.
std::string counting_bytes(std::uint64_t n) {
  std::string bytes(n, '\0');
  for (std::uint64_t i = 0; i < n; ++i) bytes[i] = static_cast<char>((i * 7 + i / 4099) & 0xff);
  return bytes;
}

TEST(PayloadReadTest, ItemsOfSeveralPiecesArriveWholeAndInOrder) {
  const std::uint64_t size = 2 * kPiece + 1000;
  const std::string bytes = counting_bytes(size);
  auto stream = binary_stream(bytes + "next");
  AlignedPtr<char> table = read_table<char>(stream, size, kText);
  // The first differing byte, not a diff of 32 MiB strings.
  const auto mismatch = std::mismatch(bytes.begin(), bytes.end(), table.get());
  EXPECT_EQ(mismatch.first - bytes.begin(), static_cast<std::ptrdiff_t>(size));
  EXPECT_EQ(static_cast<std::uint64_t>(stream.tellg()), size);
}

TEST(PayloadReadTest, ShortReadInALaterPieceCountsTheWholeItem) {
  const std::uint64_t size = 2 * kPiece + 1000;
  const std::string cut = counting_bytes(kPiece + 400);
  quorvel::testing::expect_short_read(
      [&] {
        auto stream = binary_stream(cut);
        read_table<char>(stream, size, kText);
      },
      "Could not read in table: read_bytes (" + std::to_string(kPiece + 400) + ") != " + std::to_string(size) +
          "; EOF: 1, FTELL: -1",
      "Failed to read table");
  // Counted in floats, as the RoPE tables are.
  quorvel::testing::expect_short_read(
      [&] {
        auto stream = binary_stream(cut);
        read_table<float>(stream, size / 4, kText, sizeof(float));
      },
      "Could not read in table: read_bytes (" + std::to_string((kPiece + 400) / 4) + ") != " +
          std::to_string(size / 4) + "; EOF: 1, FTELL: -1",
      "Failed to read table");
}

// A file that ends exactly where a piece ends fails on the next piece, with
// nothing of it read.
TEST(PayloadReadTest, FileEndingAtAPieceBoundaryReportsThePiecesRead) {
  const std::uint64_t size = kPiece + 8;
  const std::string cut = counting_bytes(kPiece);
  quorvel::testing::expect_short_read(
      [&] {
        auto stream = binary_stream(cut);
        read_table<char>(stream, size, kText);
      },
      "Could not read in table: read_bytes (" + std::to_string(kPiece) + ") != " + std::to_string(size) +
          "; EOF: 1, FTELL: -1",
      "Failed to read table");
}

}  // namespace
}  // namespace quorvel::layers
