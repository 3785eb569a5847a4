#include "runtime/formats/activation_i8.h"

#include <cmath>
#include <limits>

namespace quorvel::formats {

namespace {

constexpr float kAmaxFloor = 1e-5f;
constexpr float kMaxCode = 127.0f;

// Rounds to nearest, ties to even, and clamps to [-127, 127]. A NaN product
// (from an infinite or NaN input) gets code 0 instead of an undefined
// conversion.
std::int8_t to_code(float scaled) {
  if (std::isnan(scaled)) return 0;
  float code = std::nearbyint(scaled);
  if (code > kMaxCode) code = kMaxCode;
  if (code < -kMaxCode) code = -kMaxCode;
  return static_cast<std::int8_t>(code);
}

}  // namespace

float quantize_row_i8(const bf16* x, std::size_t n, std::int8_t* q) {
  // The running maximum starts at the smallest normal float, then takes the
  // 1e-5 floor, so that a row of zeros still gets a usable scale.
  float amax = std::numeric_limits<float>::min();
  for (std::size_t i = 0; i < n; ++i) {
    const float magnitude = std::fabs(widen(x[i]));
    if (magnitude > amax) amax = magnitude;
  }
  if (amax < kAmaxFloor) amax = kAmaxFloor;
  const float scale = amax / kMaxCode;
  // A second division, not 1 / scale: the two differ in the last bit.
  const float inv = kMaxCode / amax;
  for (std::size_t i = 0; i < n; ++i) q[i] = to_code(widen(x[i]) * inv);
  return scale;
}

}  // namespace quorvel::formats
