// The 64-bit ARM kernel set (Advanced SIMD), with or without the ARMv8.2
// 8-bit dot-product instructions.
//
// It derives from the portable set and overrides the operations that carry
// the engine's time; every override gives the portable set's results bit for
// bit, except silu_mul_bf16, whose reciprocal is the processor's estimate
// refined by one Newton step. What stays with the portable base (LayerNorm,
// which no architecture builds; the load-time quantizers and dequantizers;
// the q4_0/q5_0/q6_k logits; the LoRA side products) runs off the hot path
// or only with options that are not the default.
//
// The ten hottest products go through MicroKernelTable, chosen once in the
// constructor: the baseline or the dot-product table, never a mix. Both are
// filled from the same templates over an int8 sum trait
// (neon_micro_kernels.h). Each family of the other overrides lives in its own
// file named after the instruction set (e.g. norms_neon.cpp).
#pragma once

#include "runtime/arm/micro_kernel_table.h"
#include "runtime/scalar/portable_kernels.h"

namespace quorvel::kernels::arm {

class NEONKernels : public PortableKernels {
 public:
  // Declared first and defined out of line, so that the vtable is emitted
  // with neon_kernels.cpp (plain ARMv8-A), never with a dot-product file.
  const char* name() const override;
  CpuFeatures features() const override;

  // Queries the processor itself.
  NEONKernels();
  // The baseline products, replaced by all ten dot-product versions when
  // features.has_dot_product is 1.
  explicit NEONKernels(const CpuFeatures& features);

  // Forwarded through MicroKernelTable (neon_kernels.cpp).
  void gemv_ternary(const std::uint8_t* w, const std::int8_t* x, std::int32_t x_sum, bf16* out, size_t rows, size_t k,
                    float x_scale, double gamma) const override;
  void gemm_q1_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                 size_t n_tokens, size_t rows, size_t k) const override;
  void gemv_q1_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows, size_t k) const override;
  void gemv_q1_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                     size_t k) const override;
  void gemm_q1_58(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                  size_t n_tokens, size_t rows, size_t k) const override;
  void gemv_q1_58(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows, size_t k) const override;
  void gemv_q1_58_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                      size_t k) const override;
  void gemm_q8_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                 size_t n_tokens, size_t rows, size_t k) const override;
  void gemv_q8_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows, size_t k) const override;
  void gemv_q8_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                     size_t k) const override;

  // One version only (ternary_products_neon.cpp, int8_logits_neon.cpp).
  void gemm_ternary(double gamma, const std::uint8_t* w, const std::int8_t* x, const float* x_scales, bf16* out,
                    size_t out_stride, size_t n_tokens, size_t rows, size_t k) const override;
  void gemv_i8_f32(const std::int8_t* w, const float* row_scales, const std::int8_t* x, float x_scale, float* out,
                   size_t rows, size_t k) const override;

  // Norms and activation quantization (norms_neon.cpp, quantize_i8_neon.cpp).
  void rms_norm_bf16(bf16* x, const bf16* weight, size_t rows, size_t dim, float eps) const override;
  void rms_norm_quantize_i8(bf16* x, const bf16* weight, std::int8_t* q, float* scales, size_t rows, size_t dim,
                            float eps) const override;
  void quantize_rows_i8(const bf16* x, std::int8_t* q, float* scales, size_t rows, size_t dim) const override;

  // Elementwise (rope_neon.cpp, gates_neon.cpp, bytes_neon.cpp).
  void rope_bf16(bf16* x, const float* cos, const float* sin, size_t rows, size_t x_stride, size_t dim) const override;
  void relu2_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const override;
  void silu_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const override;
  void add_bf16(const bf16* src, bf16* dst, size_t n) const override;
  void dequantize_i8_bf16(const std::int8_t* q, bf16* out, size_t n, float scale) const override;
  void copy_bytes(void* dst, const void* src, size_t n) const override;
  void fill_bytes(void* dst, int value, size_t n) const override;

  // Attention and the bf16 row dot product (attention_neon.cpp).
  void attention_bf16(const bf16* q, size_t q_stride, const bf16* k, size_t k_stride, const bf16* v, size_t v_stride,
                      bf16* out, size_t out_stride, size_t n_q, size_t kv_len, size_t head_dim,
                      float* work) const override;
  void dot_rows_bf16(const bf16* rows, size_t row_stride, const bf16* vec, size_t dim, size_t first, size_t count,
                     float* out) const override;

 private:
  MicroKernelTable table_;
  CpuFeatures features_;
};

}  // namespace quorvel::kernels::arm
