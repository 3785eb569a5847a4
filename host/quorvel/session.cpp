#include "host/quorvel/session.h"

#include "host/quorvel/command_error.h"
#include "host/this_process.h"

namespace quorvel::cli {

namespace fs = std::filesystem;

fs::path engine_binary(const fs::path& named) {
  std::error_code error;
  const fs::path binary =
      named.empty() ? host::this_program().parent_path() / host::executable_name("quorvel-inference") : named;
  if (!fs::is_regular_file(binary, error)) {
    throw CommandError("the engine " + binary.string() +
                       " is missing (quorvel starts quorvel-inference from its own directory; --engine PATH names another)");
  }
  return binary;
}

Session::Session(const GenerationOptions& options, bool chat)
    : model_(options.model_dir),
      format_(chat ? model_.chat_format(options.chat_format, options.thinking)
                   : text::ChatFormat(text::ChatFamily::COMPLETION)),
      sampling_(options.sampling) {
  sampling_.complete_from(model_.path() / "generation_config.json");
  const fs::path binary = engine_binary(options.engine);
  engine_ = std::make_unique<Engine>(binary, model_.path(), engine_config(model_, format_, options.threads));
  const bool plain_text = format_.family() == text::ChatFamily::COMPLETION;
  conversation_ = std::make_unique<Conversation>(model_.tokenizer(), format_, context(),
                                                 plain_text ? model_.begin_of_text() : std::nullopt, options.system);
}

}  // namespace quorvel::cli
