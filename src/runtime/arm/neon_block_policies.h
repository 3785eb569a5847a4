// The block formats of neon_block_rows.h (q1_0_128, q1.58, q8_0) as its
// policies, each written once over an int8 sum trait: WideningSums
// (neon_widening_sums.h) for the baseline set, the SDOT trait of
// micro_kernels_dotprod.cpp for the dot-product set. A policy names its block
// and its column of activations and forms a row's block sum S_b from the
// trait's lanes.
#pragma once

#include <arm_neon.h>

#include "runtime/arm/neon_int8_lanes.h"
#include "runtime/formats/q1_0.h"
#include "runtime/formats/q1_58.h"
#include "runtime/formats/q8_0.h"

namespace quorvel::kernels::arm {

// S_b = the sum of sign * x, the trait's sign_lanes and signed_sums.
template <typename Sums>
struct Q1_0Signs : ActivationColumns128 {
  using Block = formats::BlockQ1_0;

  static int32x4_t row_lanes(const Block& b, const Column& c) {
    return Sums::sign_lanes(load_q1_0_positive_masks(b.signs), c.x);
  }

  static int32x4_t finish(int32x4_t raw, const Column& c) { return Sums::signed_sums(raw, c.sum); }
};

// S_b = sum of c * x - X, X the block's activation sum, equal to the sum of
// (c - 1) * x.
template <typename Sums>
struct Q1_58Codes : ActivationColumns128 {
  using Block = formats::BlockQ1_58;

  static int32x4_t row_lanes(const Block& b, const Column& c) {
    const typename Sums::CodeLanes zero{};
    return Sums::widened(Sums::add_code_products(zero, load_ternary_codes(b.codes), c.x));
  }

  static int32x4_t finish(int32x4_t raw, const Column& c) { return vsubq_s32(raw, vdupq_n_s32(c.sum)); }
};

// S_b = the sum of q * x.
template <typename Sums>
struct Q8_0Bytes : ActivationColumns32 {
  using Block = formats::BlockQ8_0;

  static int32x4_t row_lanes(const Block& b, const Column& c) {
    return Sums::byte_products32(vld1q_s8(b.q), vld1q_s8(b.q + 16), c);
  }

  static int32x4_t finish(int32x4_t raw, const Column&) { return raw; }
};

}  // namespace quorvel::kernels::arm
