#include "host/text/tokenizer.h"

#include <stdexcept>

#include "host/text/nfc.h"
#include "host/text/text_error.h"
#include "host/text/utf8.h"

namespace quorvel::text {

std::string joined(const std::vector<TextPart>& parts) {
  std::string text;
  for (const TextPart& part : parts) text += part.text;
  return text;
}

Tokenizer::Tokenizer(const std::filesystem::path& tokenizer_json)
    : Tokenizer(read_tokenizer_json(tokenizer_json), tokenizer_json) {}

Tokenizer Tokenizer::from_json_text(std::string_view json, const std::filesystem::path& name) {
  return Tokenizer(read_tokenizer_json_text(json, name), name);
}

Tokenizer::Tokenizer(TokenizerDefinition definition, const std::filesystem::path& file)
    : model_(std::move(definition.model)), added_tokens_(std::move(definition.added_tokens)), nfc_(definition.nfc) {
  try {
    split_ = std::make_unique<SplitRegex>(definition.split_pattern);
  } catch (const std::invalid_argument& error) {
    throw TextError(file, error.what());
  }
  for (const AddedToken& token : added_tokens_.tokens()) added_token_text_.try_emplace(token.id, token.content);
}

std::vector<TokenId> Tokenizer::encode(std::string_view text, bool special_tokens) const {
  const PartView part{text, special_tokens};
  return encode_parts({&part, 1});
}

std::vector<TokenId> Tokenizer::encode(const std::vector<TextPart>& parts) const {
  std::vector<PartView> views;
  views.reserve(parts.size());
  for (const TextPart& part : parts) views.push_back({part.text, part.special_tokens});
  return encode_parts(views);
}

std::vector<TokenId> Tokenizer::encode_parts(std::span<const PartView> parts) const {
  std::size_t size = 0;
  for (const PartView& part : parts) {
    if (const std::optional<std::size_t> bad = first_invalid_utf8_byte(part.text)) {
      throw TextError("input is not valid UTF-8 at byte " + std::to_string(size + *bad));
    }
    size += part.text.size();
  }
  std::vector<TokenId> ids;
  ids.reserve(size / 3 + 1);
  // Ordinary text that runs on from earlier parts; text within one part is encoded where it lies.
  std::string carried;
  const auto encode_run = [&](std::string_view tail) {
    if (carried.empty()) return encode_ordinary(tail, ids);
    carried.append(tail);
    encode_ordinary(carried, ids);
    carried.clear();
  };
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const std::string_view text = parts[i].text;
    std::size_t done = 0;
    while (const std::optional<AddedTokenMatch> match = added_tokens_.find(text, done, parts[i].special_tokens)) {
      encode_run(text.substr(done, match->offset - done));
      ids.push_back(match->id);
      done = match->offset + match->length;
    }
    if (i + 1 == parts.size()) {
      encode_run(text.substr(done));
    } else {
      carried.append(text.substr(done));
    }
  }
  return ids;
}

void Tokenizer::encode_ordinary(std::string_view text, std::vector<TokenId>& ids) const {
  if (text.empty()) return;
  const auto encode_piece = [&](std::string_view piece) { model_->encode_piece(piece, ids); };
  if (!nfc_) {
    split_->split(text, encode_piece);
    return;
  }
  const std::string normalized = to_nfc(text);
  split_->split(normalized, encode_piece);
}

const std::string& Tokenizer::token_bytes(TokenId id) const {
  const auto added = added_token_text_.find(id);
  if (added != added_token_text_.end()) return added->second;
  const std::string* bytes = model_->vocab().bytes_of(id);
  if (!bytes) throw TextError("token id " + std::to_string(id) + " is not in the vocabulary");
  return *bytes;
}

std::string Tokenizer::decode(const std::vector<TokenId>& ids) const {
  std::string text;
  for (const TokenId id : ids) text += token_bytes(id);
  return text;
}

}  // namespace quorvel::text
