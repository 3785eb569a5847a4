// Byte-pair encoding over raw bytes: the vocabulary and the merges of a tokenizer.json model, with its
// symbols already turned back into the bytes they stand for.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/text/pair_ranks.h"

namespace quorvel::text {

using TokenId = std::int32_t;

// Ids above this are refused, so that a decoding table sized by the largest id stays small.
constexpr TokenId kMaxTokenId = (1 << 24) - 1;

struct TransparentStringHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};

// The bytes of each token and its id.
using Vocabulary = std::unordered_map<std::string, TokenId, TransparentStringHash, std::equal_to<>>;

// A merge as the bytes of its two sides; its rank is its position in the list.
using MergePair = std::pair<std::string, std::string>;

class BpeModel {
 public:
  // Throws std::invalid_argument when a byte has no token of its own or a merge joins tokens that are
  // not in the vocabulary.
  BpeModel(Vocabulary vocab, const std::vector<MergePair>& merges, bool ignore_merges);

  // Appends the ids of one pre-tokenized piece (at least one byte).
  void encode_piece(std::string_view piece, std::vector<TokenId>& ids) const;

  const Vocabulary& vocab() const { return vocab_; }

 private:
  void find_byte_ids();
  void add_merges(const std::vector<MergePair>& merges);
  void merge_symbols(std::string_view piece, std::vector<TokenId>& ids) const;

  Vocabulary vocab_;
  std::array<TokenId, 256> byte_ids_{};
  PairRanks merges_;
  bool ignore_merges_;
};

}  // namespace quorvel::text
