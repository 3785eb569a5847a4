// Reads a tokenizer.json of the kind this library encodes with: a byte-level BPE model, added tokens
// matched as written (no lstrip, rstrip or single_word; under NFC none normalized), no normalizer or NFC,
// and a Split(regex, Isolated) then ByteLevel(use_regex false) pre-tokenizer.
// Anything else is refused with a TextError naming the file and what is not supported.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "host/text/added_tokens.h"
#include "host/text/bpe_model.h"

namespace quorvel::text {

struct TokenizerDefinition {
  std::unique_ptr<BpeModel> model;
  AddedTokens added_tokens;
  bool nfc;
  std::string split_pattern;
};

TokenizerDefinition read_tokenizer_json(const std::filesystem::path& file);

// The same from a document already in memory; messages name it `name` where they would name the file.
TokenizerDefinition read_tokenizer_json_text(std::string_view text, const std::filesystem::path& name);

}  // namespace quorvel::text
