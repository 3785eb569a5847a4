// A byte-level BPE tokenizer loaded from a tokenizer.json: text to token ids and back. Encoding adds no
// begin-of-text id; the caller puts the ids of its chat format around the text.
//
// Every failure throws TextError, whose what() is the whole line to print ("Error: ...").
#pragma once

#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/text/added_tokens.h"
#include "host/text/bpe_model.h"
#include "host/text/split_regex.h"
#include "host/text/tokenizer_json.h"

namespace quorvel::text {

// A stretch of text to encode and whether special tokens may be matched in
// it: a chat format's markup may hold them, the user's words may not.
struct TextPart {
  std::string text;
  bool special_tokens;
};

// The parts' text, concatenated.
std::string joined(const std::vector<TextPart>& parts);

class Tokenizer {
 public:
  explicit Tokenizer(const std::filesystem::path& tokenizer_json);

  // The tokenizer of a tokenizer.json document already in memory; messages name it `name`.
  static Tokenizer from_json_text(std::string_view json, const std::filesystem::path& name);

  // The ids of `text`, which must be valid UTF-8 ("Error: input is not valid UTF-8 at byte N" otherwise).
  // With `special_tokens` false, the text of a special token is encoded like any other text; added tokens
  // that are not special are still matched.
  std::vector<TokenId> encode(std::string_view text, bool special_tokens = true) const;

  // The ids of the parts' concatenation, special tokens matched only inside
  // the parts that allow them. Ordinary text runs on across part boundaries,
  // so the ids equal those of encode(concatenation) whenever the parts that
  // forbid special tokens hold none.
  std::vector<TokenId> encode(const std::vector<TextPart>& parts) const;

  // The bytes of the tokens, concatenated; an id without a token throws.
  std::string decode(const std::vector<TokenId>& ids) const;

  // The bytes of one token ("Error: token id N is not in the vocabulary" when there is none).
  const std::string& token_bytes(TokenId id) const;

 private:
  Tokenizer(TokenizerDefinition definition, const std::filesystem::path& file);
  struct PartView {
    std::string_view text;
    bool special_tokens;
  };
  std::vector<TokenId> encode_parts(std::span<const PartView> parts) const;
  void encode_ordinary(std::string_view text, std::vector<TokenId>& ids) const;

  std::unique_ptr<BpeModel> model_;
  AddedTokens added_tokens_;
  bool nfc_;
  std::unique_ptr<SplitRegex> split_;
  std::unordered_map<TokenId, std::string> added_token_text_;
};

}  // namespace quorvel::text
