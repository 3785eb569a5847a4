// LoRA side products in eight f32 lanes, one factor type per storage format.
#include "runtime/formats/q4_0.h"
#include "runtime/formats/q5_0.h"
#include "runtime/formats/q6_k.h"
#include "runtime/formats/q8_0.h"
#include "runtime/x86/avx2_float_lanes.h"
#include "runtime/x86/avx2_kernels.h"
#include "runtime/x86/lora_lanes.h"

namespace quorvel::kernels::x86 {
namespace {

using V = avx2::F32x8;
using Q8_0Factor = lanes::BlockFactor<V, formats::BlockQ8_0, formats::dequantize_row_q8_0>;
using Q4_0Factor = lanes::BlockFactor<V, formats::BlockQ4_0, formats::dequantize_row_q4_0>;
using Q5_0Factor = lanes::BlockFactor<V, formats::BlockQ5_0, formats::dequantize_row_q5_0>;
using Q6_KFactor = lanes::BlockFactor<V, formats::BlockQ6_K, formats::dequantize_row_q6_k>;

}  // namespace

void Avx2Kernels::lora_bf16(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                            size_t rank, size_t out_dim, float* work) const {
  lanes::lora<V, lanes::Bf16Factor<V>>(x, a, b, out, n_tokens, in_dim, rank, out_dim, work);
}

void Avx2Kernels::lora_i8(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                          size_t rank, size_t out_dim, float* work) const {
  lanes::lora<V, lanes::I8Factor<V>>(x, a, b, out, n_tokens, in_dim, rank, out_dim, work);
}

void Avx2Kernels::lora_q8_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                            size_t rank, size_t out_dim, float* work) const {
  lanes::lora<V, Q8_0Factor>(x, a, b, out, n_tokens, in_dim, rank, out_dim, work);
}

void Avx2Kernels::lora_q4_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                            size_t rank, size_t out_dim, float* work) const {
  lanes::lora<V, Q4_0Factor>(x, a, b, out, n_tokens, in_dim, rank, out_dim, work);
}

void Avx2Kernels::lora_q5_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                            size_t rank, size_t out_dim, float* work) const {
  lanes::lora<V, Q5_0Factor>(x, a, b, out, n_tokens, in_dim, rank, out_dim, work);
}

void Avx2Kernels::lora_q6_k(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                            size_t rank, size_t out_dim, float* work) const {
  lanes::lora<V, Q6_KFactor>(x, a, b, out, n_tokens, in_dim, rank, out_dim, work);
}

}  // namespace quorvel::kernels::x86
