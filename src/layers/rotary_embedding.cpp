#include "layers/rotary_embedding.h"

#include <stdexcept>

#include "layers/payload_read.h"
#include "runtime/kernel_base.h"
#include "runtime/parallel_rows.h"

namespace quorvel::layers {
namespace {

// The report counts whole floats on both sides, although it says bytes.
constexpr std::uint64_t kFloatUnit = sizeof(float);

AlignedPtr<float> read_angles(std::istream& stream, std::uint64_t count, const char* name, const char* failure) {
  return read_table<float>(stream, count, {std::string("Could not read in ") + name + ": read_bytes (", failure},
                           kFloatUnit);
}

}  // namespace

RotaryEmbedding::RotaryEmbedding(std::istream& stream, std::uint64_t head_dim, std::uint64_t max_context)
    : cos_(read_angles(stream, size_mul(head_dim, max_context), "cos", "Failed to read RoPE cos values")),
      sin_(read_angles(stream, size_mul(head_dim, max_context), "sin", "Failed to read RoPE sin values")),
      head_dim_(head_dim),
      max_context_(max_context) {}

void RotaryEmbedding::apply(bf16* x, std::uint64_t num_heads, std::uint64_t n, std::uint64_t start_pos) const {
  if (start_pos > max_context_ || n > max_context_ - start_pos) {
    throw std::runtime_error("RoPE: exceeded max context size");
  }
  const float* cos = cos_.get() + start_pos * head_dim_;
  const float* sin = sin_.get() + start_pos * head_dim_;
  const std::uint64_t stride = num_heads * head_dim_;
  parallel_rows(num_heads, {}, [&](std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t h = first; h < first + count; ++h) {
      kernels::kernels().rope_bf16(x + h * head_dim_, cos, sin, n, stride, head_dim_);
    }
  });
}

}  // namespace quorvel::layers
