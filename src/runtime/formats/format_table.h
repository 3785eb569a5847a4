// Every storage format in one place: its block layout and the kernel
// operations that quantize, multiply and dequantize it. Layers, the config
// parser and the tools look a format up here instead of switching over
// formats; a new format is a new block struct beside the others and one
// new entry below.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "config/quant_format.h"
#include "runtime/checked_size.h"
#include "runtime/formats/q1_0.h"
#include "runtime/formats/q1_58.h"
#include "runtime/formats/q4_0.h"
#include "runtime/formats/q5_0.h"
#include "runtime/formats/q6_k.h"
#include "runtime/formats/q8_0.h"
#include "runtime/kernel_base.h"

namespace quorvel::formats {

using kernels::KernelBase;
using std::size_t;

// Kernel operations, as members of the kernel interface.
using QuantizeRows = void (KernelBase::*)(const bf16* x, size_t rows, size_t cols, void* out) const;
using LogitsProduct = void (KernelBase::*)(const void* w, const std::int8_t* x, float x_scale, float* out,
                                           size_t rows, size_t k) const;
using LoraProduct = void (KernelBase::*)(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens,
                                         size_t in_dim, size_t rank, size_t out_dim, float* work) const;
using RowProduct = void (KernelBase::*)(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                                        size_t k) const;
using TokenProduct = void (KernelBase::*)(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                                          size_t out_stride, size_t n_tokens, size_t rows, size_t k) const;
using DequantizeRow = void (KernelBase::*)(const void* blocks, size_t n, bf16* out) const;

// Rows of fixed-size blocks; a row's last block may be partly used.
struct BlockLayout {
  size_t block_values;
  size_t block_bytes;

  // Bytes of a row of `values` values in whole blocks.
  constexpr std::uint64_t row_bytes(std::uint64_t values) const {
    return size_mul(size_ceil_div(values, block_values), block_bytes);
  }
};

template <typename Block>
inline constexpr BlockLayout kLayoutOf{Block::kValues, sizeof(Block)};

// A format that the init config names for LoRA factors and the unembedding
// table. bf16 and int8 are not made of blocks: they have no row quantizer
// and no block-table product (int8 tables have their own tiled product).
struct StorageFormat {
  QuantFormat format;
  std::string_view name;   // its text in the init config
  std::string_view alias;  // a second text for it, or empty
  BlockLayout layout;  // bf16 and int8: one value a block
  QuantizeRows quantize_rows;
  LogitsProduct logits;  // over an unembedding table grouped by 32 rows
  LoraProduct lora;

  constexpr bool is_blocks() const { return quantize_rows != nullptr; }
};

template <typename Block>
constexpr StorageFormat block_storage(QuantFormat format, std::string_view name, QuantizeRows quantize,
                                      LogitsProduct logits, LoraProduct lora) {
  return {format, name, {}, kLayoutOf<Block>, quantize, logits, lora};
}

// TERNARY has no entry: no config text selects it.
inline constexpr StorageFormat kStorageFormats[] = {
    {QuantFormat::NONE, "none", "bf16", {1, sizeof(bf16)}, nullptr, nullptr, &KernelBase::lora_bf16},
    {QuantFormat::INT8, "int8", {}, {1, 1}, nullptr, nullptr, &KernelBase::lora_i8},
    block_storage<BlockQ4_0>(QuantFormat::Q4_0, "q4_0", &KernelBase::quantize_rows_q4_0,
                             &KernelBase::gemv_q4_0_f32, &KernelBase::lora_q4_0),
    block_storage<BlockQ5_0>(QuantFormat::Q5_0, "q5_0", &KernelBase::quantize_rows_q5_0,
                             &KernelBase::gemv_q5_0_f32, &KernelBase::lora_q5_0),
    block_storage<BlockQ6_K>(QuantFormat::Q6_K, "q6_k", &KernelBase::quantize_rows_q6_k,
                             &KernelBase::gemv_q6_k_f32, &KernelBase::lora_q6_k),
    block_storage<BlockQ8_0>(QuantFormat::Q8_0, "q8_0", &KernelBase::quantize_rows_q8_0,
                             &KernelBase::gemv_q8_0_f32, &KernelBase::lora_q8_0),
};

// The entry of `format`, or nullptr when it has none.
constexpr const StorageFormat* find_storage_format(QuantFormat format) {
  for (const StorageFormat& entry : kStorageFormats) {
    if (entry.format == format) return &entry;
  }
  return nullptr;
}

// The entry whose name or alias is `text` exactly, or nullptr.
constexpr const StorageFormat* find_storage_format(std::string_view text) {
  for (const StorageFormat& entry : kStorageFormats) {
    if (entry.name == text || (!entry.alias.empty() && entry.alias == text)) return &entry;
  }
  return nullptr;
}

// A format of projection weights (and of the tables that stay in it): rows
// of fixed-size blocks, multiplied as they are.
struct WeightFormat {
  std::string_view name;  // as messages name it
  BlockLayout layout;
  RowProduct gemv;
  TokenProduct gemm;
  LogitsProduct plain_logits;  // over consecutive rows, or nullptr
  DequantizeRow dequantize;    // one row to bf16, or nullptr
};

inline constexpr WeightFormat kQ1_0Weights{"q1_0_128", kLayoutOf<BlockQ1_0>, &KernelBase::gemv_q1_0,
                                           &KernelBase::gemm_q1_0, &KernelBase::gemv_q1_0_f32,
                                           &KernelBase::dequantize_q1_0_bf16};
inline constexpr WeightFormat kQ1_58Weights{"q1.58", kLayoutOf<BlockQ1_58>, &KernelBase::gemv_q1_58,
                                            &KernelBase::gemm_q1_58, &KernelBase::gemv_q1_58_f32,
                                            &KernelBase::dequantize_q1_58_bf16};
inline constexpr WeightFormat kQ8_0Weights{"q8_0", kLayoutOf<BlockQ8_0>, &KernelBase::gemv_q8_0,
                                           &KernelBase::gemm_q8_0, nullptr, nullptr};

}  // namespace quorvel::formats
