#include "tools/convert/source_matrix.h"

#include <cmath>
#include <string>

#include "runtime/bf16.h"
#include "runtime/formats/ternary.h"
#include "tools/convert/convert_error.h"
#include "tools/convert/half_float.h"

namespace quorvel::convert {
namespace {

constexpr SourceStorage kQ8_0 = source_storage(SourceType::Q8_0);
constexpr SourceStorage kQ1_0 = source_storage(SourceType::Q1_0);
constexpr SourceStorage kQ2_0 = source_storage(SourceType::Q2_0);
constexpr SourceStorage kTQ2_0 = source_storage(SourceType::TQ2_0);
constexpr SourceStorage kI2_S = source_storage(SourceType::I2_S);
constexpr std::uint64_t kTQ2_0ScaleOffset = 64;  // the codes come first

bool packed_rows(const SourceTensor& tensor) { return tensor.type == SourceType::U8; }

float half_at(const std::uint8_t* bytes) { return half_to_float(load_le<std::uint16_t>(bytes)); }

// TQ2_0 keeps 128 weights in each 32-byte half of a block's codes, weight
// 32 l + m at bits 2 l of byte m: our group layout with the planes reversed.
void tq2_0_codes(const std::uint8_t* block, std::uint8_t* codes) {
  for (std::uint64_t j = 0; j < kTQ2_0.values; ++j) {
    const std::uint64_t half = j / 128, l = (j % 128) / 32, m = j % 32;
    codes[j] = static_cast<std::uint8_t>((block[32 * half + m] >> (2 * l)) & 3u);
  }
}

void q2_0_codes(const std::uint8_t* block, std::uint8_t* codes) {
  const std::uint8_t* qs = block + 2;
  for (std::uint64_t j = 0; j < kQ2_0.values; ++j)
    codes[j] = static_cast<std::uint8_t>((qs[j / 4] >> (2 * (j % 4))) & 3u);
}

}  // namespace

SourceMatrix::SourceMatrix(const SourceTensor& tensor, double tensor_scale, std::vector<std::uint64_t> row_order)
    : tensor_(tensor), tensor_scale_(tensor_scale), row_order_(std::move(row_order)) {
  if (tensor.type == SourceType::UNSUPPORTED) {
    throw ConvertError(tensor.file, "tensor " + tensor.name + " has type " + tensor.type_name + ", which is not read");
  }
  cols_ = tensor.cols();
  rows_ = packed_rows(tensor) ? tensor.rows() * 4 : tensor.rows();
  const SourceStorage storage = source_storage(tensor.type);
  row_bytes_ = cols_ / storage.values * storage.bytes;
}

const std::uint8_t* SourceMatrix::stored_row(std::uint64_t r) const {
  const std::uint64_t stored = row_order_.empty() ? r : row_order_[r];
  return tensor_.data.data() + stored * row_bytes_;
}

void SourceMatrix::check_finite(double value, std::uint64_t r) const {
  if (!std::isfinite(value)) {
    throw ConvertError(tensor_.file, "tensor " + tensor_.name + " has a non-finite scale in row " + std::to_string(r));
  }
}

bool SourceMatrix::has_codes() const {
  switch (tensor_.type) {
    case SourceType::U8:
    case SourceType::I2_S:
    case SourceType::TQ2_0:
    case SourceType::Q2_0: return true;
    default: return false;
  }
}

std::uint64_t SourceMatrix::scale_run() const {
  switch (tensor_.type) {
    case SourceType::U8:
    case SourceType::I2_S: return cols_;
    case SourceType::TQ2_0: return kTQ2_0.values;
    case SourceType::Q2_0: return kQ2_0.values;
    case SourceType::Q1_0: return kQ1_0.values;
    default: return 0;
  }
}

double SourceMatrix::scale(std::uint64_t r, std::uint64_t run) const {
  double value = 0.0;
  switch (tensor_.type) {
    case SourceType::U8: value = tensor_scale_; break;
    case SourceType::I2_S:
      value = load_le<float>(tensor_.data.data() + tensor_.data.size() - kI2_S.tensor_bytes);
      break;
    case SourceType::TQ2_0: value = half_at(stored_row(r) + run * kTQ2_0.bytes + kTQ2_0ScaleOffset); break;
    case SourceType::Q2_0:
    case SourceType::Q1_0: value = half_at(stored_row(r) + run * source_storage(tensor_.type).bytes); break;
    default: break;
  }
  check_finite(value, r);
  return value;
}

void SourceMatrix::code_row(std::uint64_t r, std::uint8_t* codes) const {
  if (packed_rows(tensor_)) {
    const std::uint64_t stored = row_order_.empty() ? r : row_order_[r];
    const std::uint64_t plane_rows = rows_ / 4, shift = 2 * (stored / plane_rows);
    const std::uint8_t* source = tensor_.data.data() + (stored % plane_rows) * cols_;
    for (std::uint64_t c = 0; c < cols_; ++c) codes[c] = static_cast<std::uint8_t>((source[c] >> shift) & 3u);
    return;
  }
  const std::uint8_t* row = stored_row(r);
  if (tensor_.type == SourceType::I2_S) {
    for (std::uint64_t c = 0; c < cols_; ++c) {
      codes[c] = static_cast<std::uint8_t>(formats::ternary_code(row + c / 128 * 32, c % 128));
    }
  } else if (tensor_.type == SourceType::TQ2_0) {
    for (std::uint64_t b = 0; b < cols_ / kTQ2_0.values; ++b)
      tq2_0_codes(row + b * kTQ2_0.bytes, codes + b * kTQ2_0.values);
  } else {
    for (std::uint64_t b = 0; b < cols_ / kQ2_0.values; ++b) {
      q2_0_codes(row + b * kQ2_0.bytes, codes + b * kQ2_0.values);
    }
  }
}

void SourceMatrix::real_row(std::uint64_t r, float* out) const {
  const std::uint8_t* row = stored_row(r);
  switch (tensor_.type) {
    case SourceType::F32:
      for (std::uint64_t c = 0; c < cols_; ++c) out[c] = load_le<float>(row + 4 * c);
      return;
    case SourceType::F16:
      for (std::uint64_t c = 0; c < cols_; ++c) out[c] = half_at(row + 2 * c);
      return;
    case SourceType::BF16:
      for (std::uint64_t c = 0; c < cols_; ++c) out[c] = widen(bf16{load_le<std::uint16_t>(row + 2 * c)});
      return;
    case SourceType::I8:
      for (std::uint64_t c = 0; c < cols_; ++c) out[c] = static_cast<float>(static_cast<std::int8_t>(row[c]));
      return;
    case SourceType::Q8_0:
      for (std::uint64_t c = 0; c < cols_; ++c) {
        const std::uint8_t* block = row + c / kQ8_0.values * kQ8_0.bytes;
        if (c % kQ8_0.values == 0) check_finite(half_at(block), r);
        out[c] = half_at(block) * static_cast<float>(static_cast<std::int8_t>(block[2 + c % kQ8_0.values]));
      }
      return;
    case SourceType::Q1_0:
      for (std::uint64_t b = 0; b < cols_ / kQ1_0.values; ++b) {
        const std::uint8_t* signs = row + b * kQ1_0.bytes + 2;
        const float d = static_cast<float>(scale(r, b));
        for (std::uint64_t j = 0; j < kQ1_0.values; ++j) *out++ = ((signs[j / 8] >> (j % 8)) & 1u) ? d : -d;
      }
      return;
    default: break;
  }
  std::vector<std::uint8_t> codes(cols_);
  code_row(r, codes.data());
  const std::uint64_t run = scale_run();
  for (std::uint64_t c = 0; c < cols_; ++c) {
    out[c] = static_cast<float>(static_cast<int>(codes[c]) - 1) * static_cast<float>(scale(r, c / run));
  }
}

std::vector<std::uint64_t> unpermute_heads(std::uint64_t heads, std::uint64_t head_dim) {
  std::vector<std::uint64_t> order(heads * head_dim);
  const std::uint64_t half = head_dim / 2;
  for (std::uint64_t h = 0; h < heads; ++h) {
    for (std::uint64_t j = 0; j < head_dim; ++j) {
      order[h * head_dim + j] = h * head_dim + (j < half ? 2 * j : 2 * (j - half) + 1);
    }
  }
  return order;
}

}  // namespace quorvel::convert
