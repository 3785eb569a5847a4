#include "tools/convert/weight_encoder.h"

#include <algorithm>
#include <cmath>
#include <span>
#include <vector>

#include "runtime/bf16.h"
#include "runtime/formats/q1_0.h"
#include "runtime/formats/q1_58.h"
#include "runtime/formats/ternary.h"
#include "tools/convert/convert_error.h"

namespace quorvel::convert {
namespace {

using formats::BlockQ1_0;
using formats::BlockQ1_58;
using formats::kTernaryGroup;
using formats::kTernaryGroupBytes;

constexpr std::uint64_t kBlockValues = 128;

void note_narrowing(ScaleNarrowing& narrowing, const SourceMatrix& matrix, double source, bf16 narrowed) {
  if (source == 0.0) return;
  const double change =
      std::fabs(std::fabs(static_cast<double>(widen(narrowed))) - std::fabs(source)) / std::fabs(source);
  if (change > narrowing.largest_relative_change) narrowing = {change, matrix.tensor().name};
}

// The one scale of a ternary source for a target with one scale per `span`
// weights of row r starting at weight `first`, or nullopt when the source's
// scales differ inside that span.
std::optional<double> common_scale(const SourceMatrix& matrix, std::uint64_t r, std::uint64_t first,
                                   std::uint64_t span) {
  const std::uint64_t run = matrix.scale_run();
  const double scale = matrix.scale(r, first / run);
  for (std::uint64_t at = first + run - first % run; at < first + span; at += run) {
    if (matrix.scale(r, at / run) != scale) return std::nullopt;
  }
  return scale;
}

double per_tensor_scale(const SourceMatrix& matrix) {
  const double scale = matrix.scale(0, 0);
  for (std::uint64_t r = 0; r < matrix.rows(); ++r) {
    if (common_scale(matrix, r, 0, matrix.cols()) != scale) {
      throw ConvertError(matrix.tensor().file, "tensor " + matrix.tensor().name +
                                                   " is not per-tensor ternary: its block scales differ (row " +
                                                   std::to_string(r) + "), so it cannot become one ternary matrix");
    }
  }
  return scale;
}

// Mean magnitude over the whole matrix, floored: the per-tensor absmean scale.
double absmean_scale(const SourceMatrix& matrix) {
  std::vector<float> row(matrix.cols());
  double sum = 0.0;
  for (std::uint64_t r = 0; r < matrix.rows(); ++r) {
    matrix.real_row(r, row.data());
    for (const float x : row) sum += std::fabs(static_cast<double>(x));
  }
  const double elements = static_cast<double>(matrix.rows()) * static_cast<double>(matrix.cols());
  return std::max(sum / elements, static_cast<double>(formats::kTernaryScaleFloor));
}

void codes_of_real_row(const SourceMatrix& matrix, std::uint64_t r, double gamma, std::vector<float>& real,
                       std::uint8_t* codes) {
  matrix.real_row(r, real.data());
  for (std::size_t c = 0; c < real.size(); ++c)
    codes[c] = static_cast<std::uint8_t>(formats::ternary_code_for(real[c] / gamma));
}

double write_ternary(const SourceMatrix& matrix, tools::BinaryWriter& out) {
  const double gamma = matrix.has_codes() ? per_tensor_scale(matrix) : absmean_scale(matrix);
  out.write_value(gamma);
  std::vector<std::uint8_t> codes(matrix.cols()), packed(matrix.cols() / 4);
  std::vector<float> real(matrix.has_codes() ? 0 : matrix.cols());
  for (std::uint64_t r = 0; r < matrix.rows(); ++r) {
    if (matrix.has_codes()) {
      matrix.code_row(r, codes.data());
    } else {
      codes_of_real_row(matrix, r, gamma, real, codes.data());
    }
    for (std::uint64_t g = 0; g < matrix.cols() / kTernaryGroup; ++g) {
      formats::pack_ternary_group(codes.data() + g * kTernaryGroup, packed.data() + g * kTernaryGroupBytes);
    }
    out.write_values(std::span<const std::uint8_t>(packed));
  }
  return gamma;
}

void write_bf16(const SourceMatrix& matrix, tools::BinaryWriter& out) {
  std::vector<float> real(matrix.cols());
  std::vector<bf16> row(matrix.cols());
  for (std::uint64_t r = 0; r < matrix.rows(); ++r) {
    matrix.real_row(r, real.data());
    std::transform(real.begin(), real.end(), row.begin(), narrow_nearest_even);
    out.write_values(std::span<const bf16>(row));
  }
}

void write_q1_0(const SourceMatrix& matrix, tools::BinaryWriter& out, ScaleNarrowing& narrowing) {
  std::vector<float> real(matrix.cols());
  std::vector<BlockQ1_0> blocks(matrix.cols() / kBlockValues);
  const bool q1_0_source = matrix.tensor().type == SourceType::Q1_0;
  for (std::uint64_t r = 0; r < matrix.rows(); ++r) {
    matrix.real_row(r, real.data());
    formats::quantize_q1_0(real.data(), real.size(), blocks.data());
    for (std::size_t b = 0; q1_0_source && b < blocks.size(); ++b)
      note_narrowing(narrowing, matrix, matrix.scale(r, b), blocks[b].d);
    out.write_values(std::span<const BlockQ1_0>(blocks));
  }
}

// Ternary codes under one scale per 128 weights are q1.58 blocks as they are.
bool codes_fit_q1_58(const SourceMatrix& matrix) {
  if (!matrix.has_codes()) return false;
  for (std::uint64_t r = 0; r < matrix.rows(); ++r) {
    for (std::uint64_t first = 0; first < matrix.cols(); first += kBlockValues) {
      if (!common_scale(matrix, r, first, kBlockValues)) return false;
    }
  }
  return true;
}

void write_q1_58(const SourceMatrix& matrix, tools::BinaryWriter& out, ScaleNarrowing& narrowing) {
  const bool exact = codes_fit_q1_58(matrix);
  std::vector<float> real(exact ? 0 : matrix.cols());
  std::vector<std::uint8_t> codes(exact ? matrix.cols() : 0);
  std::vector<BlockQ1_58> blocks(matrix.cols() / kBlockValues);
  for (std::uint64_t r = 0; r < matrix.rows(); ++r) {
    if (!exact) {
      matrix.real_row(r, real.data());
      formats::quantize_q1_58(real.data(), real.size(), blocks.data());
      out.write_values(std::span<const BlockQ1_58>(blocks));
      continue;
    }
    matrix.code_row(r, codes.data());
    for (std::size_t b = 0; b < blocks.size(); ++b) {
      const double scale = *common_scale(matrix, r, b * kBlockValues, kBlockValues);
      formats::pack_ternary_group(codes.data() + b * kBlockValues, blocks[b].codes);
      blocks[b].d = narrow_nearest_even(static_cast<float>(scale));
      note_narrowing(narrowing, matrix, scale, blocks[b].d);
    }
    out.write_values(std::span<const BlockQ1_58>(blocks));
  }
}

}  // namespace

std::optional<double> write_matrix(const SourceMatrix& matrix, tools::WeightFormat format, tools::BinaryWriter& out,
                                   ScaleNarrowing& narrowing) {
  switch (format) {
    case tools::WeightFormat::TERNARY: return write_ternary(matrix, out);
    case tools::WeightFormat::Q1_0: write_q1_0(matrix, out, narrowing); break;
    case tools::WeightFormat::Q1_58: write_q1_58(matrix, out, narrowing); break;
    case tools::WeightFormat::BF16: write_bf16(matrix, out); break;
  }
  return std::nullopt;
}

}  // namespace quorvel::convert
