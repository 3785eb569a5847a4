#include "host/text/tokenizer_json.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <unordered_map>

#include "host/text/text_error.h"
#include "host/text/tokenizer_json_sax.h"

namespace quorvel::text {
namespace {

using nlohmann::json;

class Reader {
 public:
  explicit Reader(const std::filesystem::path& file) : file_(file) {}

  [[noreturn]] void refuse(const std::string& problem) const { throw TextError(file_, problem); }

  // Parses `text` into `sax`, which builds `rest`: the document without model.vocab and model.merges.
  void parse(std::string_view text, TokenizerJsonSax& sax, const json& rest) const {
    json::sax_parse(text, &sax);
    if (!rest.is_object()) refuse("does not hold a JSON object");
  }

  const json& member(const json& object, const char* key, const std::string& where) const {
    const auto found = object.find(key);
    if (found == object.end()) refuse(where + " has no '" + key + "'");
    return *found;
  }

  std::string text(const json& object, const char* key, const std::string& where) const {
    const json& value = member(object, key, where);
    if (!value.is_string()) refuse(where + "." + key + " must be a string");
    return value.get<std::string>();
  }

  bool flag(const json& object, const char* key, bool absent) const {
    const auto found = object.find(key);
    if (found == object.end() || found->is_null()) return absent;
    if (!found->is_boolean()) refuse(std::string("'") + key + "' must be true or false");
    return found->get<bool>();
  }

  TokenId token_id(const json& value, const std::string& what) const {
    if (!value.is_number_integer() || value.get<std::int64_t>() < 0 || value.get<std::int64_t>() > kMaxTokenId) {
      refuse(what + " has an id that is not a whole number from 0 to " + std::to_string(kMaxTokenId));
    }
    return static_cast<TokenId>(value.get<std::int64_t>());
  }

 private:
  std::filesystem::path file_;
};

// True for NFC, false for none.
bool nfc_normalizer(const json& root, const Reader& reader) {
  const auto normalizer = root.find("normalizer");
  if (normalizer == root.end() || normalizer->is_null()) return false;
  const std::string type = normalizer->is_object() ? reader.text(*normalizer, "type", "normalizer") : "";
  if (type != "NFC") reader.refuse("normalizer '" + type + "' is not supported (only none or NFC)");
  return true;
}

std::string split_pattern(const json& root, const Reader& reader) {
  const json& pre = reader.member(root, "pre_tokenizer", "the file");
  const std::string unsupported =
      "pre_tokenizer is not supported (only a Sequence of Split(Regex, Isolated) and ByteLevel(use_regex false))";
  if (!pre.is_object() || pre.value("type", "") != "Sequence") reader.refuse(unsupported);
  const json& steps = reader.member(pre, "pretokenizers", "pre_tokenizer");
  if (!steps.is_array() || steps.size() != 2 || !steps[0].is_object() || !steps[1].is_object()) {
    reader.refuse(unsupported);
  }
  const json& split = steps[0];
  const json& byte_level = steps[1];
  if (split.value("type", "") != "Split" || split.value("behavior", "") != "Isolated" ||
      reader.flag(split, "invert", false) || !split.contains("pattern") || !split["pattern"].is_object()) {
    reader.refuse(unsupported);
  }
  if (byte_level.value("type", "") != "ByteLevel" || reader.flag(byte_level, "use_regex", true) ||
      reader.flag(byte_level, "add_prefix_space", false)) {
    reader.refuse(unsupported);
  }
  return reader.text(split["pattern"], "Regex", "pre_tokenizer Split pattern");
}

void check_model_kind(const json& model, const Reader& reader) {
  const std::string type = model.value("type", "BPE");
  if (type != "BPE") reader.refuse("model type '" + type + "' is not supported (only BPE)");
  if (reader.flag(model, "byte_fallback", false)) reader.refuse("model.byte_fallback true is not supported");
  if (model.contains("dropout") && !model["dropout"].is_null()) reader.refuse("model.dropout is not supported");
  for (const char* key : {"continuing_subword_prefix", "end_of_word_suffix"}) {
    const auto found = model.find(key);
    if (found != model.end() && !found->is_null() && *found != "") {
      reader.refuse(std::string("model.") + key + " is not supported");
    }
  }
}

std::unique_ptr<BpeModel> read_model(const json& root, TokenizerJsonSax& sax, const Reader& reader) {
  const json& model = reader.member(root, "model", "the file");
  if (!model.is_object()) reader.refuse("model must be an object");
  check_model_kind(model, reader);
  if (!sax.has_vocab) reader.refuse("model.vocab is missing or not an object");
  if (!sax.has_merges) reader.refuse("model.merges is missing or not a list");
  try {
    return std::make_unique<BpeModel>(std::move(sax.vocab), sax.merges, reader.flag(model, "ignore_merges", false));
  } catch (const std::invalid_argument& error) {
    reader.refuse(error.what());
  }
}

// Added tokens are matched in the text as given. One marked `normalized` is meant to be matched in the
// normalized text instead, which is the same text without a normalizer but not under NFC, so there it is
// refused (an absent flag means normalized for a token that is not special).
AddedToken read_added_token(const json& token, bool nfc, const Reader& reader) {
  if (!token.is_object()) reader.refuse("added_tokens holds an entry that is not an object");
  const std::string content = reader.text(token, "content", "an added token");
  const std::string what = "added token '" + content + "'";
  for (const char* option : {"lstrip", "rstrip", "single_word"}) {
    if (reader.flag(token, option, false)) reader.refuse(what + ": " + option + " true is not supported");
  }
  const bool special = reader.flag(token, "special", false);
  if (nfc && reader.flag(token, "normalized", !special)) {
    reader.refuse(what + ": normalized true is not supported with the NFC normalizer");
  }
  return {reader.token_id(reader.member(token, "id", what), what), content, special};
}

// Decoding turns an added token's id back into its content, so no id may also stand for other text.
void check_added_token_ids(const std::vector<AddedToken>& tokens, const Vocabulary& vocab, const Reader& reader) {
  std::unordered_map<TokenId, const std::string*> content_of_id;
  for (const AddedToken& token : tokens) {
    const std::string id = std::to_string(token.id);
    const std::string* in_vocab = vocab.bytes_of(token.id);
    if (in_vocab && *in_vocab != token.content) {
      reader.refuse("added token '" + token.content + "' has id " + id + ", which model.vocab gives to other text");
    }
    const auto [first, added] = content_of_id.try_emplace(token.id, &token.content);
    if (!added && *first->second != token.content) {
      reader.refuse("added tokens '" + *first->second + "' and '" + token.content + "' have the same id " + id);
    }
  }
}

AddedTokens read_added_tokens(const json& root, const Vocabulary& vocab, bool nfc, const Reader& reader) {
  std::vector<AddedToken> tokens;
  const auto list = root.find("added_tokens");
  if (list == root.end() || list->is_null()) return AddedTokens(std::move(tokens));
  if (!list->is_array()) reader.refuse("added_tokens must be a list");
  for (const json& token : *list) tokens.push_back(read_added_token(token, nfc, reader));
  check_added_token_ids(tokens, vocab, reader);
  return AddedTokens(std::move(tokens));
}

std::string file_text(const std::filesystem::path& file, const Reader& reader) {
  std::ifstream in(file, std::ios::binary | std::ios::ate);
  if (!in) reader.refuse("cannot be opened");
  std::error_code error;
  if (!std::filesystem::is_regular_file(file, error)) reader.refuse("is not a regular file");
  const std::streamoff size = in.tellg();
  if (size < 0) reader.refuse("cannot be read");
  std::string text(static_cast<std::size_t>(size), '\0');
  in.seekg(0);
  if (!in.read(text.data(), static_cast<std::streamsize>(text.size()))) reader.refuse("cannot be read");
  return text;
}

}  // namespace

TokenizerDefinition read_tokenizer_json_text(std::string_view text, const std::filesystem::path& name) {
  const Reader reader(name);
  json root;
  TokenizerJsonSax sax(name, root);
  reader.parse(text, sax, root);
  try {
    std::unique_ptr<BpeModel> model = read_model(root, sax, reader);
    const bool nfc = nfc_normalizer(root, reader);
    std::string pattern = split_pattern(root, reader);
    AddedTokens added_tokens = read_added_tokens(root, model->vocab(), nfc, reader);
    return TokenizerDefinition{std::move(model), std::move(added_tokens), nfc, std::move(pattern)};
  } catch (const json::exception& error) {
    reader.refuse(std::string("has a value of an unexpected type (") + error.what() + ")");
  }
}

TokenizerDefinition read_tokenizer_json(const std::filesystem::path& file) {
  return read_tokenizer_json_text(file_text(file, Reader(file)), file);
}

}  // namespace quorvel::text
