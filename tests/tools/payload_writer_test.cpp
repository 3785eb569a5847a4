// The weights the payload writer produces: decoded here by the bit layouts of
// each format (not through the writer's helpers), they must sit exactly where
// the loaders read them, with the magnitude asked for and no degenerate rows.
#include "tools/lib/payload_writer.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <set>
#include <stdexcept>

#include "tools/tool_test_files.h"

namespace quorvel::tools {
namespace {

using testing::read_file;
using testing::TempDir;
using testing::value_at;

constexpr std::uint64_t kRows = 64;
constexpr std::uint64_t kCols = 512;
constexpr double kRms = 0.05;

float bf16_at(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
  return std::bit_cast<float>(static_cast<std::uint32_t>(value_at<std::uint16_t>(bytes, offset)) << 16);
}

// Code of weight j (0..127) of the 32-byte ternary group at `offset`.
unsigned ternary_code_at(const std::vector<std::uint8_t>& bytes, std::size_t offset, std::size_t j) {
  return (bytes[offset + j % 32] >> (6 - 2 * (j / 32))) & 3u;
}

struct Decoded {
  std::vector<float> weights;  // rows * cols, row-major
  std::size_t bytes = 0;       // how many file bytes the matrix took
  std::vector<unsigned> code_counts = std::vector<unsigned>(4, 0);
};

Decoded decode_ternary(const std::vector<std::uint8_t>& bytes) {
  Decoded out;
  const double gamma = value_at<double>(bytes, 0);
  for (std::size_t group = 0; group < kRows * kCols / 128; ++group) {
    for (std::size_t j = 0; j < 128; ++j) {
      const unsigned c = ternary_code_at(bytes, 8 + group * 32, j);
      ++out.code_counts[c];
      out.weights.push_back(static_cast<float>(gamma * (static_cast<double>(c) - 1.0)));
    }
  }
  out.bytes = 8 + kRows * kCols / 4;
  return out;
}

Decoded decode_q1_0(const std::vector<std::uint8_t>& bytes) {
  Decoded out;
  for (std::size_t block = 0; block < kRows * kCols / 128; ++block) {
    const float d = bf16_at(bytes, block * 18 + 16);
    for (std::size_t w = 0; w < 128; ++w) {
      const bool set = (bytes[block * 18 + w / 8] >> (7 - w % 8)) & 1u;
      out.weights.push_back(set ? d : -d);
    }
  }
  out.bytes = kRows * kCols / 128 * 18;
  return out;
}

Decoded decode_q1_58(const std::vector<std::uint8_t>& bytes) {
  Decoded out;
  for (std::size_t block = 0; block < kRows * kCols / 128; ++block) {
    const float d = bf16_at(bytes, block * 34 + 32);
    for (std::size_t j = 0; j < 128; ++j) {
      const unsigned c = ternary_code_at(bytes, block * 34, j);
      ++out.code_counts[c];
      out.weights.push_back(d * (static_cast<float>(c) - 1.0f));
    }
  }
  out.bytes = kRows * kCols / 128 * 34;
  return out;
}

Decoded decode_bf16(const std::vector<std::uint8_t>& bytes) {
  Decoded out;
  for (std::size_t i = 0; i < kRows * kCols; ++i) out.weights.push_back(bf16_at(bytes, 2 * i));
  out.bytes = kRows * kCols * 2;
  return out;
}

Decoded decode(WeightFormat format, const std::vector<std::uint8_t>& bytes) {
  switch (format) {
    case WeightFormat::TERNARY:
      return decode_ternary(bytes);
    case WeightFormat::Q1_0:
      return decode_q1_0(bytes);
    case WeightFormat::Q1_58:
      return decode_q1_58(bytes);
    case WeightFormat::BF16:
      break;
  }
  return decode_bf16(bytes);
}

// Writes through a fresh writer and returns the file's bytes.
template <typename Write>
std::vector<std::uint8_t> written_bytes(const TempDir& dir, Write write) {
  const auto path = dir.path() / "payload";
  BinaryWriter out(path);
  WeightRandom random(3);
  PayloadWriter payload(out, random);
  write(payload);
  out.finish();
  return read_file(path);
}

class PayloadMatrix : public ::testing::TestWithParam<WeightFormat> {};

TEST_P(PayloadMatrix, HasTheRequestedRmsAndDistinctRows) {
  TempDir dir;
  const auto bytes = written_bytes(dir, [](PayloadWriter& p) { p.matrix(GetParam(), kRows, kCols, kRms); });
  const Decoded decoded = decode(GetParam(), bytes);
  ASSERT_EQ(bytes.size(), decoded.bytes);
  double sum = 0.0, squares = 0.0;
  for (float w : decoded.weights) {
    sum += w;
    squares += static_cast<double>(w) * w;
  }
  const double n = static_cast<double>(decoded.weights.size());
  EXPECT_NEAR(std::sqrt(squares / n), kRms, 0.1 * kRms);
  EXPECT_NEAR(sum / n, 0.0, 0.05 * kRms);
  std::set<std::vector<float>> rows;
  for (std::uint64_t r = 0; r < kRows; ++r) {
    rows.emplace(decoded.weights.begin() + r * kCols, decoded.weights.begin() + (r + 1) * kCols);
  }
  EXPECT_EQ(rows.size(), kRows);
}

INSTANTIATE_TEST_SUITE_P(EveryFormat, PayloadMatrix,
                         ::testing::Values(WeightFormat::TERNARY, WeightFormat::Q1_0, WeightFormat::Q1_58,
                                           WeightFormat::BF16));

// Code 3 does not occur in model files (a kernel would read it as +2); the
// three real codes come equally often.
TEST(PayloadWriter, TernaryFormatsUseOnlyTheThreeCodesEvenly) {
  for (WeightFormat format : {WeightFormat::TERNARY, WeightFormat::Q1_58}) {
    TempDir dir;
    const Decoded decoded =
        decode(format, written_bytes(dir, [format](PayloadWriter& p) { p.matrix(format, kRows, kCols, kRms); }));
    EXPECT_EQ(decoded.code_counts[3], 0u);
    for (unsigned c = 0; c < 3; ++c) EXPECT_NEAR(decoded.code_counts[c] / double(kRows * kCols), 1.0 / 3.0, 0.02);
  }
}

TEST(PayloadWriter, BlockFormatsRefuseRowsThatSplitABlock) {
  TempDir dir;
  BinaryWriter out(dir.path() / "payload");
  WeightRandom random(1);
  PayloadWriter payload(out, random);
  for (WeightFormat format : {WeightFormat::TERNARY, WeightFormat::Q1_0, WeightFormat::Q1_58}) {
    EXPECT_THROW(payload.matrix(format, 4, 100, kRms), std::invalid_argument);
  }
  EXPECT_NO_THROW(payload.matrix(WeightFormat::BF16, 4, 100, kRms));
}

}  // namespace
}  // namespace quorvel::tools
