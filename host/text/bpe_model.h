// Byte-pair encoding over raw bytes: the vocabulary and the merges of a tokenizer.json model, with its
// symbols already turned back into the bytes they stand for.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quorvel::text {

using TokenId = std::int32_t;

class BpeModel {
 public:
  // `vocab` maps the bytes of each token to its id; every single byte must be in it.
  BpeModel(std::unordered_map<std::string, TokenId> vocab, bool ignore_merges);

  // The next merge, ranked after those added before. False when a side or the joined token is not in the
  // vocabulary.
  bool add_merge(const std::string& left, const std::string& right);

  // Appends the ids of one pre-tokenized piece (at least one byte).
  void encode_piece(std::string_view piece, std::vector<TokenId>& ids) const;

  // The byte that has no token of its own, or -1 when all 256 have one.
  int missing_byte() const;

  const std::unordered_map<std::string, TokenId>& vocab() const { return vocab_; }

 private:
  struct Merge {
    std::int32_t rank;
    TokenId result;
  };

  static std::uint64_t pair_key(TokenId left, TokenId right);
  void merge_symbols(std::string_view piece, std::vector<TokenId>& ids) const;

  std::unordered_map<std::string, TokenId> vocab_;
  std::array<TokenId, 256> byte_ids_{};
  std::unordered_map<std::uint64_t, Merge> merges_;
  bool ignore_merges_;
};

}  // namespace quorvel::text
