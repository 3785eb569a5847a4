// The key and value projections: linear layers that also own their layer's
// attention cache and append every projected token to it.
//
// The caches are laid out for the attention kernel: keys position-major
// (element (p, d) at p * out_shape + d), values dimension-major (element
// (p, d) at d * max_context + p). cache_pos is the number of positions held
// and the next write position; the owning transformer layer sets it for
// every request, and rewinding it is how earlier positions are reused or
// overwritten (nothing is ever cleared).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <stdexcept>
#include <string>

#include "layers/auto_bit_linear.h"
#include "layers/auto_q8_0_linear.h"
#include "layers/layer_name.h"
#include "layers/auto_q1_linear.h"
#include "layers/packed_block_linear.h"
#include "layers/transpose_copy.h"
#include "runtime/huge_pages.h"

namespace quorvel::layers {

// The cache shared by both variants, on top of the format's linear layer
// (whose payload is the whole of this layer's payload).
template <typename Base>
class CachedLinear : public Base {
 public:
  bf16* cache() const { return cache_.get(); }
  std::uint64_t cache_pos() const { return cache_pos_; }
  void set_cache_pos(std::uint64_t position) { cache_pos_ = position; }
  std::uint64_t max_context() const { return max_context_; }

 protected:
  // The cache is allocated, not cleared: positions are written before any
  // attention reads them.
  CachedLinear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape, std::uint64_t num_heads,
               bool has_bias, std::uint64_t max_context, QuantFormat lora_format)
      : Base(stream, in_shape, out_shape, num_heads, has_bias, lora_format),
        cache_(allocate_aligned_elements<bf16>(size_mul(out_shape, max_context))),
        max_context_(max_context) {}

  // The first test guards the unsigned subtraction: a position set beyond
  // the capacity refuses every append, even an empty one.
  bool fits(std::uint64_t n) const { return cache_pos_ <= max_context_ && n <= max_context_ - cache_pos_; }

  AlignedPtr<bf16> cache_;
  std::uint64_t cache_pos_ = 0;
  std::uint64_t max_context_;
};

template <LayerName kName>
[[noreturn]] void throw_context_exceeded() {
  throw std::runtime_error(std::string("Exceeded context size in ") + kName.chars);
}

// Keys: checked before projecting, then projected straight into the cache
// rows. The caller's `out` is not used.
template <typename Base, LayerName kName>
class KeyCacheLinear final : public CachedLinear<Base> {
 public:
  KeyCacheLinear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape, std::uint64_t num_heads,
                 bool has_bias, std::uint64_t max_context, QuantFormat lora_format)
      : CachedLinear<Base>(stream, in_shape, out_shape, num_heads, has_bias, max_context, lora_format) {}

  // Appends n key rows at cache_pos and returns the cache base.
  bf16* forward(const std::int8_t* x_q, const float* x_scale, std::uint64_t n, bf16* /*out*/,
                const bf16* x_lora) override {
    if (!this->fits(n)) throw_context_exceeded<kName>();
    Base::forward(x_q, x_scale, n, this->cache_.get() + this->cache_pos_ * this->out_shape(), x_lora);
    this->cache_pos_ += n;
    return this->cache_.get();
  }
};

// Values: projected into the caller's `out` first and checked afterwards, so
// an overflowing call has still written `out` (but not the cache); then
// appended as columns.
template <typename Base, LayerName kName>
class ValueCacheLinear final : public CachedLinear<Base> {
 public:
  // The first position already writes a value into every dimension's row,
  // so in huge pages it would commit the whole cache at once; in small
  // pages it commits a page per row, and later positions the pages they
  // reach.
  ValueCacheLinear(std::istream& stream, std::uint64_t in_shape, std::uint64_t out_shape, std::uint64_t num_heads,
                   bool has_bias, std::uint64_t max_context, QuantFormat lora_format)
      : CachedLinear<Base>(stream, in_shape, out_shape, num_heads, has_bias, max_context, lora_format) {
    advise_small_pages(this->cache_.get(), size_mul(out_shape, max_context, sizeof(bf16)));
  }

  // Appends n value columns at cache_pos and returns the cache base.
  bf16* forward(const std::int8_t* x_q, const float* x_scale, std::uint64_t n, bf16* out,
                const bf16* x_lora) override {
    Base::forward(x_q, x_scale, n, out, x_lora);
    if (!this->fits(n)) throw_context_exceeded<kName>();
    append_columns(out, n);
    this->cache_pos_ += n;
    return this->cache_.get();
  }

 private:
  void append_columns(const bf16* rows, std::uint64_t n) {
    bf16* column = this->cache_.get() + this->cache_pos_;
    if (n == 1) {
      for (std::uint64_t d = 0; d < this->out_shape(); ++d) column[d * this->max_context_] = rows[d];
      return;
    }
    transpose_copy({rows, n, this->out_shape(), column, this->max_context_});
  }
};

using KBitLinear = KeyCacheLinear<AutoBitLinear, "KBitLinear">;
using VBitLinear = ValueCacheLinear<AutoBitLinear, "VBitLinear">;
using KQ1Linear = KeyCacheLinear<AutoQ1Linear, "KQ1Linear">;
using VQ1Linear = ValueCacheLinear<AutoQ1Linear, "VQ1Linear">;
using KQ1_58Linear = KeyCacheLinear<AutoQ1_58Linear, "KQ1_58Linear">;
using VQ1_58Linear = ValueCacheLinear<AutoQ1_58Linear, "VQ1_58Linear">;
using KQ8_0Linear = KeyCacheLinear<AutoQ8_0Linear, "KQ8_0Linear">;
using VQ8_0Linear = ValueCacheLinear<AutoQ8_0Linear, "VQ8_0Linear">;

}  // namespace quorvel::layers
