#include "host/text/pair_ranks.h"

namespace quorvel::text {

PairRanks::PairRanks(std::size_t count) {
  std::size_t capacity = 16;
  int bits = 4;
  while (2 * capacity < 3 * count) {
    capacity *= 2;
    ++bits;
  }
  slots_.assign(capacity, Slot{kEmpty, {}});
  mask_ = capacity - 1;
  shift_ = 64 - bits;
}

std::uint64_t PairRanks::key_of(std::int32_t left, std::int32_t right) {
  return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(left)) << 32) | static_cast<std::uint32_t>(right);
}

std::size_t PairRanks::home(std::uint64_t key) const {
  return static_cast<std::size_t>((key * 0x9E3779B97F4A7C15ull) >> shift_);
}

void PairRanks::add(std::int32_t left, std::int32_t right, Merge merge) {
  const std::uint64_t key = key_of(left, right);
  for (std::size_t slot = home(key);; slot = (slot + 1) & mask_) {
    if (slots_[slot].key == key) return;
    if (slots_[slot].key == kEmpty) {
      slots_[slot] = Slot{key, merge};
      ++size_;
      return;
    }
  }
}

const PairRanks::Merge* PairRanks::find(std::int32_t left, std::int32_t right) const {
  const std::uint64_t key = key_of(left, right);
  for (std::size_t slot = home(key);; slot = (slot + 1) & mask_) {
    if (slots_[slot].key == key) return &slots_[slot].merge;
    if (slots_[slot].key == kEmpty) return nullptr;
  }
}

}  // namespace quorvel::text
