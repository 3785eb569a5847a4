#include "host/quorvel/model_directory.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "engine/init_config_parser.h"
#include "host/quorvel/command_error.h"

namespace quorvel::cli {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

InitConfig read_config(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw CommandError(file.string() + ": cannot be opened (is this a converted model directory?)");
  try {
    return read_init_config(in);
  } catch (const std::exception& error) {
    throw CommandError(file.string() + ": " + error.what());
  }
}

// tokenizer_config.json as an object, or an empty object when there is none.
json read_tokenizer_config(const fs::path& file) {
  if (!fs::exists(file)) return json::object();
  std::ifstream in(file, std::ios::binary);
  json config = json::parse(in, nullptr, false);
  if (!config.is_object()) throw CommandError(file.string() + ": is not a JSON object");
  return config;
}

// The text of a token entry, which is either a string or an object with a "content" string.
std::optional<std::string> token_text(const json& entry) {
  if (entry.is_string()) return entry.get<std::string>();
  if (entry.is_object() && entry.contains("content") && entry["content"].is_string()) {
    return entry["content"].get<std::string>();
  }
  return std::nullopt;
}

std::string read_text(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

ModelDirectory::ModelDirectory(fs::path path) : path_(std::move(path)) {
  if (!fs::is_directory(path_)) throw CommandError(path_.string() + ": is not a directory");
  config_ = read_config(path_ / "init.txt");
  const fs::path tokenizer_file = path_ / "tokenizer.json";
  if (!fs::exists(tokenizer_file)) {
    throw CommandError(tokenizer_file.string() + ": not found; a model directory needs its tokenizer");
  }
  tokenizer_ = std::make_unique<text::Tokenizer>(tokenizer_file);
  const fs::path config_file = path_ / "tokenizer_config.json";
  const json config = read_tokenizer_config(config_file);
  read_chat_template(config, config_file);
  const auto add_bos = config.find("add_bos_token");
  const bool adds_bos = add_bos == config.end() || !add_bos->is_boolean() || add_bos->get<bool>();
  if (const auto bos = config.find("bos_token"); adds_bos && bos != config.end()) {
    if (const auto text = token_text(*bos)) begin_of_text_ = special_token_id(*text);
  }
}

// The template of chat_template.jinja when there is one, else the chat_template of tokenizer_config.json.
void ModelDirectory::read_chat_template(const json& config, const fs::path& config_file) {
  const fs::path jinja = path_ / "chat_template.jinja";
  if (fs::exists(jinja)) {
    chat_template_ = read_text(jinja);
    chat_template_file_ = jinja;
    return;
  }
  chat_template_file_ = config_file;
  if (const auto found = config.find("chat_template"); found != config.end() && found->is_string()) {
    chat_template_ = found->get<std::string>();
  }
}

text::ChatFormat ModelDirectory::chat_format(const std::string& name, bool thinking) const {
  if (!name.empty()) {
    try {
      return text::ChatFormat::named(name, thinking);
    } catch (const std::invalid_argument& error) {
      throw CommandError(error.what());
    }
  }
  const std::string where = chat_template_file_.string();
  if (!chat_template_) throw CommandError(where + ": has no chat template; name a format (--chat-format NAME)");
  const std::optional<text::ChatFamily> family = text::ChatFormat::recognise(*chat_template_);
  if (!family) {
    throw CommandError(where + ": its chat template is none of llama3, bitnet or chatml; name a format (--chat-format NAME)");
  }
  return text::ChatFormat(*family, thinking);
}

std::optional<text::TokenId> ModelDirectory::special_token_id(const std::string& text) const {
  const std::vector<text::TokenId> ids = tokenizer_->encode(text, true);
  if (ids.size() != 1) return std::nullopt;
  return ids.front();
}

InitConfig engine_config(const ModelDirectory& model, const text::ChatFormat& format, int threads) {
  InitConfig config = model.config();
  std::vector<std::int64_t> eos;
  for (const std::string& stop : format.stop_tokens()) {
    if (const auto id = model.special_token_id(stop)) eos.push_back(*id);
  }
  for (std::size_t i = 0; i < config.num_eos_tokens; ++i) eos.push_back(config.eos_tokens[i]);
  std::vector<std::int64_t> unique;
  for (const std::int64_t id : eos) {
    if (std::find(unique.begin(), unique.end(), id) == unique.end() && unique.size() < kMaxEosTokens) {
      unique.push_back(id);
    }
  }
  if (unique.empty()) {
    throw CommandError((model.path() / "init.txt").string() +
                       ": names no end-of-sequence token (eos_tokens), and the chat format has none");
  }
  std::copy(unique.begin(), unique.end(), config.eos_tokens.begin());
  config.num_eos_tokens = unique.size();
  if (threads > 0) config.num_threads = threads;
  return config;
}

}  // namespace quorvel::cli
