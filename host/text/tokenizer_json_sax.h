// Reads a tokenizer.json in one pass without building a document for its two large parts: model.vocab
// goes straight into a Vocabulary (keys turned from byte-level symbols into bytes) and model.merges into a
// list, in either spelling ("a b" or ["a", "b"]). Everything else becomes an ordinary JSON document, with
// those two keys set to null. Malformed input throws TextError naming the file.
#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/text/bpe_model.h"

namespace quorvel::text {

class TokenizerJsonSax : public nlohmann::json_sax<nlohmann::json> {
 public:
  TokenizerJsonSax(const std::filesystem::path& file, nlohmann::json& rest);

  bool null() override;
  bool boolean(bool value) override;
  bool number_integer(number_integer_t value) override;
  bool number_unsigned(number_unsigned_t value) override;
  bool number_float(number_float_t value, const string_t& text) override;
  bool string(string_t& value) override;
  bool binary(binary_t& value) override;
  bool start_object(std::size_t elements) override;
  bool key(string_t& value) override;
  bool end_object() override;
  bool start_array(std::size_t elements) override;
  bool end_array() override;
  bool parse_error(std::size_t position, const std::string& token, const nlohmann::detail::exception& error) override;

  Vocabulary vocab;
  std::vector<MergePair> merges;
  bool has_vocab = false;
  bool has_merges = false;

 private:
  enum class Section { other, vocab, merges, merge_pair };

  [[noreturn]] void refuse(const std::string& problem) const;
  bool at(const char* key) const;
  bool not_in_section(const char* what);
  void add_vocab_entry(std::int64_t id);
  void add_merge_string(const std::string& pair);
  std::string symbol_bytes(const std::string& symbols) const;

  std::filesystem::path file_;
  nlohmann::detail::json_sax_dom_parser<nlohmann::json> document_;
  std::vector<std::string> path_;  // the current key of each open container ("" for arrays)
  Section section_ = Section::other;
  std::string vocab_key_;
  std::vector<std::string> pair_;
};

}  // namespace quorvel::text
