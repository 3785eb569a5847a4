#include "host/text/tokenizer_json.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "host/text/byte_alphabet.h"
#include "host/text/text_error.h"

namespace quorvel::text {
namespace {

using nlohmann::json;

// Ids above this are refused, so that a decoding table sized by the largest id stays small.
constexpr std::int64_t kMaxTokenId = (1 << 24) - 1;

class Reader {
 public:
  explicit Reader(const std::filesystem::path& file) : file_(file) {}

  [[noreturn]] void refuse(const std::string& problem) const { throw TextError(file_, problem); }

  json parse() const {
    std::ifstream in(file_, std::ios::binary);
    if (!in) refuse("cannot be opened");
    std::ostringstream text;
    text << in.rdbuf();
    try {
      json parsed = json::parse(text.str());
      if (!parsed.is_object()) refuse("does not hold a JSON object");
      return parsed;
    } catch (const json::exception& error) {
      refuse(std::string("is not valid JSON (") + error.what() + ")");
    }
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

  std::string symbol_bytes(const std::string& symbols, const std::string& what) const {
    std::optional<std::string> bytes = bytes_of_symbols(symbols);
    if (!bytes) refuse(what + " '" + symbols + "' is not written in the byte-level alphabet");
    return *bytes;
  }

 private:
  std::filesystem::path file_;
};

void check_normalizer(const json& root, const Reader& reader, bool& nfc) {
  const auto normalizer = root.find("normalizer");
  nfc = false;
  if (normalizer == root.end() || normalizer->is_null()) return;
  const std::string type = normalizer->is_object() ? reader.text(*normalizer, "type", "normalizer") : "";
  if (type != "NFC") reader.refuse("normalizer '" + type + "' is not supported (only none or NFC)");
  nfc = true;
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

std::unique_ptr<BpeModel> read_model(const json& root, const Reader& reader) {
  const json& model = reader.member(root, "model", "the file");
  if (!model.is_object()) reader.refuse("model must be an object");
  check_model_kind(model, reader);
  const json& vocab_json = reader.member(model, "vocab", "model");
  if (!vocab_json.is_object()) reader.refuse("model.vocab must be an object");
  std::unordered_map<std::string, TokenId> vocab;
  vocab.reserve(vocab_json.size());
  for (const auto& [symbols, id] : vocab_json.items()) {
    vocab.emplace(reader.symbol_bytes(symbols, "vocab entry"), reader.token_id(id, "vocab entry '" + symbols + "'"));
  }
  auto bpe = std::make_unique<BpeModel>(std::move(vocab), reader.flag(model, "ignore_merges", false));
  if (bpe->missing_byte() >= 0) {
    reader.refuse("model.vocab has no token for byte " + std::to_string(bpe->missing_byte()) +
                  " (byte-level BPE needs all 256)");
  }
  return bpe;
}

void read_merges(const json& root, const Reader& reader, BpeModel& bpe) {
  const json& merges = reader.member(root["model"], "merges", "model");
  if (!merges.is_array()) reader.refuse("model.merges must be a list");
  for (std::size_t rank = 0; rank < merges.size(); ++rank) {
    const json& merge = merges[rank];
    std::string left, right;
    if (merge.is_string()) {
      const std::string& pair = merge.get_ref<const std::string&>();
      const std::size_t space = pair.find(' ');
      if (space == std::string::npos || pair.find(' ', space + 1) != std::string::npos) {
        reader.refuse("merge " + std::to_string(rank) + " '" + pair + "' is not two symbols separated by a space");
      }
      left = pair.substr(0, space);
      right = pair.substr(space + 1);
    } else if (merge.is_array() && merge.size() == 2 && merge[0].is_string() && merge[1].is_string()) {
      left = merge[0].get<std::string>();
      right = merge[1].get<std::string>();
    } else {
      reader.refuse("merge " + std::to_string(rank) + " is neither \"a b\" nor [\"a\", \"b\"]");
    }
    const std::string what = "merge " + std::to_string(rank);
    if (!bpe.add_merge(reader.symbol_bytes(left, what), reader.symbol_bytes(right, what))) {
      reader.refuse(what + " '" + left + " " + right + "' joins tokens that are not in the vocabulary");
    }
  }
}

AddedTokens read_added_tokens(const json& root, const Reader& reader) {
  std::vector<AddedToken> tokens;
  const auto list = root.find("added_tokens");
  if (list == root.end() || list->is_null()) return AddedTokens(std::move(tokens));
  if (!list->is_array()) reader.refuse("added_tokens must be a list");
  for (const json& token : *list) {
    if (!token.is_object()) reader.refuse("added_tokens holds an entry that is not an object");
    const std::string content = reader.text(token, "content", "an added token");
    for (const char* option : {"lstrip", "rstrip", "single_word"}) {
      if (reader.flag(token, option, false)) {
        reader.refuse("added token '" + content + "': " + option + " true is not supported");
      }
    }
    const TokenId id = reader.token_id(reader.member(token, "id", "added token '" + content + "'"),
                                       "added token '" + content + "'");
    tokens.push_back({id, content, reader.flag(token, "special", false)});
  }
  return AddedTokens(std::move(tokens));
}

}  // namespace

TokenizerDefinition read_tokenizer_json(const std::filesystem::path& file) {
  const Reader reader(file);
  const json root = reader.parse();
  try {
    bool nfc = false;
    check_normalizer(root, reader, nfc);
    std::string pattern = split_pattern(root, reader);
    std::unique_ptr<BpeModel> model = read_model(root, reader);
    read_merges(root, reader, *model);
    return TokenizerDefinition{std::move(model), read_added_tokens(root, reader), nfc, std::move(pattern)};
  } catch (const json::exception& error) {
    reader.refuse(std::string("has a value of an unexpected type (") + error.what() + ")");
  }
}

}  // namespace quorvel::text
