#include "layers/auto_linear.h"

#include <algorithm>
#include <cstring>
#include <istream>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "io/short_read.h"
#include "layers/payload_read.h"
#include "runtime/kernel_base.h"
#include "runtime/parallel_rows.h"
#include "runtime/thread_pool.h"

namespace quorvel::layers {
namespace {

// Decode splits the output rows in units of 4 (unless a layer asks for
// larger ones) so that each worker streams whole weight rows; prefill
// splits the tokens in chunks of 4.
constexpr std::uint64_t kRowsPerUnit = 4;
constexpr std::uint64_t kTokensPerChunk = 4;

const PayloadText kBiasText{"Could not read in bias: read_bytes (", "Failed to read linear bias"};

// One LoRA factor of `rows` x `cols` bf16 values. The rank comes from the
// adapter file alone, so the factor is only allocated once the file has
// shown that it holds it. The adapter file's short reads print no report:
// the message alone says which factor ran short.
AlignedPtr<bf16> read_lora_factor(std::istream& stream, std::uint64_t rows, std::uint64_t cols,
                                  const char* failure) {
  const std::uint64_t count = size_mul(rows, cols);
  // A size past 64 bits fails as the allocation of it would.
  if (size_overflowed(size_mul(count, sizeof(bf16)))) throw std::bad_alloc();
  std::vector<char> bytes;
  if (!read_backed(stream, size_mul(count, sizeof(bf16)), bytes)) throw std::runtime_error(failure);
  AlignedPtr<bf16> values = allocate_aligned_elements<bf16>(count);
  if (!bytes.empty()) std::memcpy(values.get(), bytes.data(), bytes.size());  // rank 0 reads nothing
  return values;
}

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

std::uint64_t AutoLinear::rows_per_unit() const { return kRowsPerUnit; }

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
  parallel_rows(out_shape_, {.unit_rows = rows_per_unit()}, [&](std::uint64_t first, std::uint64_t count) {
    multiply_rows(row, first, count, out + first);
  });
}

void AutoLinear::multiply_several_tokens(const std::int8_t* x_q, const float* x_scale, std::uint64_t n,
                                         bf16* out) const {
  parallel_rows(n, {.chunk_units = kTokensPerChunk}, [&](std::uint64_t first, std::uint64_t count) {
    multiply_tokens(x_q + first * in_shape_, x_scale + first, count, out + first * out_shape_);
  });
}

void AutoLinear::add_bias(bf16* out, std::uint64_t n) const {
  const auto& kernel_set = kernels::kernels();
  auto whole_rows = [&](std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t t = first; t < first + count; ++t)
      kernel_set.add_bf16(bias_.get(), out + t * out_shape_, out_shape_);
  };
  if (current_depth() == 0 && (n == 1 || n <= thread_count() / 2)) {
    // Too few rows to keep every worker busy: split each row instead.
    for (std::uint64_t t = 0; t < n; ++t) add_bias_to_row(out + t * out_shape_);
  } else {
    parallel_rows(n, {}, whole_rows);
  }
}

void AutoLinear::add_bias_to_row(bf16* row) const {
  parallel_rows(out_shape_, {}, [&](std::uint64_t first, std::uint64_t count) {
    kernels::kernels().add_bf16(bias_.get() + first, row + first, count);
  });
}

void AutoLinear::load_lora(std::istream& stream, std::uint64_t rank) {
  const int flag = stream.get();
  if (stream.fail()) throw std::runtime_error("Failed to read LoRA has_lora flag");
  if (flag == 0) {
    has_lora_ = false;
    return;
  }
  // Built aside and committed at the end, so that a throw leaves no half
  // adapter behind (and every buffer is released on the way out). The
  // scratch is sized by the rank only once the factors have shown it real.
  AlignedPtr<bf16> a = read_lora_factor(stream, in_shape_, rank, "Failed to read LoRA A matrix");
  AlignedPtr<bf16> b = read_lora_factor(stream, rank, out_shape_, "Failed to read LoRA B matrix");
  AlignedPtr<float> scratch = allocate_aligned_elements<float>(size_mul(thread_count(), rank));
  LoraFactor factor_a(lora_format_, std::move(a), in_shape_, rank);
  LoraFactor factor_b(lora_format_, std::move(b), rank, out_shape_);
  lora_a_ = std::move(factor_a);
  lora_b_ = std::move(factor_b);
  lora_scratch_ = std::move(scratch);
  lora_rank_ = rank;
  has_lora_ = true;
}

// Step 3 of forward: out[t] += x_lora[t] * A * B for every token, added to
// the product and bias already in `out`. Tokens are independent, so the
// split does not change the result; each thread keeps its intermediate in
// its own slice of the scratch.
void AutoLinear::apply_lora(const bf16* x_lora, std::uint64_t n, bf16* out) const {
  if (!has_lora_ || x_lora == nullptr) return;
  const LoraProduct product = lora_product(lora_format_);
  const auto& kernel_set = kernels::kernels();
  auto tokens = [&](std::uint64_t first, std::uint64_t count) {
    float* h = lora_scratch_.get() + worker_index() * lora_rank_;
    (kernel_set.*product)(x_lora + first * in_shape_, lora_a_.data(), lora_b_.data(), out + first * out_shape_, count,
                          in_shape_, lora_rank_, out_shape_, h);
  };
  // Too few tokens to give every worker a share: one call on this thread.
  parallel_rows(n, {.inline_below = thread_count() / 2}, tokens);
}

}  // namespace quorvel::layers
