// One factor of a LoRA adapter (A: in_shape rows of `rank` values, or B:
// `rank` rows of out_shape values) in the storage that the layer's
// lora_format selects, and the kernel operation that reads that storage.
//
// Storage by format:
//   NONE            the bf16 values as read from the adapter file
//   INT8            an I8Matrix record: one f32 scale per row and row-major
//                   codes, quantized row by row with the activation rule
//   Q4_0 Q5_0 Q8_0  per row ceil(cols / 32) blocks of the format
//   Q6_K            per row ceil(cols / 256) super-blocks
// Every buffer is 128-byte aligned. TERNARY and codes outside the table have
// no LoRA storage.
#pragma once

#include <cstdint>

#include "config/quant_format.h"
#include "runtime/aligned_buffer.h"
#include "runtime/bf16.h"
#include "runtime/formats/format_table.h"
#include "runtime/formats/i8_matrix.h"

namespace quorvel::layers {

class LoraFactor {
 public:
  LoraFactor() = default;
  // Takes `rows` x `cols` bf16 values (row-major) and keeps them in the
  // storage of `format`; for the quantized formats the bf16 values are
  // released once converted. Throws "Unsupported LoRA quantization format in
  // this build" for a format without LoRA storage (the values are released
  // all the same).
  LoraFactor(QuantFormat format, AlignedPtr<bf16> values, std::uint64_t rows, std::uint64_t cols);

  // What the format's kernel operation takes as its factor argument: the
  // bf16 values, the first block of row 0, or the I8Matrix record.
  const void* data() const;

 private:
  void keep_bf16(AlignedPtr<bf16> values);
  void quantize_i8(const bf16* values, std::uint64_t rows, std::uint64_t cols);
  void quantize_blocks(QuantFormat format, const bf16* values, std::uint64_t rows, std::uint64_t cols);

  AlignedPtr<std::uint8_t> storage_;  // bf16 values, rows of blocks, or int8 codes
  AlignedPtr<float> row_scales_;      // INT8 only
  AlignedPtr<formats::I8Matrix> record_;  // INT8 only: what the kernel receives
};

// A LoRA side product of the kernel interface (lora_bf16, lora_i8, lora_q*).
using formats::LoraProduct;

// The side product that reads factors stored in `format`. Throws "Unsupported
// LoRA quantization format in forward" for a format without LoRA storage.
LoraProduct lora_product(QuantFormat format);

}  // namespace quorvel::layers
