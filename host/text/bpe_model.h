// Byte-pair encoding over raw bytes: the vocabulary and the merges of a tokenizer.json model, with its
// symbols already turned back into the bytes they stand for.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/text/pair_ranks.h"
#include "host/text/vocabulary.h"

namespace quorvel::text {

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
