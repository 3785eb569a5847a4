// Software prefetch for the row passes of the x86 products. A pass reads
// sixteen (or eight) short weight rows side by side, a few bytes of each per
// step, and ends before the hardware stride prefetchers have learned the
// pattern; the next pass then starts on cold lines. So while one pass runs,
// each of its steps fetches an equal share of the bytes the next pass will
// read, which lie just after the current pass's (the passes sweep the
// weights forward). Prefetches past the end of a buffer are harmless hints.
// Isa (the lane trait of the caller) only keeps each instruction set's copy
// apart.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quorvel::kernels::x86 {

template <typename Isa>
class PassPrefetch {
 public:
  // The pass starting at `pass_start` reads `pass_bytes` bytes in `steps` steps.
  PassPrefetch(const std::uint8_t* pass_start, std::size_t pass_bytes, std::size_t steps)
      : next_(pass_start + pass_bytes), share_((pass_bytes / (steps == 0 ? 1 : steps) + kLine) & ~(kLine - 1)) {}

  // Fetches the share of step `index` (0-based).
  void step(std::size_t index) const {
    const std::uint8_t* from = next_ + index * share_;
    for (std::size_t at = 0; at < share_; at += kLine) __builtin_prefetch(from + at, 0, 3);
  }

 private:
  static constexpr std::size_t kLine = 64;
  const std::uint8_t* next_;
  std::size_t share_;
};

}  // namespace quorvel::kernels::x86
