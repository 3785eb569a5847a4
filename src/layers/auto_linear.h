// The linear layers: a batch of int8 activation rows times a low-bit weight
// matrix, plus an optional bias and an optional LoRA correction, written as
// bf16 rows.
//
// AutoLinear owns everything the four weight formats share: the fields, the
// bias, the LoRA place, and forward's work split over the thread pool. A
// format subclass reads its weights and supplies only its two kernel calls:
// the single-token product over a range of output rows and the several-token
// product over a range of tokens.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string_view>

#include "config/quant_format.h"
#include "layers/lora_factor.h"
#include "runtime/aligned_buffer.h"
#include "runtime/bf16.h"

namespace quorvel::layers {

// One quantized activation row, as the single-token kernels take it.
struct ActivationRow {
  const std::int8_t* codes;
  float scale;
  std::int32_t code_sum;  // only the ternary format reads it
};

class AutoLinear {
 public:
  virtual ~AutoLinear() = default;
  AutoLinear(const AutoLinear&) = delete;
  AutoLinear& operator=(const AutoLinear&) = delete;

  // Multiplies n rows of in_shape int8 codes (one scale per row in x_scale)
  // by the weights, adds the bias, then the LoRA correction computed from
  // the unquantized rows x_lora (may be null), and writes n rows of
  // out_shape values to `out`. Returns `out`.
  virtual bf16* forward(const std::int8_t* x_q, const float* x_scale, std::uint64_t n, bf16* out,
                        const bf16* x_lora);

  std::uint64_t num_heads() const { return num_heads_; }
  std::uint64_t in_shape() const { return in_shape_; }
  std::uint64_t out_shape() const { return out_shape_; }
  bool has_bias() const { return has_bias_; }
  bool has_lora() const { return has_lora_; }
  QuantFormat lora_format() const { return lora_format_; }
  std::uint64_t lora_rank() const { return lora_rank_; }

  // Reads this layer's record of the LoRA adapter file: a flag byte, and
  // when it is not 0, A (in_shape x rank bf16) and B (rank x out_shape
  // bf16), then keeps both in lora_format's storage. A 0 flag consumes one
  // byte and leaves the layer without an adapter. Throws "Failed to read
  // LoRA has_lora flag", "Failed to read LoRA A matrix", "Failed to read
  // LoRA B matrix" or "Unsupported LoRA quantization format in this build";
  // after a throw the layer is as it was before the record.
  void load_lora(std::istream& stream, std::uint64_t rank);

 protected:
  AutoLinear(std::uint64_t in_shape, std::uint64_t out_shape, std::uint64_t num_heads, bool has_bias,
             QuantFormat lora_format);

  // The 128-weight formats need both shapes to be whole groups; throws
  // "<class_name> in_shape must be a multiple of 128, got <n>" (then the
  // same for out_shape) before anything is read.
  void require_multiples_of_128(std::string_view class_name) const;
  // The bias follows the weights in the file; reads it when has_bias is set.
  void read_bias(std::istream& stream);

  // The ternary kernel needs the sum of the row's codes; it is formed once
  // per forward, not once per row range. Other formats leave it 0.
  virtual std::int32_t code_sum(const std::int8_t* codes) const;
  // The single-token product hands each worker a multiple of this many
  // output rows (the last share may be shorter).
  virtual std::uint64_t rows_per_unit() const;
  // Single-token product of output rows [first_row, first_row + rows) into
  // out[0 .. rows).
  virtual void multiply_rows(const ActivationRow& x, std::uint64_t first_row, std::uint64_t rows,
                             bf16* out) const = 0;
  // Several-token product: n_tokens consecutive activation rows (scales
  // x_scale[0 .. n_tokens)) against all output rows, out rows out_shape apart.
  virtual void multiply_tokens(const std::int8_t* x_q, const float* x_scale, std::uint64_t n_tokens,
                               bf16* out) const = 0;
  // Spreads the several-token product of n tokens over the pool: chunks of
  // 4 tokens handed out first come, first served, each against all rows.
  virtual void multiply_several_tokens(const std::int8_t* x_q, const float* x_scale, std::uint64_t n,
                                       bf16* out) const;

 private:
  void multiply_one_token(const std::int8_t* x_q, float x_scale, bf16* out) const;
  void add_bias(bf16* out, std::uint64_t n) const;
  void add_bias_to_row(bf16* row) const;
  void apply_lora(const bf16* x_lora, std::uint64_t n, bf16* out) const;

  std::uint64_t num_heads_;  // stored for the model; nothing here reads it
  std::uint64_t in_shape_;
  std::uint64_t out_shape_;
  AlignedPtr<bf16> bias_;
  bool has_bias_;
  // The LoRA adapter, set by load_lora; until then has_lora_ stays false and
  // apply_lora adds nothing.
  QuantFormat lora_format_;
  LoraFactor lora_a_;
  LoraFactor lora_b_;
  // thread_count() * lora_rank_ floats: a thread's intermediate x * A lives
  // in the slice of its worker index.
  AlignedPtr<float> lora_scratch_;
  std::uint64_t lora_rank_ = 0;
  bool has_lora_ = false;
};

}  // namespace quorvel::layers
