// What the converter does with a checkpoint's tensors once they are read,
// for the checkpoint harnesses: the first and last rows of a few tensors as
// real values, ternary codes and block scales. Refusals (non-finite scales)
// are expected; anything else that escapes is a finding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "tools/convert/convert_error.h"
#include "tools/convert/source_matrix.h"
#include "tools/convert/source_tensor.h"

namespace quorvel::fuzz {

inline constexpr std::size_t kTensorsRead = 4;

// Runs `step`; a ConvertError it throws is a refusal, noted and dropped.
template <typename Step>
void refusable(Step step) {
  try {
    step();
  } catch (const convert::ConvertError& error) {
    note(std::string("refused: ") + error.what());
  }
}

inline void read_row(const convert::SourceMatrix& matrix, std::uint64_t r) {
  std::vector<float> values(matrix.cols());
  refusable([&] { matrix.real_row(r, values.data()); });
  if (matrix.has_codes()) {
    std::vector<std::uint8_t> codes(matrix.cols());
    matrix.code_row(r, codes.data());
  }
  const std::uint64_t run = matrix.scale_run();
  for (std::uint64_t at = 0; run > 0 && at < matrix.cols(); at += run) {
    refusable([&] { static_cast<void>(matrix.scale(r, at / run)); });
  }
}

// `tensor_scale`: the scale of packed ternary (U8) tensors, kept apart.
inline void read_first_rows(const convert::TensorSet& tensors, double tensor_scale) {
  std::size_t read = 0;
  for (const auto& [name, tensor] : tensors) {
    if (tensor.type == convert::SourceType::UNSUPPORTED) continue;
    if (read++ == kTensorsRead) return;
    const convert::SourceMatrix matrix(tensor, tensor_scale);
    if (matrix.rows() == 0) continue;
    read_row(matrix, 0);
    read_row(matrix, matrix.rows() - 1);
  }
}

}  // namespace quorvel::fuzz
