#include "layers/auto_linear.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "layers/dispatch.h"
#include "layers/payload_read.h"
#include "runtime/kernel_base.h"
#include "runtime/thread_pool.h"

namespace quorvel::layers {
namespace {

// Decode splits the output rows in units of 4 so that each worker streams
// whole weight rows; prefill splits the tokens in chunks of 4.
constexpr std::uint64_t kRowsPerUnit = 4;
constexpr std::uint64_t kTokensPerChunk = 4;

const PayloadText kBiasText{"Could not read in bias: read_bytes (", "Failed to read linear bias"};

}  // namespace

AutoLinear::AutoLinear(std::uint64_t in_shape, std::uint64_t out_shape, std::uint64_t num_heads, bool has_bias,
                       QuantFormat lora_format)
    : num_heads_(num_heads),
      in_shape_(in_shape),
      out_shape_(out_shape),
      has_bias_(has_bias),
      lora_format_(lora_format) {}

void AutoLinear::require_multiples_of_128(std::string_view class_name) const {
  const auto check = [&](std::uint64_t value, std::string_view which) {
    if (value % 128 == 0) return;
    throw std::runtime_error(std::string(class_name) + " " + std::string(which) +
                             " must be a multiple of 128, got " + std::to_string(value));
  };
  check(in_shape_, "in_shape");
  check(out_shape_, "out_shape");
}

void AutoLinear::read_bias(std::istream& stream) {
  if (has_bias_) bias_ = read_table<bf16>(stream, out_shape_, kBiasText);
}

std::int32_t AutoLinear::code_sum(const std::int8_t*) const { return 0; }

bf16* AutoLinear::forward(const std::int8_t* x_q, const float* x_scale, std::uint64_t n, bf16* out,
                          const bf16* x_lora) {
  if (n == 1) {
    multiply_one_token(x_q, x_scale[0], out);
  } else if (n > 1) {
    multiply_several_tokens(x_q, x_scale, n, out);
  }
  if (has_bias_) add_bias(out, n);
  apply_lora(x_lora, n, out);
  return out;
}

void AutoLinear::multiply_one_token(const std::int8_t* x_q, float x_scale, bf16* out) const {
  const ActivationRow row{x_q, x_scale, code_sum(x_q)};
  auto units = [&](std::uint64_t first, std::uint64_t count) {
    const std::uint64_t first_row = first * kRowsPerUnit;
    const std::uint64_t rows = std::min(count * kRowsPerUnit, out_shape_ - first_row);
    multiply_rows(row, first_row, rows, out + first_row);
  };
  run_static((out_shape_ + kRowsPerUnit - 1) / kRowsPerUnit, units);
}

void AutoLinear::multiply_several_tokens(const std::int8_t* x_q, const float* x_scale, std::uint64_t n,
                                         bf16* out) const {
  auto chunk = [&](std::uint64_t first, std::uint64_t count) {
    multiply_tokens(x_q + first * in_shape_, x_scale + first, count, out + first * out_shape_);
  };
  run_dynamic(n, kTokensPerChunk, chunk);
}

void AutoLinear::add_bias(bf16* out, std::uint64_t n) const {
  const auto& k = kernels::kernels();
  auto whole_rows = [&](std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t t = first; t < first + count; ++t) k.add_bf16(bias_.get(), out + t * out_shape_, out_shape_);
  };
  if (current_depth() != 0) {
    whole_rows(0, n);
  } else if (n == 1 || n <= thread_count() / 2) {
    // Too few rows to keep every worker busy: split each row instead.
    for (std::uint64_t t = 0; t < n; ++t) add_bias_to_row(out + t * out_shape_);
  } else {
    parallel_for(n, 0, whole_rows);
  }
}

void AutoLinear::add_bias_to_row(bf16* row) const {
  auto elements = [&](std::uint64_t first, std::uint64_t count) {
    kernels::kernels().add_bf16(bias_.get() + first, row + first, count);
  };
  parallel_for(out_shape_, 0, elements);
}

// Step 3 of forward: the low-rank correction out += x_lora * A * B, added
// to the product and bias already in `out`, for layers that carry an adapter
// and callers that pass input rows. Adapters are not read yet: load_lora
// (this layer's record of the LoRA adapter file, which sets has_lora_) and
// the per-format side products dispatched here over the n tokens (lora_bf16,
// lora_i8, lora_q*) are still to be written, so no layer has one.
void AutoLinear::apply_lora(const bf16* x_lora, [[maybe_unused]] std::uint64_t n,
                            [[maybe_unused]] bf16* out) const {
  if (!has_lora_ || x_lora == nullptr) return;
}

}  // namespace quorvel::layers
