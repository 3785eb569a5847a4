// The portable kernel set: plain C++, and the arithmetic definition that
// every SIMD set is tested against. It follows the documented orders
// literally (four f32 lanes where an operation says four lanes, fused
// multiply-adds only where it says fused), so its results are the reference.
//
// The operations are implemented in several files of this directory, one
// family per file.
#pragma once

#include "runtime/kernel_base.h"

namespace quorvel::kernels {

class PortableKernels : public KernelBase {
 public:
  void rope_bf16(bf16* x, const float* cos, const float* sin, size_t rows, size_t x_stride,
                 size_t dim) const override;
  void copy_bytes(void* dst, const void* src, size_t n) const override;
  void fill_bytes(void* dst, int value, size_t n) const override;
  void layer_norm_bf16(bf16* x, const bf16* weight, size_t rows, size_t dim, float eps) const override;
  void rms_norm_bf16(bf16* x, const bf16* weight, size_t rows, size_t dim, float eps) const override;
  void rms_norm_quantize_i8(bf16* x, const bf16* weight, std::int8_t* q, float* scales, size_t rows, size_t dim,
                            float eps) const override;
  void quantize_rows_i8(const bf16* x, std::int8_t* q, float* scales, size_t rows, size_t dim) const override;
  void quantize_rows_q8_0(const bf16* x, size_t rows, size_t cols, void* out) const override;
  void quantize_rows_q4_0(const bf16* x, size_t rows, size_t cols, void* out) const override;
  void quantize_rows_q5_0(const bf16* x, size_t rows, size_t cols, void* out) const override;
  void quantize_rows_q6_k(const bf16* x, size_t rows, size_t cols, void* out) const override;
  void dequantize_i8_bf16(const std::int8_t* q, bf16* out, size_t n, float scale) const override;
  void dequantize_q1_0_bf16(const void* blocks, size_t n, bf16* out) const override;
  void dequantize_q1_58_bf16(const void* blocks, size_t n, bf16* out) const override;
  void dequantize_q8_0_f32(const void* blocks, size_t rows, size_t cols, float* out) const override;
  void dequantize_q4_0_f32(const void* blocks, size_t rows, size_t cols, float* out) const override;
  void dequantize_q5_0_f32(const void* blocks, size_t rows, size_t cols, float* out) const override;
  void dequantize_q6_k_f32(const void* blocks, size_t rows, size_t cols, float* out) const override;
  void gemv_i8_f32(const std::int8_t* w, const float* row_scales, const std::int8_t* x, float x_scale, float* out,
                   size_t rows, size_t k) const override;
  void gemv_q8_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                     size_t k) const override;
  void gemv_q4_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                     size_t k) const override;
  void gemv_q5_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                     size_t k) const override;
  void gemv_q6_k_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                     size_t k) const override;
  void gemv_q1_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                     size_t k) const override;
  void gemv_q1_58_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                      size_t k) const override;
  void relu2_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const override;
  void silu_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const override;
  void add_bf16(const bf16* src, bf16* dst, size_t n) const override;
  void attention_bf16(const bf16* q, size_t q_stride, const bf16* k, size_t k_stride, const bf16* v,
                      size_t v_stride, bf16* out, size_t out_stride, size_t n_q, size_t kv_len, size_t head_dim,
                      float* work) const override;
  void gemm_ternary(double gamma, const std::uint8_t* w, const std::int8_t* x, const float* x_scales, bf16* out,
                    size_t out_stride, size_t n_tokens, size_t rows, size_t k) const override;
  void gemv_ternary(const std::uint8_t* w, const std::int8_t* x, std::int32_t x_sum, bf16* out, size_t rows,
                    size_t k, float x_scale, double gamma) const override;
  void gemm_q1_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                 size_t n_tokens, size_t rows, size_t k) const override;
  void gemv_q1_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                 size_t k) const override;
  void gemm_q1_0_tiles(const void* tiles, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                       size_t n_tokens, size_t rows, size_t k) const override;
  bool tiles_q1_0_rows() const override;
  void gemm_q1_58(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                  size_t n_tokens, size_t rows, size_t k) const override;
  void gemv_q1_58(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                  size_t k) const override;
  void gemm_q8_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                 size_t n_tokens, size_t rows, size_t k) const override;
  void gemv_q8_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                 size_t k) const override;
  void lora_bf16(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                 size_t rank, size_t out_dim, float* work) const override;
  void dot_rows_bf16(const bf16* rows, size_t row_stride, const bf16* vec, size_t dim, size_t first, size_t count,
                     float* out) const override;
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

  const char* name() const override { return "portable"; }
  CpuFeatures features() const override { return {}; }
};

}  // namespace quorvel::kernels
