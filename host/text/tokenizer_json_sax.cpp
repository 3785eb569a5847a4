#include "host/text/tokenizer_json_sax.h"

#include "host/text/byte_alphabet.h"
#include "host/text/text_error.h"

namespace quorvel::text {
TokenizerJsonSax::TokenizerJsonSax(const std::filesystem::path& file, nlohmann::json& rest)
    : file_(file), document_(rest, true) {}

void TokenizerJsonSax::refuse(const std::string& problem) const { throw TextError(file_, problem); }

bool TokenizerJsonSax::at(const char* key) const {
  return path_.size() == 2 && path_[0] == "model" && path_[1] == key;
}

bool TokenizerJsonSax::not_in_section(const char* what) {
  if (section_ == Section::vocab) refuse("model.vocab holds " + std::string(what) + " where a token id belongs");
  if (section_ != Section::other) refuse("model.merges holds " + std::string(what) + " where a merge belongs");
  return true;
}

std::string TokenizerJsonSax::symbol_bytes(const std::string& symbols) const {
  std::optional<std::string> bytes = bytes_of_symbols(symbols);
  if (!bytes) refuse("'" + symbols + "' in the model is not written in the byte-level alphabet");
  return *bytes;
}

void TokenizerJsonSax::add_vocab_entry(std::int64_t id) {
  if (id < 0 || id > kMaxTokenId) {
    refuse("model.vocab entry '" + vocab_key_ + "' has an id outside 0.." + std::to_string(kMaxTokenId));
  }
  vocab.add(symbol_bytes(vocab_key_), static_cast<TokenId>(id));
}

void TokenizerJsonSax::add_merge_string(const std::string& pair) {
  const std::size_t space = pair.find(' ');
  if (space == std::string::npos || pair.find(' ', space + 1) != std::string::npos) {
    refuse("merge " + std::to_string(merges.size()) + " '" + pair + "' is not two symbols separated by a space");
  }
  merges.emplace_back(symbol_bytes(pair.substr(0, space)), symbol_bytes(pair.substr(space + 1)));
}

bool TokenizerJsonSax::null() { return not_in_section("null") && document_.null(); }

bool TokenizerJsonSax::boolean(bool value) { return not_in_section("true or false") && document_.boolean(value); }

bool TokenizerJsonSax::number_integer(number_integer_t value) {
  if (section_ == Section::vocab) {
    add_vocab_entry(value);
    return true;
  }
  return not_in_section("a number") && document_.number_integer(value);
}

bool TokenizerJsonSax::number_unsigned(number_unsigned_t value) {
  if (section_ == Section::vocab) {
    add_vocab_entry(value > static_cast<number_unsigned_t>(kMaxTokenId) ? -1 : static_cast<std::int64_t>(value));
    return true;
  }
  return not_in_section("a number") && document_.number_unsigned(value);
}

bool TokenizerJsonSax::number_float(number_float_t value, const string_t& text) {
  return not_in_section("a fraction") && document_.number_float(value, text);
}

bool TokenizerJsonSax::string(string_t& value) {
  if (section_ == Section::merges) {
    add_merge_string(value);
    return true;
  }
  if (section_ == Section::merge_pair) {
    pair_.push_back(value);
    return true;
  }
  return not_in_section("a string") && document_.string(value);
}

bool TokenizerJsonSax::binary(binary_t& value) { return not_in_section("binary data") && document_.binary(value); }

bool TokenizerJsonSax::start_object(std::size_t elements) {
  not_in_section("an object");
  if (at("vocab")) {
    section_ = Section::vocab;
    has_vocab = true;
    return true;
  }
  path_.emplace_back();
  return document_.start_object(elements);
}

bool TokenizerJsonSax::key(string_t& value) {
  if (section_ == Section::vocab) {
    vocab_key_ = value;
    return true;
  }
  path_.back() = value;
  return document_.key(value);
}

bool TokenizerJsonSax::end_object() {
  if (section_ == Section::vocab) {
    section_ = Section::other;
    return document_.null();
  }
  path_.pop_back();
  return document_.end_object();
}

bool TokenizerJsonSax::start_array(std::size_t elements) {
  if (section_ == Section::merges) {
    section_ = Section::merge_pair;
    pair_.clear();
    return true;
  }
  not_in_section("a list");
  if (at("merges")) {
    section_ = Section::merges;
    has_merges = true;
    return true;
  }
  path_.emplace_back();
  return document_.start_array(elements);
}

bool TokenizerJsonSax::end_array() {
  if (section_ == Section::merge_pair) {
    if (pair_.size() != 2) refuse("merge " + std::to_string(merges.size()) + " is not a pair of symbols");
    merges.emplace_back(symbol_bytes(pair_[0]), symbol_bytes(pair_[1]));
    section_ = Section::merges;
    return true;
  }
  if (section_ == Section::merges) {
    section_ = Section::other;
    return document_.null();
  }
  path_.pop_back();
  return document_.end_array();
}

bool TokenizerJsonSax::parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) {
  refuse(std::string("is not valid JSON (") + error.what() + ")");
}

}  // namespace quorvel::text
