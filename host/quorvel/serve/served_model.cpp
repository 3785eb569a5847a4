#include "host/quorvel/serve/served_model.h"

#include <algorithm>

#include "host/quorvel/command_error.h"
#include "host/quorvel/serve/api_error.h"
#include "host/quorvel/session.h"

namespace quorvel::serve {
namespace {

std::string name_of(const std::filesystem::path& directory) {
  const std::filesystem::path plain = directory.lexically_normal();
  return (plain.has_filename() ? plain.filename() : plain.parent_path().filename()).string();
}

}  // namespace

ServedModel::ServedModel(const ServeOptions& options) : model_(options.model_dir), name_(name_of(options.model_dir)) {
  try {
    chat_format_ = model_.chat_format(options.chat_format, options.thinking);
  } catch (const cli::CommandError& error) {
    if (!options.chat_format.empty()) throw;
    no_chat_reason_ = std::string(error.what()).substr(std::string_view("Error: ").size());
  }
  defaults_.complete_from(model_.path() / "generation_config.json");
  const text::ChatFormat engine_format = chat_format_.value_or(text::ChatFormat(text::ChatFamily::COMPLETION));
  engine_launch_ = {cli::engine_binary(options.engine), model_.path(),
                  cli::engine_config(model_, engine_format, options.threads)};
  const std::uint64_t model_context = model_.config().max_position_embeddings;
  if (options.context > model_context) {
    throw cli::CommandError("--ctx " + std::to_string(options.context) + " is more than the model's context of " +
                            std::to_string(model_context) + " positions");
  }
  context_ = options.context != 0 ? options.context : model_context;
}

std::vector<text::TokenId> ServedModel::prompt_ids(const ApiRequest& request) const {
  if (request.chat && !chat_format_) {
    throw ApiError(400, "this model takes no chat: " + no_chat_reason_ + "; use /v1/completions", "no_chat_format");
  }
  // Plain text is preceded by the begin-of-text token; chat markup brings its own.
  const bool plain = !request.chat || chat_format_->family() == text::ChatFamily::COMPLETION;
  std::vector<text::TokenId> ids;
  if (plain && model_.begin_of_text()) ids.push_back(*model_.begin_of_text());
  const std::vector<text::TokenId> text = request.chat ? tokenizer().encode(chat_format_->render(request.messages))
                                                       : tokenizer().encode({{request.prompt, false}});
  ids.insert(ids.end(), text.begin(), text.end());
  if (ids.empty()) throw invalid_request("the prompt is empty", request.chat ? "messages" : "prompt");
  if (ids.size() >= context_) {
    throw invalid_request("the prompt is " + std::to_string(ids.size()) + " tokens; the context holds " +
                              std::to_string(context_) + ", and the reply needs at least one more",
                          request.chat ? "messages" : "prompt", "context_length_exceeded");
  }
  return ids;
}

cli::SamplingOptions ServedModel::sampling_for(const ApiRequest& request, std::size_t prompt_tokens) const {
  cli::SamplingOptions sampling = request.sampling;
  sampling.complete_with(defaults_);
  const std::uint64_t room = context_ - prompt_tokens;
  sampling.max_tokens = sampling.max_tokens == 0 ? room : std::min<std::uint64_t>(sampling.max_tokens, room);
  return sampling;
}

}  // namespace quorvel::serve
