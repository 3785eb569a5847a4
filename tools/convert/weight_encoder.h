// Writes a checkpoint matrix in one of the engine's weight formats: bf16
// rows, ternary (gamma, then codes), q1_0_128 or q1.58 blocks. Ternary
// sources keep their codes exactly wherever the target can hold them; real
// values are quantized with the target format's own rule.
#pragma once

#include <optional>
#include <string>

#include "tools/convert/source_matrix.h"
#include "tools/lib/binary_writer.h"
#include "tools/lib/tensor_layout.h"

namespace quorvel::convert {

// What the narrowing of block scales to bf16 changed, over a whole model.
struct ScaleNarrowing {
  double largest_relative_change = 0.0;
  std::string tensor;  // where it happened
};

// Returns the gamma written for the ternary format. Throws ConvertError for
// a ternary source whose scales differ where the target has one scale.
std::optional<double> write_matrix(const SourceMatrix& matrix, tools::WeightFormat format, tools::BinaryWriter& out,
                                   ScaleNarrowing& narrowing);

}  // namespace quorvel::convert
