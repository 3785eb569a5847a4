// Row expansion of the q1_0_128 and q1.58 formats to bf16 (the quantized
// embedding lookups) on any lane trait: the trait's Q1Expansion expands one
// block of 128 weights (avx2_q1_expansion.h, avx512_q1_expansion.h).
#pragma once

#include <cstddef>

#include "runtime/formats/q1_0.h"
#include "runtime/formats/q1_58.h"
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

// out = the blocks covering n values, each expanded by kExpand(block, out).
template <typename Isa, typename Block, void (*kExpand)(const Block&, bf16*)>
void expand_blocks(const void* blocks, std::size_t n, bf16* out) {
  const auto* block = static_cast<const Block*>(blocks);
  const std::size_t count = (n + Block::kValues - 1) / Block::kValues;
  for (std::size_t b = 0; b < count; ++b) kExpand(block[b], out + Block::kValues * b);
}

}  // namespace

template <typename Isa>
void X86Kernels<Isa>::dequantize_q1_0_bf16(const void* blocks, size_t n, bf16* out) const {
  expand_blocks<Isa, formats::BlockQ1_0, Isa::Q1Expansion::q1_0_block>(blocks, n, out);
}

template <typename Isa>
void X86Kernels<Isa>::dequantize_q1_58_bf16(const void* blocks, size_t n, bf16* out) const {
  expand_blocks<Isa, formats::BlockQ1_58, Isa::Q1Expansion::q1_58_block>(blocks, n, out);
}

}  // namespace quorvel::kernels::x86
