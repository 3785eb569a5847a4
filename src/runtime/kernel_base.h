// The kernel interface: every numeric inner loop of the engine.
//
// Layers never call a kernel function directly; they take the process-wide
// kernel set from kernels() and call its virtual operations. Kernels are
// single-threaded and stateless: callers split rows across the thread pool
// and hand each share a sub-range. All buffers are 128-byte aligned at their
// start, but sub-range pointers may be anywhere inside them.
//
// Narrowing: elementwise kernels, norms, rotary, gates, adds and dequantizers
// narrow with the saturating rule; the matrix products that write bf16 use
// nearest-even (see bf16.h).
//
// The operations are declared in a fixed slot order (the comment before each
// gives its slot). The portable set in scalar/ is the arithmetic definition;
// every other set must give identical results except where a comment below
// allows rounding freedom.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/bf16.h"

namespace quorvel::kernels {

using std::size_t;

// Processor features that choose a kernel set. Two one-byte flags.
struct CpuFeatures {
  std::uint8_t has_int8_matrix = 0;  // never set by the start-up query
  std::uint8_t has_dot_product = 0;
};
static_assert(sizeof(CpuFeatures) == 2);

// Positions whose attention scores one pass holds (see slot 28).
inline constexpr size_t kAttentionBlock = 64;

class KernelBase {
 public:
  virtual ~KernelBase() = default;

  // 0. Rotary embedding in place, row by row, half-split pairing: with
  //    h = dim / 2, a = x[i], b = x[i + h] for i < h:
  //      x[i + h] = fma(a, sin[i + h], b * cos[i + h])
  //      x[i]     = fma(-b, sin[i], a * cos[i])
  //    Rows of x are x_stride elements apart; cos and sin advance by dim per
  //    row. Nothing happens for dim < 2; otherwise h is a multiple of 4.
  virtual void rope_bf16(bf16* x, const float* cos, const float* sin, size_t rows, size_t x_stride,
                         size_t dim) const = 0;
  // 1. Copies n bytes: 16-byte blocks, then the tail by memcpy.
  virtual void copy_bytes(void* dst, const void* src, size_t n) const = 0;
  // 2. Sets n bytes to the low byte of value: 16-byte blocks, then memset.
  virtual void fill_bytes(void* dst, int value, size_t n) const = 0;
  // 3. LayerNorm per row without bias; four Welford lanes (lane j takes
  //    elements j, j+4, ...), merged 0+1, then +2, then +3. dim % 4 == 0.
  virtual void layer_norm_bf16(bf16* x, const bf16* weight, size_t rows, size_t dim, float eps) const = 0;
  // 4. RMS norm per row: sum of squares in four fused lanes merged
  //    (l0 + l1) + (l2 + l3); inv = 1 / sqrt(eps + sum / dim);
  //    y = (x * inv) * w. dim % 4 == 0.
  virtual void rms_norm_bf16(bf16* x, const bf16* weight, size_t rows, size_t dim, float eps) const = 0;
  // 5. rms_norm_bf16 in place, then the activation quantizer over the
  //    narrowed bf16 rows: identical to slot 4 followed by slot 6.
  virtual void rms_norm_quantize_i8(bf16* x, const bf16* weight, std::int8_t* q, float* scales, size_t rows,
                                    size_t dim, float eps) const = 0;
  // 6. Activation quantization of each row (formats/activation_i8.h).
  virtual void quantize_rows_i8(const bf16* x, std::int8_t* q, float* scales, size_t rows, size_t dim) const = 0;
  // 7-10. Each of `rows` rows of `cols` values to consecutive rows of blocks
  //    (formats/q8_0.h, q4_0.h, q5_0.h, q6_k.h).
  virtual void quantize_rows_q8_0(const bf16* x, size_t rows, size_t cols, void* out) const = 0;
  virtual void quantize_rows_q4_0(const bf16* x, size_t rows, size_t cols, void* out) const = 0;
  virtual void quantize_rows_q5_0(const bf16* x, size_t rows, size_t cols, void* out) const = 0;
  virtual void quantize_rows_q6_k(const bf16* x, size_t rows, size_t cols, void* out) const = 0;
  // 11. out[i] = narrow_saturate((float)q[i] * scale).
  virtual void dequantize_i8_bf16(const std::int8_t* q, bf16* out, size_t n, float scale) const = 0;
  // 12-13. One q1_0_128 / q1.58 row of n weights to bf16; n is rounded up
  //    to whole 128-weight blocks.
  virtual void dequantize_q1_0_bf16(const void* blocks, size_t n, bf16* out) const = 0;
  virtual void dequantize_q1_58_bf16(const void* blocks, size_t n, bf16* out) const = 0;
  // 14-17. Consecutive rows of blocks to f32 rows of `cols` values.
  virtual void dequantize_q8_0_f32(const void* blocks, size_t rows, size_t cols, float* out) const = 0;
  virtual void dequantize_q4_0_f32(const void* blocks, size_t rows, size_t cols, float* out) const = 0;
  virtual void dequantize_q5_0_f32(const void* blocks, size_t rows, size_t cols, float* out) const = 0;
  virtual void dequantize_q6_k_f32(const void* blocks, size_t rows, size_t cols, float* out) const = 0;

  // Unembedding products (18-22): f32 logits for `rows` rows (a multiple of
  // 32) of a table arranged in groups of 32 rows. For the block formats each
  // group stores, for every block column, the 32 rows' blocks contiguously;
  // the int8 table is tiled (formats/i8_matrix.h) with one scale per row.
  // out[r] = x_scale * sum over blocks of d_b * (float)S_b, one f32
  // accumulator in block order (S_b the exact integer block sum);
  // for int8: out[r] = ((float)sum(w * x) * x_scale) * row_scales[r].
  // `w`, `row_scales` and `out` point at the first row of the range.
  // 18.
  virtual void gemv_i8_f32(const std::int8_t* w, const float* row_scales, const std::int8_t* x, float x_scale,
                           float* out, size_t rows, size_t k) const = 0;
  // 19.
  virtual void gemv_q8_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                             size_t k) const = 0;
  // 20-22.
  virtual void gemv_q4_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                             size_t k) const = 0;
  virtual void gemv_q5_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                             size_t k) const = 0;
  virtual void gemv_q6_k_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                             size_t k) const = 0;
  // 23-24. f32 twins of gemv_q1_0 / gemv_q1_58 over plain consecutive rows
  //    (the q1 unembedding tables are not regrouped); any row count.
  virtual void gemv_q1_0_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                             size_t k) const = 0;
  virtual void gemv_q1_58_f32(const void* w, const std::int8_t* x, float x_scale, float* out, size_t rows,
                              size_t k) const = 0;
  // 25. up = narrow(max(gate, 0)^2 * up), (r * r) rounded first.
  virtual void relu2_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const = 0;
  // 26. up = narrow((silu-reciprocal * gate) * up) with the polynomial
  //    exponential; ARM sets may use a reciprocal estimate + one Newton step.
  virtual void silu_mul_bf16(const bf16* gate, bf16* up, size_t rows, size_t dim) const = 0;
  // 27. dst[i] = narrow_saturate(dst[i] + src[i]).
  virtual void add_bf16(const bf16* src, bf16* dst, size_t n) const = 0;
  // 28. Causal attention of n_q query rows (the last n_q of kv_len
  //    positions) for one head. Keys are position-major (row p at
  //    k + p * k_stride); values are dimension-major (element (p, d) at
  //    v[d * v_stride + p]). work holds kAttentionBlock + head_dim floats:
  //    the scores of one block of positions, then the weighted value sum.
  virtual void attention_bf16(const bf16* q, size_t q_stride, const bf16* k, size_t k_stride, const bf16* v,
                              size_t v_stride, bf16* out, size_t out_stride, size_t n_q, size_t kv_len,
                              size_t head_dim, float* work) const = 0;

  // Weight products (29-36). Single-token (gemv): `rows` output rows from
  // consecutive weight rows of k inputs. Several-token (gemm): for every
  // token t < n_tokens and row r < rows, out[t * out_stride + r], with token
  // t's activations at x + t * k and scale x_scales[t]. bf16 outputs use
  // nearest-even narrowing.
  // 29. Ternary, several tokens; forms each token's code sum itself.
  virtual void gemm_ternary(double gamma, const std::uint8_t* w, const std::int8_t* x, const float* x_scales,
                            bf16* out, size_t out_stride, size_t n_tokens, size_t rows, size_t k) const = 0;
  // 30. Ternary, one token: out[r] = narrow((float)((double)(sum c*x - x_sum)
  //    * (gamma * (double)x_scale))). rows % 4 == 0.
  virtual void gemv_ternary(const std::uint8_t* w, const std::int8_t* x, std::int32_t x_sum, bf16* out,
                            size_t rows, size_t k, float x_scale, double gamma) const = 0;
  // 31-36. q1_0_128, q1.58 and q8_0: out[r] = narrow(x_scale * sum over
  //    blocks of d_b * (float)S_b), one f32 accumulator in block order.
  virtual void gemm_q1_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                         size_t n_tokens, size_t rows, size_t k) const = 0;
  virtual void gemv_q1_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                         size_t k) const = 0;
  virtual void gemm_q1_58(const void* w, const std::int8_t* x, const float* x_scales, bf16* out,
                          size_t out_stride, size_t n_tokens, size_t rows, size_t k) const = 0;
  virtual void gemv_q1_58(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                          size_t k) const = 0;
  virtual void gemm_q8_0(const void* w, const std::int8_t* x, const float* x_scales, bf16* out, size_t out_stride,
                         size_t n_tokens, size_t rows, size_t k) const = 0;
  virtual void gemv_q8_0(const void* w, const std::int8_t* x, float x_scale, bf16* out, size_t rows,
                         size_t k) const = 0;
  // q1_0_128 rows regrouped in tiles of sixteen (formats/q1_0_tiles.h),
  // with the arithmetic of gemm_q1_0: rows [0, rows) of the tiles at
  // `tiles` for each token t < n_tokens (activations at x + t * k, outputs
  // at out + t * out_stride). The set multiplies plain q1_0_128 rows faster
  // than tiles unless tiles_q1_0_rows() says otherwise.
  virtual void gemm_q1_0_tiles(const void* tiles, const std::int8_t* x, const float* x_scales, bf16* out,
                               size_t out_stride, size_t n_tokens, size_t rows, size_t k) const = 0;
  virtual bool tiles_q1_0_rows() const = 0;
  // The processor features the set was chosen for (the ARM sets' record):
  // with the 8-bit dot product or an integer matrix feature the several-token
  // q8_0 projections take their tiled split.
  virtual CpuFeatures features() const = 0;

  // LoRA side products (37, 39-43): for each token t < n_tokens,
  //   h[r] = sum over i (in order) of x[t][i] * A[i][r]   (rank floats in work)
  //   y[j] = sum over r (in order) of h[r] * B[r][j]
  //   out[t][j] = narrow_saturate(out[t][j] + y[j])
  // with products rounded before each add. x rows are in_dim apart, out rows
  // out_dim apart. A has in_dim rows of `rank` values, B has `rank` rows of
  // out_dim values, stored as bf16 (37), or as rows of blocks of the format,
  // whose dequantized values enter the same scheme; for int8 (41) `a` and
  // `b` point at formats::I8Matrix records.
  // 37.
  virtual void lora_bf16(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                         size_t rank, size_t out_dim, float* work) const = 0;
  // 38. out[first + i] = dot(rows + (first + i) * row_stride, vec) for
  //    i < count: four f32 lanes (lane j takes elements j, j+4, ...), products
  //    rounded, merged ((l0 + l1) + l2) + l3.
  virtual void dot_rows_bf16(const bf16* rows, size_t row_stride, const bf16* vec, size_t dim, size_t first,
                             size_t count, float* out) const = 0;
  // 39-43.
  virtual void lora_q8_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                         size_t rank, size_t out_dim, float* work) const = 0;
  virtual void lora_q4_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                         size_t rank, size_t out_dim, float* work) const = 0;
  virtual void lora_i8(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                       size_t rank, size_t out_dim, float* work) const = 0;
  virtual void lora_q5_0(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                         size_t rank, size_t out_dim, float* work) const = 0;
  virtual void lora_q6_k(const bf16* x, const void* a, const void* b, bf16* out, size_t n_tokens, size_t in_dim,
                         size_t rank, size_t out_dim, float* work) const = 0;

  // Not an arithmetic operation: a short name of the set ("portable",
  // "avx2", ...) for reports and tests.
  virtual const char* name() const = 0;
};

// The process-wide kernel set, chosen once on first use from the processor's
// features or QUORVEL_KERNEL_SET (chosen_kernel_set in kernel_sets.h); every
// later call returns the same object.
const KernelBase& kernels();

}  // namespace quorvel::kernels
