// The x86-64 kernel set for processors with AVX-512 F/BW/VL with VNNI (and the AVX2 set's instructions).
//
// It derives from the portable set and overrides the operations it makes
// faster; every override gives the portable set's results bit for bit. Each
// family of overrides lives in its own file named after the instruction set
// (e.g. q1_0_products_avx512.cpp), compiled with that set's flags; this header
// only declares them, so a new family joins by adding its declarations here
// and its file beside the others. The accessor constructs this set only on a
// processor that runs it; nothing below re-checks.
#pragma once

#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels::x86 {

class Avx512Kernels : public PortableKernels {
 public:
  // Declared first and defined out of line, so that the class's vtable is
  // emitted with avx512_kernels.cpp (built without extra instruction-set flags).
  const char* name() const override;

  // Weight products (ternary, q1_0_128, q1.58, q8_0).
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

  // Unembedding (logits) products.
  void gemv_i8_f32(const std::int8_t* w, const float* row_scales, const std::int8_t* x, float x_scale, float* out,
                   size_t rows, size_t k) const override;
  void gemv_q8_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                     size_t k) const override;
  void gemv_q4_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                     size_t k) const override;
  void gemv_q5_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                     size_t k) const override;

  // Norms, quantizers, rotary embedding, gates and the residual add
  // (norms_avx512.cpp, quantize_avx512.cpp, rope_avx512.cpp, gates_avx512.cpp).
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

  // Attention and the bf16 row dot product (attention_avx512.cpp).
  void attention_bf16(const bf16* q, size_t q_stride, const bf16* k, size_t k_stride, const bf16* v,
                      size_t v_stride, bf16* out, size_t out_stride, size_t n_q, size_t kv_len, size_t head_dim,
                      float* work) const override;
  void dot_rows_bf16(const bf16* rows, size_t row_stride, const bf16* vec, size_t dim, size_t first, size_t count,
                     float* out) const override;

  // Embedding lookups of the q1 formats (dequantize_q1_avx512.cpp).
  void dequantize_q1_0_bf16(const void* blocks, size_t n, bf16* out) const override;
  void dequantize_q1_58_bf16(const void* blocks, size_t n, bf16* out) const override;

  // LoRA side products (lora_avx512.cpp).
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

}  // namespace quorvel::kernels::x86
