// The added tokens of a tokenizer.json, found in raw input before anything else: the leftmost match, and
// of those starting there the longest. Special tokens can be left out of the search, so that their text
// is encoded as ordinary text.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/text/bpe_model.h"

namespace quorvel::text {

struct AddedToken {
  TokenId id;
  std::string content;
  bool special;
};

struct AddedTokenMatch {
  std::size_t offset;
  std::size_t length;
  TokenId id;
};

class AddedTokens {
 public:
  explicit AddedTokens(std::vector<AddedToken> tokens);

  // The leftmost-longest match in `text` at or after `from`.
  std::optional<AddedTokenMatch> find(std::string_view text, std::size_t from, bool with_special) const;

  const std::vector<AddedToken>& tokens() const { return tokens_; }

 private:
  std::optional<AddedTokenMatch> longest_at(std::string_view text, std::size_t offset, bool with_special) const;

  std::vector<AddedToken> tokens_;  // longest first
  std::array<bool, 256> starts_token_{};
};

}  // namespace quorvel::text
