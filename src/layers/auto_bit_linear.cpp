#include "layers/auto_bit_linear.h"

#include "io/short_read.h"
#include "layers/payload_read.h"
#include "runtime/kernel_base.h"

namespace quorvel::layers {
namespace {

const PayloadText kGammaText{"Could not read in Gamma: read_bytes (", "Failed to read BitLinear gamma"};
const PayloadText kWeightsText{"Could not read in Bit Linear: read_bytes (", "Failed to read BitLinear weights"};

}  // namespace

AutoBitLinear::AutoBitLinear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape,
                             std::uint64_t num_heads, bool has_bias, QuantFormat lora_format)
    : AutoLinear(in_shape, out_shape, num_heads, has_bias, lora_format) {
  require_multiples_of_128("AutoBitLinear");
  const std::uint64_t weight_bytes = size_mul(out_shape, weight_row_bytes(in_shape));
  weights_ = allocate_aligned<std::uint8_t>(weight_bytes);
  // The report states the gamma as one item (") != 1") while 8 bytes are
  // requested; logs that users send us are matched against this wording.
  const ReadResult gamma_read = read_exact(stream, &gamma_, sizeof gamma_);
  if (!gamma_read) fail_short_read(stream, kGammaText, gamma_read.bytes_read, 1);
  read_payload(stream, weights_.get(), weight_bytes, kWeightsText);
  read_bias(stream);
}

std::int32_t AutoBitLinear::code_sum(const std::int8_t* codes) const {
  std::int32_t sum = 0;
  for (std::uint64_t i = 0; i < in_shape(); ++i) sum += codes[i];
  return sum;
}

void AutoBitLinear::multiply_rows(const ActivationRow& x, std::uint64_t first_row, std::uint64_t rows,
                                  bf16* out) const {
  const std::uint8_t* first = weights_.get() + first_row * weight_row_bytes(in_shape());
  kernels::kernels().gemv_ternary(first, x.codes, x.code_sum, out, rows, in_shape(), x.scale, gamma_);
}

void AutoBitLinear::multiply_tokens(const std::int8_t* x_q, const float* x_scale, std::uint64_t n_tokens,
                                    bf16* out) const {
  kernels::kernels().gemm_ternary(gamma_, weights_.get(), x_q, x_scale, out, out_shape(), n_tokens, out_shape(),
                                  in_shape());
}

}  // namespace quorvel::layers
