// Int8 building blocks shared by the baseline and the dot-product products:
// 128 activations in eight registers, the two-bit codes of a ternary group
// and the sign masks of a q1_0_128 block, each in weight order, and the
// reduction of four rows' 32-bit lanes to one total per row.
//
// This header is also compiled into the dot-product file (ARMv8.2-A). Its
// functions are forced inline so that no out-of-line copy exists that the
// linker could pick from there for a processor without those instructions.
#pragma once

#include <arm_neon.h>

#include <cstddef>
#include <cstdint>

namespace quorvel::kernels::arm {

// 128 consecutive activations: v[m] holds x[16m .. 16m + 15].
struct Activations128 {
  int8x16_t v[8];
};

[[gnu::always_inline]] inline Activations128 load_activations128(const std::int8_t* x) {
  Activations128 a;
#pragma GCC unroll 8
  for (std::size_t m = 0; m < 8; ++m) a.v[m] = vld1q_s8(x + 16 * m);
  return a;
}

// The exact sum of the 128 activations (pairwise widening adds; a 16-bit
// lane holds at most 16 values, 16 * 128 = 2048).
[[gnu::always_inline]] inline std::int32_t activation_sum128(const Activations128& a) {
  int16x8_t pairs = vpaddlq_s8(a.v[0]);
#pragma GCC unroll 8
  for (std::size_t m = 1; m < 8; ++m) pairs = vpadalq_s8(pairs, a.v[m]);
  return vaddlvq_s16(pairs);
}

// One 128-value column of activations for the products whose blocks hold
// 128 weights (q1_0_128, q1.58): the values and their sum, loaded once for
// every row of a group. Policies of neon_block_rows.h derive from it.
struct ActivationColumns128 {
  struct Column {
    Activations128 x;
    std::int32_t sum;
  };

  [[gnu::always_inline]] static Column load_column(const std::int8_t* x) {
    const Activations128 a = load_activations128(x);
    return {a, activation_sum128(a)};
  }
};

// One 32-value column of activations for the q8_0 products.
struct ActivationColumns32 {
  struct Column {
    int8x16_t low;   // x[0 .. 15]
    int8x16_t high;  // x[16 .. 31]
  };

  [[gnu::always_inline]] static Column load_column(const std::int8_t* x) { return {vld1q_s8(x), vld1q_s8(x + 16)}; }
};

// The raw codes (0..3) of one 32-byte ternary group (also a q1.58 block's
// codes), in weight order to match Activations128: weights 32g .. 32g + 31
// sit at bit 6 - 2g of bytes 0 .. 31, so v[2g] takes bytes 0..15 and
// v[2g + 1] bytes 16..31 at that shift.
struct TernaryCodes {
  int8x16_t v[8];
};

[[gnu::always_inline]] inline TernaryCodes load_ternary_codes(const std::uint8_t* group) {
  const uint8x16_t first = vld1q_u8(group);
  const uint8x16_t second = vld1q_u8(group + 16);
  const uint8x16_t three = vdupq_n_u8(3);
  TernaryCodes c;
  c.v[0] = vreinterpretq_s8_u8(vshrq_n_u8(first, 6));
  c.v[1] = vreinterpretq_s8_u8(vshrq_n_u8(second, 6));
  c.v[2] = vreinterpretq_s8_u8(vandq_u8(vshrq_n_u8(first, 4), three));
  c.v[3] = vreinterpretq_s8_u8(vandq_u8(vshrq_n_u8(second, 4), three));
  c.v[4] = vreinterpretq_s8_u8(vandq_u8(vshrq_n_u8(first, 2), three));
  c.v[5] = vreinterpretq_s8_u8(vandq_u8(vshrq_n_u8(second, 2), three));
  c.v[6] = vreinterpretq_s8_u8(vandq_u8(first, three));
  c.v[7] = vreinterpretq_s8_u8(vandq_u8(second, three));
  return c;
}

// The sign masks of a q1_0_128 block in weight order: v[m] lane i is all
// ones where weight 16m + i has its sign bit set, zero where it is clear.
// Weight 8k + j is bit 7 - j of sign byte k, so v[m] spreads byte 2m over
// lanes 0..7 and byte 2m + 1 over lanes 8..15 (one table lookup) and tests
// each lane's bit, most significant first.
struct Q1_0SignMasks {
  uint8x16_t v[8];
};

[[gnu::always_inline]] inline Q1_0SignMasks load_q1_0_positive_masks(const std::uint8_t* signs) {
  static constexpr std::uint8_t kBits[16] = {0x80, 0x40, 0x20, 0x10, 0x08, 0x04, 0x02, 0x01,
                                             0x80, 0x40, 0x20, 0x10, 0x08, 0x04, 0x02, 0x01};
  const uint8x16_t bytes = vld1q_u8(signs);
  const uint8x16_t bits = vld1q_u8(kBits);
  uint8x16_t spread = vcombine_u8(vdup_n_u8(0), vdup_n_u8(1));
  Q1_0SignMasks masks;
#pragma GCC unroll 8
  for (std::size_t m = 0; m < 8; ++m) {
    masks.v[m] = vtstq_u8(vqtbl1q_u8(bytes, spread), bits);
    spread = vaddq_u8(spread, vdupq_n_u8(2));
  }
  return masks;
}

// Lane i of the result is the total of the four lanes of row i.
[[gnu::always_inline]] inline int32x4_t row_totals(int32x4_t r0, int32x4_t r1, int32x4_t r2, int32x4_t r3) {
  return vpaddq_s32(vpaddq_s32(r0, r1), vpaddq_s32(r2, r3));
}

}  // namespace quorvel::kernels::arm
