// Normalization layers: each bf16 row scaled by learned per-channel weights,
// in place, with no additive bias. LayerNorm centres on the mean; RMSNorm
// divides by the root mean square (the one every architecture builds).
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>

#include "runtime/aligned_buffer.h"
#include "runtime/bf16.h"
#include "runtime/kernel_base.h"

namespace quorvel::layers {

class Norm {
 public:
  // Reads layer_width bf16 weights; the width must be a multiple of 128
  // ("Normalization layer_width must be a multiple of 128, got <n>", before
  // anything is read).
  Norm(float eps, std::istream& stream, std::uint64_t layer_width);
  virtual ~Norm() = default;
  Norm(const Norm&) = delete;
  Norm& operator=(const Norm&) = delete;

  // Normalizes n rows of layer_width values at x, in place.
  virtual void forward(bf16* x, std::uint64_t n) const = 0;

  // The transformer layers fuse the norm with quantization and need these.
  const bf16* weights() const { return weights_.get(); }
  std::uint64_t layer_width() const { return layer_width_; }
  float eps() const { return eps_; }

 protected:
  using RowKernel = void (kernels::KernelBase::*)(bf16* x, const bf16* weight, std::size_t rows, std::size_t dim,
                                                  float eps) const;
  // Rows are independent: split them over the pool (inline inside a job).
  void normalize_rows(bf16* x, std::uint64_t n, RowKernel kernel) const;

 private:
  AlignedPtr<bf16> weights_;
  std::uint64_t layer_width_;
  float eps_;
};

class LayerNorm final : public Norm {
 public:
  using Norm::Norm;
  void forward(bf16* x, std::uint64_t n) const override;
};

class RMSNorm final : public Norm {
 public:
  using Norm::Norm;
  void forward(bf16* x, std::uint64_t n) const override;
};

}  // namespace quorvel::layers
