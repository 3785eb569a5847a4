// The AVX-VNNI lane trait: the AVX2 set's eight 32-bit lanes and all of its
// operations, except the byte dot products, which VEX-encoded VPDPBUSD
// multiplies unsigned by signed bytes straight into the 32-bit lanes (as the
// AVX-512 trait does, signed weights are flipped to w + 128 and 128 * sum(x)
// comes off the sums). One instruction replaces VPMADDUBSW + VPMADDWD +
// VPADDD, and the 16-bit limit of the pair sums goes away.
//
// Included only by *_avxvnni.cpp files (compiled with the AVX2 flags and
// -mavxvnni). The trait and its float vocabulary are types of their own in
// namespace avx_vnni, so every generic template instantiated with either is
// this set's own code, never a double of the AVX2 set's.
#pragma once

#include "runtime/x86/avx2_isa.h"

namespace quorvel::kernels::x86::avx_vnni {

struct F32x8 : avx2::F32x8 {};

struct Isa : avx2::Isa {
  static constexpr const char* kName = "avx-vnni";
  using F32 = F32x8;

  // acc + the dot sums of four unsigned bytes of w[i] with four signed bytes
  // of x[i] per lane, over i < kCount, exact in 32 bits.
  template <int kCount>
  [[gnu::always_inline]] static Ints dot_unsigned(Ints acc, const Ints* w, const Ints* x) {
    #pragma GCC unroll 16
    for (int i = 0; i < kCount; ++i) acc = _mm256_dpbusd_avx_epi32(acc, w[i], x[i]);
    return acc;
  }

  // Signed weight bytes flipped to w + 128, VPDPBUSD's unsigned operand; the
  // flip adds 128 * sum(x) to every sum, which signed_sums takes off again.
  // The 32-bit lanes may wrap on the way, but the exact sum fits 32 bits, so
  // the wrapped arithmetic ends on it.
  struct SignedCodes {
    Ints flipped;
  };
  [[gnu::always_inline]] static SignedCodes signed_codes(Ints codes) {
    return {_mm256_xor_si256(codes, _mm256_set1_epi8(static_cast<char>(0x80)))};
  }
  [[gnu::always_inline]] static Ints dot_signed(Ints acc, const SignedCodes& w, Ints x) {
    return _mm256_dpbusd_avx_epi32(acc, w.flipped, x);
  }
  [[gnu::always_inline]] static Ints signed_sums(Ints dots, Ints x_sums) {
    return _mm256_sub_epi32(dots, _mm256_slli_epi32(x_sums, 7));
  }
};

}  // namespace quorvel::kernels::x86::avx_vnni
