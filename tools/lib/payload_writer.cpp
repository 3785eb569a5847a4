#include "tools/lib/payload_writer.h"

#include <cmath>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime/bf16.h"
#include "runtime/formats/q1_0.h"
#include "runtime/formats/q1_58.h"
#include "runtime/formats/ternary.h"
#include "tools/lib/weight_scales.h"

namespace quorvel::tools {
namespace {

// A uniform value in [-1, 1) has RMS 1 / sqrt(3); random ternary codes
// (-1, 0, +1 equally likely) have RMS sqrt(2 / 3). These turn a wanted RMS
// into the uniform's half-width and into the ternary scale.
const double kUniformToRms = std::sqrt(3.0);
const double kTernaryToRms = std::sqrt(1.5);

std::size_t blocks_per_row(std::uint64_t cols) {
  if (cols % formats::kTernaryGroup != 0) {
    throw std::invalid_argument("block formats need rows of a multiple of 128 weights, got " + std::to_string(cols));
  }
  return static_cast<std::size_t>(cols / formats::kTernaryGroup);
}

}  // namespace

void PayloadWriter::norm(std::uint64_t width) { bf16_row(width, 1.0f, kNormWeightSpread); }

void PayloadWriter::linear(WeightFormat format, std::uint64_t in, std::uint64_t out, double rms, bool has_bias) {
  matrix(format, out, in, rms);
  if (has_bias) bf16_row(out, 0.0f, kBiasSpread);
}

void PayloadWriter::matrix(WeightFormat format, std::uint64_t rows, std::uint64_t cols, double rms) {
  switch (format) {
    case WeightFormat::TERNARY:
      return ternary_matrix(rows, cols, rms);
    case WeightFormat::Q1_0:
      return q1_0_matrix(rows, cols, rms);
    case WeightFormat::Q1_58:
      return q1_58_matrix(rows, cols, rms);
    case WeightFormat::BF16:
      return bf16_matrix(rows, cols, rms);
  }
}

void PayloadWriter::bf16_row(std::uint64_t width, float center, float spread) {
  std::vector<bf16> row(width);
  for (bf16& value : row) value = narrow_nearest_even(center + spread * random_.uniform());
  out_.write_values(std::span<const bf16>(row));
}

void PayloadWriter::bf16_matrix(std::uint64_t rows, std::uint64_t cols, double rms) {
  const auto half_width = static_cast<float>(rms * kUniformToRms);
  for (std::uint64_t r = 0; r < rows; ++r) bf16_row(cols, 0.0f, half_width);
}

void PayloadWriter::random_ternary_group(std::uint8_t* group) {
  for (std::size_t j = 0; j < formats::kTernaryGroup; ++j) {
    formats::set_ternary_code(group, j, random_.ternary_code());
  }
}

// The engine keeps gamma as a double and multiplies in double, so it is
// written at full precision rather than rounded through float.
void PayloadWriter::ternary_matrix(std::uint64_t rows, std::uint64_t cols, double rms) {
  const std::size_t groups = blocks_per_row(cols);
  out_.write_value(rms * kTernaryToRms);
  std::vector<std::uint8_t> row(groups * formats::kTernaryGroupBytes);
  for (std::uint64_t r = 0; r < rows; ++r) {
    for (std::size_t g = 0; g < groups; ++g) random_ternary_group(row.data() + g * formats::kTernaryGroupBytes);
    out_.write_values(std::span<const std::uint8_t>(row));
  }
}

float PayloadWriter::block_scale(double rms) {
  return static_cast<float>(rms) * (1.0f + kBlockScaleSpread * random_.uniform());
}

void PayloadWriter::q1_0_matrix(std::uint64_t rows, std::uint64_t cols, double rms) {
  std::vector<formats::BlockQ1_0> row(blocks_per_row(cols));
  for (std::uint64_t r = 0; r < rows; ++r) {
    for (formats::BlockQ1_0& block : row) {
      for (std::uint8_t& signs : block.signs) signs = static_cast<std::uint8_t>(random_.next_u64() >> 56);
      block.d = narrow_nearest_even(block_scale(rms));
    }
    out_.write_values(std::span<const formats::BlockQ1_0>(row));
  }
}

void PayloadWriter::q1_58_matrix(std::uint64_t rows, std::uint64_t cols, double rms) {
  std::vector<formats::BlockQ1_58> row(blocks_per_row(cols));
  for (std::uint64_t r = 0; r < rows; ++r) {
    for (formats::BlockQ1_58& block : row) {
      random_ternary_group(block.codes);
      block.d = narrow_nearest_even(block_scale(rms * kTernaryToRms));
    }
    out_.write_values(std::span<const formats::BlockQ1_58>(row));
  }
}

}  // namespace quorvel::tools
