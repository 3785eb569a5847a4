// The micro-kernel table of one int8 sum trait, written once: each entry is
// the NEON row walk of its product (neon_block_rows.h, neon_ternary_rows.h)
// instantiated with the format's policy over Sums.
//
// A variant's translation unit instantiates this with its own trait and
// nothing else; every function it adds to the table is a template that
// depends on that trait, so a variant built with more instructions (the
// dot-product file) defines no function the other variant could share.
#pragma once

#include "runtime/arm/micro_kernel_table.h"
#include "runtime/arm/neon_block_policies.h"
#include "runtime/arm/neon_block_rows.h"
#include "runtime/arm/neon_ternary_rows.h"
#include "runtime/scalar/portable_block_products.h"

namespace quorvel::kernels::arm {

// q1_0_128 and q1.58: the single-token products over groups of four rows.
template <typename Policy>
constexpr BlockProducts q1_block_products() {
  constexpr size_t kRows = portable::kQ1RowsPerGroup;
  return {gemm_block_rows<Policy>, gemv_block_rows<Policy, kRows, bf16>, gemv_block_rows<Policy, kRows, float>};
}

// q8_0: the single-token product by the tuning table, the logits over the
// unembedding table's groups eight rows at a time.
template <typename Policy>
constexpr BlockProducts q8_0_block_products() {
  return {gemm_block_rows<Policy>, gemv_q8_0_table_rows<Policy>, gemv_grouped_rows_f32<Policy, 8>};
}

template <typename Sums>
constexpr MicroKernelTable micro_kernels_with(const char* set_name) {
  return {
      .set_name = set_name,
      .gemv_ternary = gemv_ternary_rows<Sums>,
      .q1_0 = q1_block_products<Q1_0Signs<Sums>>(),
      .q1_58 = q1_block_products<Q1_58Codes<Sums>>(),
      .q8_0 = q8_0_block_products<Q8_0Bytes<Sums>>(),
  };
}

}  // namespace quorvel::kernels::arm
