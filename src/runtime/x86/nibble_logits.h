// q4_0 and q5_0 logits (four- and five-bit codes, an f32 scale per 32
// values) over the grouped unembedding table, through the block engine on
// any lane trait. The codes are unpacked as unsigned values (0..15, or 0..31
// with the fifth bit added from qh), two blocks per vector where a vector
// holds 64 bytes, and the offset comes off the exact sum:
// S_b = sum(code * x) - offset * sum(x).
#pragma once

#include <cstddef>

#include "runtime/formats/q4_0.h"
#include "runtime/formats/q5_0.h"
#include "runtime/x86/block_products.h"
#include "runtime/x86/intrinsics.h"
#include "runtime/x86/x86_kernels.h"

namespace quorvel::kernels::x86 {
namespace {

// The 32 four-bit codes of 16 bytes in value order: value j is the low
// nibble of byte j, value j + 16 its high nibble.
template <typename Isa>
[[gnu::always_inline]] inline __m256i unpack_nibbles(const std::uint8_t* qs) {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(qs));
  const __m128i mask = _mm_set1_epi8(0x0F);
  return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_and_si128(bytes, mask)),
                                 _mm_and_si128(_mm_srli_epi16(bytes, 4), mask), 1);
}

template <typename Isa>
struct Q4_0Codes {
  using Block = formats::BlockQ4_0;
  static constexpr int kOffset = 8;  // the code of weight 0
  [[gnu::always_inline]] static __m256i unpack(const std::uint8_t* block) {
    return unpack_nibbles<Isa>(block + offsetof(Block, qs));
  }
};

// The fifth bits of q5_0: bit j of the little-endian word qh adds 16 to value j.
template <typename Isa>
struct Q5_0Codes {
  using Block = formats::BlockQ5_0;
  static constexpr int kOffset = 16;
  [[gnu::always_inline]] static __m256i unpack(const std::uint8_t* block) {
    return Isa::add_sixteen_where_set(unpack_nibbles<Isa>(block + offsetof(Block, qs)), block + offsetof(Block, qh));
  }
};

template <typename Isa, typename Codes>
struct NibbleFormat {
  using Ints = typename Isa::Ints;
  static constexpr std::size_t kValues = Codes::Block::kValues;
  static constexpr std::size_t kBlockBytes = sizeof(typename Codes::Block);
  static constexpr std::size_t kBlocksPerStep = Isa::kVectorBytes / kValues;
  static constexpr int kActivationVectors = 1;
  static constexpr std::int32_t kScaleWord = 0;
  static constexpr bool kBf16Scale = false;
  static constexpr CodeOrder kOrder = CodeOrder::natural;
  struct Weights {
    Ints codes;
  };

  template <int kBlocks>
  [[gnu::always_inline]] static Weights expand(const std::uint8_t* block, std::size_t block_step) {
    return {Isa::template join_parts<kBlocks>([&](std::size_t i) { return Codes::unpack(block + i * block_step); })};
  }
  // At most 2 * 31 * 127 per 16-bit pair sum on AVX2.
  [[gnu::always_inline]] static Ints dot(Ints acc, const Weights& w, const Ints* x) {
    return Isa::template dot_unsigned<1>(acc, &w.codes, x);
  }
  [[gnu::always_inline]] static Ints block_sums(Ints dots, Ints x_sums) {
    return Isa::sub(dots, Isa::mul(x_sums, Isa::set1(Codes::kOffset)));
  }
};

}  // namespace

template <typename Isa>
void X86Kernels<Isa>::gemv_q4_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                    size_t k) const {
  if (!grouped_logits<Isa, NibbleFormat<Isa, Q4_0Codes<Isa>>>(w, x, x_scale, out, rows, k)) {
    PortableKernels::gemv_q4_0_f32(w, x, x_scale, out, rows, k);
  }
}

template <typename Isa>
void X86Kernels<Isa>::gemv_q5_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                                    size_t k) const {
  if (!grouped_logits<Isa, NibbleFormat<Isa, Q5_0Codes<Isa>>>(w, x, x_scale, out, rows, k)) {
    PortableKernels::gemv_q5_0_f32(w, x, x_scale, out, rows, k);
  }
}

}  // namespace quorvel::kernels::x86
