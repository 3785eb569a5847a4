// What quorvel reads from a model directory besides the weights: the init config the engine is
// started with (init.txt), the tokenizer (tokenizer.json), the chat format and the begin-of-text
// token (tokenizer_config.json, or chat_template.jinja), and the recommended sampling settings
// (generation_config.json).
#pragma once

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "config/init_config.h"
#include "host/text/chat_format.h"
#include "host/text/tokenizer.h"

namespace quorvel::cli {

class ModelDirectory {
 public:
  // Throws CommandError when init.txt or tokenizer.json cannot be used.
  explicit ModelDirectory(std::filesystem::path path);

  const std::filesystem::path& path() const { return path_; }
  const InitConfig& config() const { return config_; }
  const text::Tokenizer& tokenizer() const { return *tokenizer_; }

  // The chat format: the one named (throws CommandError for an unknown name), or the one the chat
  // template shows (throws CommandError when there is none or it is of no known family).
  text::ChatFormat chat_format(const std::string& name, bool thinking) const;

  // The id of the begin-of-text token that plain text is preceded by, when the tokenizer's
  // configuration asks for one.
  std::optional<text::TokenId> begin_of_text() const { return begin_of_text_; }

  // The id of a special token's text, if the tokenizer has it as one token.
  std::optional<text::TokenId> special_token_id(const std::string& text) const;

 private:
  void read_chat_template(const nlohmann::json& config, const std::filesystem::path& config_file);

  std::filesystem::path path_;
  InitConfig config_;
  std::optional<std::string> chat_template_;
  std::filesystem::path chat_template_file_;  // where it came from, or where it was looked for
  std::unique_ptr<text::Tokenizer> tokenizer_;
  std::optional<text::TokenId> begin_of_text_;
};

// The init config to start the engine with: the directory's own, with the end tokens of `format`
// (the end-of-turn token first, so that a reply cut short by the token limit is closed by it) and
// the thread count when one is given.
InitConfig engine_config(const ModelDirectory& model, const text::ChatFormat& format, int threads);

}  // namespace quorvel::cli
