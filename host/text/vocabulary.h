// The tokens of a BPE model: the bytes of each id, and the id of given bytes through an open-addressing
// table of (hash, id) slots, which costs one cache miss per lookup where a node-based map costs several.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvel::text {

using TokenId = std::int32_t;

// Ids above this are refused, so that the table of bytes by id, sized by the largest id, stays below 64 MiB
// whatever a file holds (the largest vocabularies in use have some 260,000 tokens).
constexpr TokenId kMaxTokenId = (1 << 21) - 1;

class Vocabulary {
 public:
  // Adds a token; the first id given for the same bytes, and the first bytes given for an id, are kept.
  // `id` must be in 0..kMaxTokenId.
  void add(std::string bytes, TokenId id);

  std::optional<TokenId> find(std::string_view bytes) const;

  // The bytes of `id`, or nullptr when no token has it.
  const std::string* bytes_of(TokenId id) const;

  std::size_t size() const { return count_; }

 private:
  static std::uint32_t hash_of(std::string_view bytes);
  void grow();
  void place(std::uint32_t hash, TokenId id);

  std::vector<std::string> bytes_of_id_;
  std::vector<bool> has_id_;
  std::vector<std::uint64_t> slots_;  // hash << 32 | (id + 1); 0 is empty
  std::size_t count_ = 0;
};

}  // namespace quorvel::text
