#include "layers/lora_factor.h"

#include <cstring>
#include <stdexcept>
#include <utility>

#include "runtime/formats/format_table.h"

namespace quorvel::layers {

LoraFactor::LoraFactor(QuantFormat format, AlignedPtr<bf16> values, std::uint64_t rows, std::uint64_t cols) {
  if (format == QuantFormat::NONE) {
    keep_bf16(std::move(values));
  } else if (format == QuantFormat::INT8) {
    quantize_i8(values.get(), rows, cols);
  } else {
    quantize_blocks(format, values.get(), rows, cols);
  }
}

const void* LoraFactor::data() const {
  if (record_) return record_.get();
  return storage_.get();
}

void LoraFactor::keep_bf16(AlignedPtr<bf16> values) {
  // Same aligned allocation, viewed as bytes: the deleter does not care.
  storage_.reset(reinterpret_cast<std::uint8_t*>(values.release()));
}

void LoraFactor::quantize_i8(const bf16* values, std::uint64_t rows, std::uint64_t cols) {
  const std::uint64_t count = size_mul(rows, cols);
  storage_ = allocate_aligned_elements<std::uint8_t>(count);
  row_scales_ = allocate_aligned_elements<float>(rows);
  record_ = allocate_aligned_elements<formats::I8Matrix>(1);
  auto* codes = reinterpret_cast<std::int8_t*>(storage_.get());
  kernels::kernels().quantize_rows_i8(values, codes, row_scales_.get(), rows, cols);
  record_[0] = formats::I8Matrix{rows, cols, row_scales_.get(), codes};
}

void LoraFactor::quantize_blocks(QuantFormat format, const bf16* values, std::uint64_t rows, std::uint64_t cols) {
  const formats::StorageFormat* blocks = formats::find_storage_format(format);
  if (blocks == nullptr || !blocks->is_blocks()) {
    throw std::runtime_error("Unsupported LoRA quantization format in this build");
  }
  const std::size_t bytes = size_mul(rows, blocks->layout.row_bytes(cols));
  storage_ = allocate_aligned<std::uint8_t>(bytes);
  // A q8_0 block of zeros keeps the code bytes it found; make them zero too.
  std::memset(storage_.get(), 0, bytes);
  (kernels::kernels().*blocks->quantize_rows)(values, rows, cols, storage_.get());
}

LoraProduct lora_product(QuantFormat format) {
  const formats::StorageFormat* storage = formats::find_storage_format(format);
  if (storage == nullptr) throw std::runtime_error("Unsupported LoRA quantization format in forward");
  return storage->lora;
}

}  // namespace quorvel::layers
