// The merges of a BPE model keyed by the ids of the pair they join: an open-addressing table with linear
// probing, sized once, so that a lookup during encoding is one multiply and usually one cache line.
#pragma once

#include <cstdint>
#include <vector>

namespace quorvel::text {

class PairRanks {
 public:
  struct Merge {
    std::int32_t rank;
    std::int32_t result;
  };

  // Room for `count` merges without growing (at most two thirds of the slots filled).
  explicit PairRanks(std::size_t count);

  // Keeps the first merge given for a pair; the table must not be full.
  void add(std::int32_t left, std::int32_t right, Merge merge);

  // The merge of the pair, or nullptr.
  const Merge* find(std::int32_t left, std::int32_t right) const;

  std::size_t size() const { return size_; }

 private:
  struct Slot {
    std::uint64_t key;
    Merge merge;
  };

  static constexpr std::uint64_t kEmpty = ~std::uint64_t{0};
  static std::uint64_t key_of(std::int32_t left, std::int32_t right);
  std::size_t home(std::uint64_t key) const;

  std::vector<Slot> slots_;
  std::size_t mask_;
  int shift_;
  std::size_t size_ = 0;
};

}  // namespace quorvel::text
