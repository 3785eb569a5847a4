#include "host/text/added_tokens.h"

#include <algorithm>
#include <utility>

namespace quorvel::text {

AddedTokens::AddedTokens(std::vector<AddedToken> tokens) : tokens_(std::move(tokens)) {
  std::erase_if(tokens_, [](const AddedToken& token) { return token.content.empty(); });
  std::stable_sort(tokens_.begin(), tokens_.end(), [](const AddedToken& a, const AddedToken& b) {
    return a.content.size() > b.content.size();
  });
  for (const AddedToken& token : tokens_) starts_token_[static_cast<unsigned char>(token.content[0])] = true;
}

std::optional<AddedTokenMatch> AddedTokens::find(std::string_view text, std::size_t from, bool with_special) const {
  for (std::size_t offset = from; offset < text.size(); ++offset) {
    if (!starts_token_[static_cast<unsigned char>(text[offset])]) continue;
    if (auto match = longest_at(text, offset, with_special)) return match;
  }
  return std::nullopt;
}

std::optional<AddedTokenMatch> AddedTokens::longest_at(std::string_view text, std::size_t offset,
                                                       bool with_special) const {
  const std::string_view rest = text.substr(offset);
  for (const AddedToken& token : tokens_) {
    if ((with_special || !token.special) && rest.starts_with(token.content)) {
      return AddedTokenMatch{offset, token.content.size(), token.id};
    }
  }
  return std::nullopt;
}

}  // namespace quorvel::text
