#include "tools/convert/gguf_tokenizer.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <variant>
#include <vector>

#include "tools/convert/convert_error.h"

namespace quorvel::convert {
namespace {

using nlohmann::json;
using path = std::filesystem::path;

constexpr std::string_view kTokensKey = "tokenizer.ggml.tokens";
constexpr std::string_view kMergesKey = "tokenizer.ggml.merges";
constexpr std::string_view kTypesKey = "tokenizer.ggml.token_type";
constexpr std::string_view kScoresKey = "tokenizer.ggml.scores";
constexpr std::string_view kBosKey = "tokenizer.ggml.bos_token_id";
constexpr std::string_view kEosKey = "tokenizer.ggml.eos_token_id";

constexpr std::int64_t kControlToken = 3;
constexpr std::int64_t kUserDefinedToken = 4;

// How a pre-tokenizer named in tokenizer.ggml.pre cuts text into pieces, and
// the settings its model family publishes with it.
struct SplitRule {
  std::string_view pre;
  const char* regex;
  bool nfc;
  bool ignore_merges;
};

constexpr const char* kLlama3Regex =
    R"((?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?\p{L}+|\p{N}{1,3}| ?[^\s\p{L}\p{N}]+[\r\n]*|\s*[\r\n]+|\s+(?!\S)|\s+)";
constexpr const char* kQwen2Regex =
    R"((?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?\p{L}+|\p{N}| ?[^\s\p{L}\p{N}]+[\r\n]*|\s*[\r\n]+|\s+(?!\S)|\s+)";

constexpr SplitRule kSplitRules[] = {
    {"llama-bpe", kLlama3Regex, false, true},
    {"llama3", kLlama3Regex, false, true},
    {"qwen2", kQwen2Regex, true, false},
};

const SplitRule* split_rule_for(std::string_view pre) {
  for (const SplitRule& rule : kSplitRules) {
    if (rule.pre == pre) return &rule;
  }
  return nullptr;
}

std::string known_split_rules() {
  std::string names;
  for (const SplitRule& rule : kSplitRules) names += (names.empty() ? "" : ", ") + std::string(rule.pre);
  return names;
}

[[noreturn]] void refuse(const GgufMetadata& metadata, std::string_view key, const std::string& problem) {
  throw ConvertError(metadata.file(), "key '" + std::string(key) + "' " + problem);
}

// A token that is cut out of the text whole before the BPE model sees it:
// control tokens are special, user-defined ones are not.
struct AddedToken {
  std::size_t id;
  bool special;
};

// What both files are written from.
struct Tokenizer {
  const SplitRule& rule;
  const std::vector<std::string>& tokens;
  std::vector<AddedToken> added;  // in id order
  std::optional<std::size_t> bos;
  std::optional<std::size_t> eos;
};

template <typename T>
constexpr bool is_list = false;
template <typename T>
constexpr bool is_list<std::vector<T>> = true;

// A per-token list (types, scores) must have one entry for every token.
void check_length(const GgufMetadata& metadata, std::string_view key, std::size_t token_count) {
  const GgufValue* value = metadata.find(key);
  if (!value) return;
  const std::optional<std::size_t> length = std::visit(
      [](const auto& held) -> std::optional<std::size_t> {
        if constexpr (is_list<std::decay_t<decltype(held)>>) {
          return held.size();
        } else {
          return std::nullopt;
        }
      },
      *value);
  if (!length) refuse(metadata, key, "must be a list");
  if (*length != token_count) {
    refuse(metadata, key, "has " + std::to_string(*length) + " entries for " + std::to_string(token_count) + " tokens");
  }
}

std::optional<std::size_t> token_id(const GgufMetadata& metadata, std::string_view key, std::size_t token_count) {
  const std::optional<std::uint64_t> id = metadata.get_uint(key);
  if (id && *id >= token_count) {
    refuse(metadata, key, "is " + std::to_string(*id) + ", outside the " + std::to_string(token_count) + " tokens");
  }
  return id ? std::optional<std::size_t>(static_cast<std::size_t>(*id)) : std::nullopt;
}

// Control and user-defined tokens by their type; without types, the bos and
// eos tokens are the only ones known to be special.
std::vector<AddedToken> added_tokens_of(const GgufMetadata& metadata, const Tokenizer& tokenizer) {
  std::vector<AddedToken> added;
  if (const std::vector<std::int64_t>* types = metadata.get_ints(kTypesKey)) {
    for (std::size_t id = 0; id < types->size(); ++id) {
      const std::int64_t type = (*types)[id];
      if (type == kControlToken || type == kUserDefinedToken) added.push_back({id, type == kControlToken});
    }
    return added;
  }
  if (tokenizer.bos) added.push_back({*tokenizer.bos, true});
  if (tokenizer.eos && tokenizer.eos != tokenizer.bos) added.push_back({*tokenizer.eos, true});
  std::sort(added.begin(), added.end(), [](const AddedToken& a, const AddedToken& b) { return a.id < b.id; });
  return added;
}

void check_unique_tokens(const GgufMetadata& metadata, const std::vector<std::string>& tokens) {
  std::unordered_map<std::string_view, std::size_t> first_id;
  for (std::size_t id = 0; id < tokens.size(); ++id) {
    const auto [earlier, inserted] = first_id.emplace(tokens[id], id);
    if (!inserted) {
      refuse(metadata, kTokensKey,
             "lists '" + tokens[id] + "' twice (ids " + std::to_string(earlier->second) + " and " + std::to_string(id) +
                 ")");
    }
  }
}

// Every token but the added ones, which tokenizer.json lists on their own.
json vocab_json(const Tokenizer& tokenizer) {
  std::vector<bool> is_added(tokenizer.tokens.size());
  for (const AddedToken& token : tokenizer.added) is_added[token.id] = true;
  json vocab = json::object();
  for (std::size_t id = 0; id < tokenizer.tokens.size(); ++id) {
    if (!is_added[id]) vocab[tokenizer.tokens[id]] = id;
  }
  return vocab;
}

// The merges as "a b", each of whose two symbols and their join must be in
// the vocabulary.
json merges_json(const GgufMetadata& metadata, const json& vocab) {
  const std::vector<std::string>* merges = metadata.get_strings(kMergesKey);
  if (!merges) refuse(metadata, kMergesKey, "is missing");
  json listed = json::array();
  for (std::size_t index = 0; index < merges->size(); ++index) {
    const std::string& merge = (*merges)[index];
    const std::string where = "has merge " + std::to_string(index) + " ('" + merge + "'), which";
    const std::size_t space = merge.find(' ');
    const bool two_symbols = space != std::string::npos && space > 0 && space + 1 < merge.size() &&
                             merge.find(' ', space + 1) == std::string::npos;
    if (!two_symbols) {
      refuse(metadata, kMergesKey, where + " is not two symbols separated by one space");
    }
    const std::string left = merge.substr(0, space);
    const std::string right = merge.substr(space + 1);
    for (const std::string& symbol : {left, right, left + right}) {
      if (!vocab.contains(symbol)) {
        refuse(metadata, kMergesKey, where + " needs '" + symbol + "', not in the vocabulary");
      }
    }
    listed.push_back(merge);
  }
  return listed;
}

// GGUF has no flag for matching an added token in the normalized text; its
// tokens are matched in the text as written, before any normalization.
json added_token_fields(const std::string& content, bool special) {
  return {{"content", content}, {"single_word", false}, {"lstrip", false},
          {"rstrip", false},    {"normalized", false},  {"special", special}};
}

json added_tokens_json(const Tokenizer& tokenizer) {
  json listed = json::array();
  for (const AddedToken& token : tokenizer.added) {
    json fields = added_token_fields(tokenizer.tokens[token.id], token.special);
    fields["id"] = token.id;
    listed.push_back(std::move(fields));
  }
  return listed;
}

json pre_tokenizer_json(const SplitRule& rule) {
  const json split = {
      {"type", "Split"}, {"pattern", {{"Regex", rule.regex}}}, {"behavior", "Isolated"}, {"invert", false}};
  const json byte_level = {
      {"type", "ByteLevel"}, {"add_prefix_space", false}, {"trim_offsets", true}, {"use_regex", false}};
  return {{"type", "Sequence"}, {"pretokenizers", {split, byte_level}}};
}

json model_json(const GgufMetadata& metadata, const Tokenizer& tokenizer) {
  json vocab = vocab_json(tokenizer);
  json merges = merges_json(metadata, vocab);
  return {{"type", "BPE"},
          {"dropout", nullptr},
          {"unk_token", nullptr},
          {"continuing_subword_prefix", nullptr},
          {"end_of_word_suffix", nullptr},
          {"fuse_unk", false},
          {"byte_fallback", false},
          {"ignore_merges", tokenizer.rule.ignore_merges},
          {"vocab", std::move(vocab)},
          {"merges", std::move(merges)}};
}

json tokenizer_json(const GgufMetadata& metadata, const Tokenizer& tokenizer) {
  return {{"version", "1.0"},
          {"truncation", nullptr},
          {"padding", nullptr},
          {"added_tokens", added_tokens_json(tokenizer)},
          {"normalizer", tokenizer.rule.nfc ? json{{"type", "NFC"}} : json(nullptr)},
          {"pre_tokenizer", pre_tokenizer_json(tokenizer.rule)},
          {"post_processor", nullptr},
          {"decoder", {{"type", "ByteLevel"}, {"add_prefix_space", true}, {"trim_offsets", true}, {"use_regex", true}}},
          {"model", model_json(metadata, tokenizer)}};
}

json token_text(const Tokenizer& tokenizer, std::optional<std::size_t> id) {
  return id ? json(tokenizer.tokens[*id]) : json(nullptr);
}

std::optional<std::uint64_t> context_length(const GgufMetadata& metadata) {
  const std::optional<std::string> architecture = metadata.get_string("general.architecture");
  return architecture ? metadata.get_uint(*architecture + ".context_length") : std::nullopt;
}

json tokenizer_config_json(const GgufMetadata& metadata, const Tokenizer& tokenizer) {
  json decoder = json::object();
  for (const AddedToken& token : tokenizer.added) {
    decoder[std::to_string(token.id)] = added_token_fields(tokenizer.tokens[token.id], token.special);
  }
  json config = {{"added_tokens_decoder", std::move(decoder)},
                 {"bos_token", token_text(tokenizer, tokenizer.bos)},
                 {"eos_token", token_text(tokenizer, tokenizer.eos)},
                 {"clean_up_tokenization_spaces", false},
                 {"tokenizer_class", "PreTrainedTokenizerFast"}};
  if (const std::optional<std::string> chat_template = metadata.get_string("tokenizer.chat_template")) {
    config["chat_template"] = *chat_template;
  }
  if (const std::optional<std::uint64_t> length = context_length(metadata)) config["model_max_length"] = *length;
  return config;
}

std::string json_text(const GgufMetadata& metadata, const json& document) {
  try {
    return document.dump(2);
  } catch (const json::type_error&) {
    throw ConvertError(metadata.file(), "the tokenizer metadata holds text that is not valid UTF-8");
  }
}

void write_text(const path& file, const std::string& text) {
  std::ofstream out(file, std::ios::binary);
  out << text << '\n';
  out.close();
  if (!out) throw ConvertError(file, "could not be written");
}

std::optional<std::string> unexported_reason(const GgufMetadata& metadata) {
  const std::optional<std::string> model = metadata.get_string("tokenizer.ggml.model");
  const std::string bring_yours = "; bring the model's tokenizer.json yourself";
  if (!model) return "tokenizer: the file carries no tokenizer" + bring_yours;
  if (*model != "gpt2") {
    const std::string kind = *model == "llama" ? " (sentencepiece)" : "";
    return "tokenizer: the file holds a '" + *model + "'" + kind +
           " tokenizer; only byte-level BPE ('gpt2') is exported" + bring_yours;
  }
  const std::optional<std::string> pre = metadata.get_string("tokenizer.ggml.pre");
  if (!pre || !split_rule_for(*pre)) {
    const std::string named = pre ? "the pre-tokenizer '" + *pre + "', whose split rule is not known"
                                  : "no pre-tokenizer (tokenizer.ggml.pre)";
    return "tokenizer: the byte-level BPE tokenizer names " + named + " (known: " + known_split_rules() + ")" +
           bring_yours;
  }
  return std::nullopt;
}

}  // namespace

TokenizerExport write_gguf_tokenizer(const GgufMetadata& metadata, const std::filesystem::path& dir) {
  if (std::optional<std::string> reason = unexported_reason(metadata)) return {false, std::move(*reason)};
  const std::vector<std::string>* tokens = metadata.get_strings(kTokensKey);
  if (!tokens) refuse(metadata, kTokensKey, "is missing");
  check_length(metadata, kTypesKey, tokens->size());
  check_length(metadata, kScoresKey, tokens->size());
  check_unique_tokens(metadata, *tokens);

  Tokenizer tokenizer{*split_rule_for(*metadata.get_string("tokenizer.ggml.pre")),
                      *tokens,
                      {},
                      token_id(metadata, kBosKey, tokens->size()),
                      token_id(metadata, kEosKey, tokens->size())};
  tokenizer.added = added_tokens_of(metadata, tokenizer);
  const json document = tokenizer_json(metadata, tokenizer);
  const std::string tokenizer_text = json_text(metadata, document);
  const std::string config_text = json_text(metadata, tokenizer_config_json(metadata, tokenizer));
  write_text(dir / "tokenizer.json", tokenizer_text);
  write_text(dir / "tokenizer_config.json", config_text);

  const std::size_t merge_count = document.at("model").at("merges").size();
  return {true, "tokenizer: wrote tokenizer.json (byte-level BPE, " + std::to_string(tokens->size()) + " tokens, " +
                    std::to_string(merge_count) + " merges, " + std::string(tokenizer.rule.pre) +
                    " split) and tokenizer_config.json"};
}

}  // namespace quorvel::convert
