#include "layers/lora_factor.h"

#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

#include "runtime/formats/q4_0.h"
#include "runtime/formats/q5_0.h"
#include "runtime/formats/q6_k.h"
#include "runtime/formats/q8_0.h"

namespace quorvel::layers {
namespace {

using kernels::KernelBase;

// How a block format lays out one row, and the kernel's row quantizer for it.
struct BlockStorage {
  std::size_t block_bytes;
  std::size_t block_values;
  void (KernelBase::*quantize_rows)(const bf16* x, std::size_t rows, std::size_t cols, void* out) const;
};

std::optional<BlockStorage> block_storage(QuantFormat format) {
  switch (format) {
    case QuantFormat::Q4_0:
      return BlockStorage{sizeof(formats::BlockQ4_0), formats::kQ4_0BlockValues, &KernelBase::quantize_rows_q4_0};
    case QuantFormat::Q5_0:
      return BlockStorage{sizeof(formats::BlockQ5_0), formats::kQ5_0BlockValues, &KernelBase::quantize_rows_q5_0};
    case QuantFormat::Q6_K:
      return BlockStorage{sizeof(formats::BlockQ6_K), formats::kQ6_KBlockValues, &KernelBase::quantize_rows_q6_k};
    case QuantFormat::Q8_0:
      return BlockStorage{sizeof(formats::BlockQ8_0), formats::kQ8_0BlockValues, &KernelBase::quantize_rows_q8_0};
    default:
      return std::nullopt;
  }
}

}  // namespace

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
  const std::optional<BlockStorage> blocks = block_storage(format);
  if (!blocks) throw std::runtime_error("Unsupported LoRA quantization format in this build");
  const std::size_t bytes =
      size_mul(rows, size_ceil_div(cols, blocks->block_values), blocks->block_bytes);
  storage_ = allocate_aligned<std::uint8_t>(bytes);
  // A q8_0 block of zeros keeps the code bytes it found; make them zero too.
  std::memset(storage_.get(), 0, bytes);
  (kernels::kernels().*blocks->quantize_rows)(values, rows, cols, storage_.get());
}

LoraProduct lora_product(QuantFormat format) {
  switch (format) {
    case QuantFormat::NONE: return &KernelBase::lora_bf16;
    case QuantFormat::INT8: return &KernelBase::lora_i8;
    case QuantFormat::Q4_0: return &KernelBase::lora_q4_0;
    case QuantFormat::Q5_0: return &KernelBase::lora_q5_0;
    case QuantFormat::Q6_K: return &KernelBase::lora_q6_k;
    case QuantFormat::Q8_0: return &KernelBase::lora_q8_0;
    default: throw std::runtime_error("Unsupported LoRA quantization format in forward");
  }
}

}  // namespace quorvel::layers
