// Writes the payload of one model object (a norm, a projection, an embedding
// table) with random weights of a chosen magnitude, in the layouts of the
// engine's block formats. Rows are generated and written one at a time, so
// the memory needed does not grow with the model.
#pragma once

#include <cstdint>

#include "tools/lib/binary_writer.h"
#include "tools/lib/tensor_layout.h"
#include "tools/lib/weight_random.h"

namespace quorvel::tools {

class PayloadWriter {
 public:
  PayloadWriter(BinaryWriter& out, WeightRandom& random) : out_(out), random_(random) {}

  // `width` bf16 weights near 1.
  void norm(std::uint64_t width);

  // A matrix of `rows` rows of `cols` weights whose values have RMS `rms`.
  // TERNARY writes its 8-byte gamma first; the block formats need `cols` to be
  // a multiple of 128 (std::invalid_argument otherwise).
  void matrix(WeightFormat format, std::uint64_t rows, std::uint64_t cols, double rms);

  // A projection's payload: its weight matrix (`out` rows of `in`), then
  // `out` bf16 bias values when it has a bias.
  void linear(WeightFormat format, std::uint64_t in, std::uint64_t out, double rms, bool has_bias);

 private:
  void bf16_matrix(std::uint64_t rows, std::uint64_t cols, double rms);
  void ternary_matrix(std::uint64_t rows, std::uint64_t cols, double rms);
  void q1_0_matrix(std::uint64_t rows, std::uint64_t cols, double rms);
  void q1_58_matrix(std::uint64_t rows, std::uint64_t cols, double rms);
  // `width` bf16 values center + spread * uniform: norm weights and biases.
  void bf16_row(std::uint64_t width, float center, float spread);
  void random_ternary_group(std::uint8_t* group);
  float block_scale(double rms);

  BinaryWriter& out_;
  WeightRandom& random_;
};

}  // namespace quorvel::tools
