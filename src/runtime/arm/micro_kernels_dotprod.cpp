// The dot-product micro-kernel table (ARMv8.2-A SDOT), over the trait below.
//
// This is the only file built with the dot-product instructions. The trait
// has internal linkage, so every template instantiated here is this file's
// own copy: the linker cannot take one of them for the baseline set, which
// runs on processors without SDOT.
#include <arm_neon.h>

#include <cstddef>
#include <cstdint>

#include "runtime/arm/micro_kernel_table.h"
#include "runtime/arm/neon_int8_lanes.h"
#include "runtime/arm/neon_micro_kernels.h"

#if !defined(__ARM_FEATURE_DOTPROD)
#error "micro_kernels_dotprod.cpp is built with -march=armv8.2-a+dotprod (the ARM block of CMakeLists.txt)"
#endif

namespace quorvel::kernels::arm {

namespace {

// The members of WideningSums (neon_widening_sums.h) with SDOT: four 8-bit
// products summed into each 32-bit lane.
struct DotProductSums {
  // 32-bit lanes from the first group on: nothing to widen, no chunks.
  using CodeLanes = int32x4_t;
  static constexpr std::size_t kCodeGroupsPerWidening = SIZE_MAX;

  // One SDOT per 16 raw codes.
  [[gnu::always_inline]] static CodeLanes add_code_products(CodeLanes lanes, TernaryCodes codes, Activations128 x) {
#pragma GCC unroll 8
    for (std::size_t m = 0; m < 8; ++m) lanes = vdotq_s32(lanes, codes.v[m], x.v[m]);
    return lanes;
  }

  [[gnu::always_inline]] static int32x4_t widened(CodeLanes lanes) { return lanes; }

  // Two SDOTs per block and row.
  [[gnu::always_inline]] static int32x4_t byte_products32(int8x16_t w_low, int8x16_t w_high,
                                                          const ActivationColumns32::Column& x) {
    const int32x4_t sum = vdotq_s32(vdupq_n_s32(0), w_low, x.low);
    return vdotq_s32(sum, w_high, x.high);
  }

  // The sign mask of a set bit is all ones, that is -1 as a signed byte, so
  // one SDOT of the mask with the activations gives A = -P, minus the sum of
  // the activations whose sign bit is set. Three instructions per 16 weights.
  [[gnu::always_inline]] static int32x4_t sign_lanes(Q1_0SignMasks masks, Activations128 x) {
    int32x4_t negated = vdupq_n_s32(0);
#pragma GCC unroll 8
    for (std::size_t m = 0; m < 8; ++m) negated = vdotq_s32(negated, vreinterpretq_s8_u8(masks.v[m]), x.v[m]);
    return negated;
  }

  // S_b = P - (X - P) = -(2A + X).
  [[gnu::always_inline]] static int32x4_t signed_sums(int32x4_t negated, std::int32_t x_sum) {
    return vnegq_s32(vaddq_s32(vshlq_n_s32(negated, 1), vdupq_n_s32(x_sum)));
  }
};

}  // namespace

constinit const MicroKernelTable kDotProductMicroKernels = micro_kernels_with<DotProductSums>("neon-dotprod");

}  // namespace quorvel::kernels::arm
