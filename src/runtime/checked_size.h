// Arithmetic on sizes that come from a model file or the init config.
//
// Such sizes are untrusted: a crafted file or a typing slip can make any
// product or sum wrap past 2^64 and turn a huge buffer into a tiny one. Every
// size derived from them goes through these functions. Each gives the exact
// result or kSizeOverflow, and an overflowed operand stays overflowed through
// every later operation, so a chain needs one test at its end; an allocation
// of kSizeOverflow bytes fails, so an untested chain still cannot produce a
// small buffer.
#pragma once

#include <cstdint>
#include <limits>

namespace quorvel {

inline constexpr std::uint64_t kSizeOverflow = std::numeric_limits<std::uint64_t>::max();

constexpr bool size_overflowed(std::uint64_t size) { return size == kSizeOverflow; }

constexpr std::uint64_t size_mul(std::uint64_t a, std::uint64_t b) {
  std::uint64_t product = 0;
  if (__builtin_mul_overflow(a, b, &product)) return kSizeOverflow;
  return product;
}

template <typename... Rest>
constexpr std::uint64_t size_mul(std::uint64_t a, std::uint64_t b, Rest... rest) {
  return size_mul(size_mul(a, b), static_cast<std::uint64_t>(rest)...);
}

constexpr std::uint64_t size_add(std::uint64_t a, std::uint64_t b) {
  std::uint64_t sum = 0;
  if (__builtin_add_overflow(a, b, &sum)) return kSizeOverflow;
  return sum;
}

template <typename... Rest>
constexpr std::uint64_t size_add(std::uint64_t a, std::uint64_t b, Rest... rest) {
  return size_add(size_add(a, b), static_cast<std::uint64_t>(rest)...);
}

// ceil(size / divisor), divisor >= 1.
constexpr std::uint64_t size_ceil_div(std::uint64_t size, std::uint64_t divisor) {
  if (size_overflowed(size)) return kSizeOverflow;
  return size / divisor + (size % divisor != 0 ? 1 : 0);
}

// The smallest multiple of `multiple` (>= 1) that is at least `size`.
constexpr std::uint64_t size_round_up(std::uint64_t size, std::uint64_t multiple) {
  return size_mul(size_ceil_div(size, multiple), multiple);
}

}  // namespace quorvel
