// A checkpoint tensor seen as the matrix it stands for: rows of real values
// and, when the checkpoint stores it as ternary codes, rows of codes with
// the scales that go with them. Packed ternary (four rows a byte) counts
// four times as many rows as it is stored with; a vector is one row.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "tools/convert/source_tensor.h"

namespace quorvel::convert {

class SourceMatrix {
 public:
  // `tensor_scale` is the real value of code 2 for per-tensor ternary types
  // whose scale is stored apart (packed U8); `row_order[r]` is the stored row
  // of row r (empty: the stored order). Throws ConvertError for a type that
  // has no rows of values.
  SourceMatrix(const SourceTensor& tensor, double tensor_scale = 0.0, std::vector<std::uint64_t> row_order = {});

  const SourceTensor& tensor() const { return tensor_; }
  std::uint64_t rows() const { return rows_; }
  std::uint64_t cols() const { return cols_; }

  // `cols()` real values of row r. Throws ConvertError for a non-finite scale.
  void real_row(std::uint64_t r, float* out) const;

  // Ternary types: codes 0..3 (value (code - 1) * scale) of row r.
  bool has_codes() const;
  void code_row(std::uint64_t r, std::uint8_t* codes) const;

  // Types with scales (ternary types and Q1_0): how many consecutive weights
  // of a row share one scale (cols() for a per-tensor scale), and the scale of
  // the `run`-th such stretch of row r. 0 when the type has no scales.
  std::uint64_t scale_run() const;
  double scale(std::uint64_t r, std::uint64_t run) const;

 private:
  const std::uint8_t* stored_row(std::uint64_t r) const;
  void check_finite(double scale, std::uint64_t r) const;

  const SourceTensor& tensor_;
  double tensor_scale_;
  std::vector<std::uint64_t> row_order_;
  std::uint64_t rows_ = 0;
  std::uint64_t cols_ = 0;
  std::uint64_t row_bytes_ = 0;
};

// Row order that undoes the rotary interleave of GGUF "llama" Q and K: within
// each head of `head_dim` rows, our row j < D/2 is stored as row 2j and row
// j + D/2 as row 2j + 1.
std::vector<std::uint64_t> unpermute_heads(std::uint64_t heads, std::uint64_t head_dim);

}  // namespace quorvel::convert
