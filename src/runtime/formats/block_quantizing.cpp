#include "runtime/formats/block_quantizing.h"

#include <cmath>

namespace quorvel::formats {

int rint_clamped(float v, int lo, int hi) {
  const float r = std::fmax(static_cast<float>(lo), std::fmin(static_cast<float>(hi), std::rint(v)));
  return static_cast<int>(r);
}

float sign_carrying_max(const bf16* x, std::size_t n) {
  float max = 0.0f;
  float amax = 0.0f;
  for (std::size_t i = 0; i < n; ++i) {
    const float v = widen(x[i]);
    if (std::fabs(v) > amax) {
      amax = std::fabs(v);
      max = v;
    }
  }
  return max;
}

float quantize_offset_codes(const bf16* x, std::size_t n, int half, std::uint8_t* codes, std::size_t count) {
  const float d = sign_carrying_max(x, n) / static_cast<float>(-half);
  const float inv = d != 0.0f ? 1.0f / d : 0.0f;
  for (std::size_t i = 0; i < count; ++i) {
    const float scaled = i < n ? widen(x[i]) * inv : 0.0f;
    codes[i] = static_cast<std::uint8_t>(rint_clamped(scaled, -half, half - 1) + half);
  }
  return d;
}

}  // namespace quorvel::formats
