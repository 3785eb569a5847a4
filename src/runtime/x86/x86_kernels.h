// The x86-64 kernel sets, declared once for every instruction set: a
// kernel set is X86Kernels<Isa> for a lane trait Isa (avx2::Isa in
// avx2_isa.h, avx_vnni::Isa in avx_vnni_isa.h, avx512::Isa in avx512_isa.h).
//
// It derives from the portable set and overrides the operations it makes
// faster; every override gives the portable set's results bit for bit. Each
// family of overrides is a generic driver in its own header (e.g.
// q1_0_products.h), written against the trait; the set's translation unit
// (x86_kernels_avx2.cpp, x86_kernels_avxvnni.cpp, x86_kernels_avx512.cpp),
// compiled with that instruction set's flags, includes them all and
// instantiates the class there. The explicit instantiation declarations
// below keep every other translation unit from compiling any member, the
// vtable included. The accessor constructs a set only on a processor that
// runs it; nothing below re-checks.
#pragma once

#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels::x86 {

namespace avx2 {
struct Isa;
}
namespace avx_vnni {
struct Isa;
}
namespace avx512 {
struct Isa;
}

template <typename Isa>
class X86Kernels : public PortableKernels {
 public:
  // Defined in x86_kernels.cpp, built without instruction-set flags, so that
  // the base classes' inline destructors are compiled there and never in a
  // set's own translation unit.
  ~X86Kernels() override;

  const char* name() const override;
  CpuFeatures features() const override;

  // Weight products (ternary_products.h, q1_0_products.h, q1_58_products.h, q8_0_products.h).
  void gemm_ternary(double gamma, const std::uint8_t* w, const std::int8_t* x, const float* x_scales, bf16* out,
                    size_t out_stride, size_t n_tokens, size_t rows, size_t k) const override;
  void gemv_ternary(const std::uint8_t* w, const std::int8_t* x, std::int32_t x_sum, bf16* out, size_t rows,
                    size_t k, float x_scale, double gamma) const override;
  void gemm_q1_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                 size_t n_tokens, size_t rows, size_t k) const override;
  void gemv_q1_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                 size_t k) const override;
  void gemv_q1_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                     size_t k) const override;
  void gemm_q1_58(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                  size_t n_tokens, size_t rows, size_t k) const override;
  void gemv_q1_58(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                  size_t k) const override;
  void gemv_q1_58_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                      size_t k) const override;
  void gemm_q8_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                 size_t n_tokens, size_t rows, size_t k) const override;
  void gemv_q8_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                 size_t k) const override;
  // q1_0_tile_products.h; tiles_q1_0_rows in x86_kernels.cpp.
  void gemm_q1_0_tiles(const void* tiles, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                       size_t n_tokens, size_t rows, size_t k) const override;
  bool tiles_q1_0_rows() const override;

  // Unembedding (logits) products (i8_products.h, q8_0_products.h, nibble_logits.h).
  void gemv_i8_f32(const std::int8_t* w, const float* row_scales, const std::int8_t* x, float x_scale, float* out,
                   size_t rows, size_t k) const override;
  void gemv_q8_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                     size_t k) const override;
  void gemv_q4_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                     size_t k) const override;
  void gemv_q5_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                     size_t k) const override;

  // Norms, quantizers, rotary embedding, gates and the residual add
  // (norm_lanes.h, quantize_lanes.h, rope_lanes.h, gate_lanes.h).
  void rope_bf16(bf16* x, const float* cos, const float* sin, size_t rows, size_t x_stride,
                 size_t dim) const override;
  void rms_norm_bf16(bf16* x, const bf16* weight, size_t rows, size_t dim, float eps) const override;
  void rms_norm_quantize_i8(bf16* x, const bf16* weight, std::int8_t* q, float* scales, size_t rows, size_t dim,
                            float eps) const override;
  void quantize_rows_i8(const bf16* x, std::int8_t* q, float* scales, size_t rows, size_t dim) const override;
  void quantize_rows_q8_0(const bf16* x, size_t rows, size_t cols, void* out) const override;
  void relu2_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const override;
  void silu_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const override;
  void add_bf16(const bf16* src, bf16* dst, size_t n) const override;

  // Attention and the bf16 row dot product (attention.h).
  void attention_bf16(const bf16* q, size_t q_stride, const bf16* k, size_t k_stride, const bf16* v,
                      size_t v_stride, bf16* out, size_t out_stride, size_t n_q, size_t kv_len, size_t head_dim,
                      float* work) const override;
  void dot_rows_bf16(const bf16* rows, size_t row_stride, const bf16* vec, size_t dim, size_t first, size_t count,
                     float* out) const override;

  // Embedding lookups of the q1 formats (dequantize_q1.h).
  void dequantize_q1_0_bf16(const void* blocks, size_t n, bf16* out) const override;
  void dequantize_q1_58_bf16(const void* blocks, size_t n, bf16* out) const override;

  // LoRA side products (lora_lanes.h).
  void lora_bf16(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                 size_t rank, size_t out_dim, float* work) const override;
  void lora_q8_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                 size_t rank, size_t out_dim, float* work) const override;
  void lora_q4_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                 size_t rank, size_t out_dim, float* work) const override;
  void lora_i8(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim, size_t rank,
               size_t out_dim, float* work) const override;
  void lora_q5_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                 size_t rank, size_t out_dim, float* work) const override;
  void lora_q6_k(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                 size_t rank, size_t out_dim, float* work) const override;
};

template <typename Isa>
const char* X86Kernels<Isa>::name() const {
  return Isa::kName;
}

// The features record is the ARM sets' (the 8-bit dot product, an integer
// matrix feature); it selects the q8_0 projections' tiles of 8 tokens by 64
// or 128 rows. The AVX-512 set reports the dot product: with 32 registers
// its q8_0 product takes all 8 tokens of a tile in one pass (a fifth fewer
// CPU seconds per prompt token of the Qwen3-0.6B shape than chunks of 4
// tokens against every row). The 256-bit sets report nothing: in passes of
// at most four tokens, the tiles cost them 2-3 % more than the chunks.
template <typename Isa>
CpuFeatures X86Kernels<Isa>::features() const {
  return {.has_int8_matrix = 0, .has_dot_product = std::uint8_t{Isa::kLanes == 16 ? 1 : 0}};
}

using Avx2Kernels = X86Kernels<avx2::Isa>;
using AvxVnniKernels = X86Kernels<avx_vnni::Isa>;
using Avx512Kernels = X86Kernels<avx512::Isa>;

extern template class X86Kernels<avx2::Isa>;
extern template class X86Kernels<avx_vnni::Isa>;
extern template class X86Kernels<avx512::Isa>;

}  // namespace quorvel::kernels::x86
