#include "layers/norm.h"

#include <stdexcept>
#include <string>

#include "layers/payload_read.h"
#include "runtime/parallel_rows.h"

namespace quorvel::layers {

Norm::Norm(float eps, std::istream& stream, std::uint64_t layer_width) : layer_width_(layer_width), eps_(eps) {
  if (layer_width % 128 != 0) {
    throw std::runtime_error("Normalization layer_width must be a multiple of 128, got " +
                             std::to_string(layer_width));
  }
  weights_ = read_table<bf16>(stream, layer_width,
                              {"Could not read in Normalization Weights: read_bytes (",
                               "Failed to read normalization weights"});
}

void Norm::normalize_rows(bf16* x, std::uint64_t n, RowKernel kernel) const {
  parallel_rows(n, {}, [&](std::uint64_t first, std::uint64_t count) {
    (kernels::kernels().*kernel)(x + first * layer_width_, weights_.get(), count, layer_width_, eps_);
  });
}

void LayerNorm::forward(bf16* x, std::uint64_t n) const { normalize_rows(x, n, &kernels::KernelBase::layer_norm_bf16); }

void RMSNorm::forward(bf16* x, std::uint64_t n) const { normalize_rows(x, n, &kernels::KernelBase::rms_norm_bf16); }

}  // namespace quorvel::layers
