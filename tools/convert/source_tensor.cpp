#include "tools/convert/source_tensor.h"

#include "runtime/checked_size.h"
#include "tools/convert/convert_error.h"

namespace quorvel::convert {

std::uint64_t SourceTensor::elements() const {
  std::uint64_t count = 1;
  for (const std::uint64_t extent : shape) count = size_mul(count, extent);
  return count;
}

std::uint64_t SourceTensor::cols() const { return shape.empty() ? 1 : shape.back(); }

std::uint64_t SourceTensor::rows() const { return cols() == 0 ? 0 : elements() / cols(); }

std::optional<std::uint64_t> source_byte_size(SourceType type, std::span<const std::uint64_t> shape) {
  const SourceStorage storage = source_storage(type);
  const std::uint64_t cols = shape.empty() ? 1 : shape.back();
  if (storage.values == 0 || cols % storage.values != 0) return std::nullopt;
  std::uint64_t rows = 1;
  for (std::size_t i = 0; i + 1 < shape.size(); ++i) rows = size_mul(rows, shape[i]);
  const std::uint64_t bytes = size_add(size_mul(rows, cols / storage.values, storage.bytes), storage.tensor_bytes);
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
