#include "tools/convert/source_tensor.h"

#include "runtime/checked_size.h"
#include "tools/convert/convert_error.h"

namespace quorvel::convert {
namespace {

// How a type stores a row: `values` weights in `bytes` bytes, plus
// `tensor_bytes` once per tensor.
struct Storage {
  std::uint64_t values = 1;
  std::uint64_t bytes = 0;
  std::uint64_t tensor_bytes = 0;
};

std::optional<Storage> storage_of(SourceType type) {
  switch (type) {
    case SourceType::F32: return Storage{1, 4};
    case SourceType::F16:
    case SourceType::BF16: return Storage{1, 2};
    case SourceType::U8:
    case SourceType::I8: return Storage{1, 1};
    case SourceType::Q8_0: return Storage{32, 34};
    case SourceType::Q1_0: return Storage{128, 18};
    case SourceType::Q2_0: return Storage{64, 18};
    case SourceType::TQ2_0: return Storage{256, 66};
    case SourceType::I2_S:  // 128-weight groups of 32 bytes, then a 32-byte scale trailer
      return Storage{128, 32, 32};
    case SourceType::UNSUPPORTED: break;
  }
  return std::nullopt;
}

}  // namespace

std::uint64_t SourceTensor::elements() const {
  std::uint64_t count = 1;
  for (const std::uint64_t extent : shape) count = size_mul(count, extent);
  return count;
}

std::uint64_t SourceTensor::cols() const { return shape.empty() ? 1 : shape.back(); }

std::uint64_t SourceTensor::rows() const { return cols() == 0 ? 0 : elements() / cols(); }

std::optional<std::uint64_t> source_byte_size(SourceType type, std::span<const std::uint64_t> shape) {
  const std::optional<Storage> storage = storage_of(type);
  if (!storage) return std::nullopt;
  const std::uint64_t cols = shape.empty() ? 1 : shape.back();
  if (cols % storage->values != 0) return std::nullopt;
  std::uint64_t rows = 1;
  for (std::size_t i = 0; i + 1 < shape.size(); ++i) rows = size_mul(rows, shape[i]);
  const std::uint64_t bytes = size_add(size_mul(rows, cols / storage->values, storage->bytes), storage->tensor_bytes);
  if (size_overflowed(bytes)) return std::nullopt;
  return bytes;
}

void TensorSet::add(SourceTensor tensor) {
  const auto [at, inserted] = tensors_.try_emplace(tensor.name, tensor);
  if (!inserted) {
    const std::string where = at->second.file == tensor.file ? "twice" : "also in " + at->second.file.string();
    throw ConvertError(tensor.file, "tensor " + tensor.name + " appears " + where);
  }
}

const SourceTensor* TensorSet::find(std::string_view name) const {
  const auto found = tensors_.find(name);
  return found == tensors_.end() ? nullptr : &found->second;
}

}  // namespace quorvel::convert
