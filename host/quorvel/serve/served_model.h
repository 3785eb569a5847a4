// The model a server serves: its directory, its chat format (when it has one), its sampling
// defaults, the context a request may fill, and how a request becomes a prompt of token ids.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/quorvel/model_directory.h"
#include "host/quorvel/serve/api_request.h"
#include "host/quorvel/serve/serve_options.h"
#include "host/quorvel/serve/slot.h"

namespace quorvel::serve {

class ServedModel {
 public:
  // Throws CommandError for a directory, a chat format or a context that cannot be used.
  explicit ServedModel(const ServeOptions& options);

  const std::string& name() const { return name_; }
  const text::Tokenizer& tokenizer() const { return model_.tokenizer(); }
  const EngineLaunch& engine_launch() const { return engine_launch_; }
  std::uint64_t context() const { return context_; }
  // Why chat completions are refused, when the model has no chat format; empty otherwise.
  const std::string& no_chat_reason() const { return no_chat_reason_; }

  // The prompt of a request. Throws ApiError 400 when it is empty, when it leaves no room for a
  // reply in the context, or when a chat comes to a model without a chat format.
  std::vector<text::TokenId> prompt_ids(const ApiRequest& request) const;

  // The request's sampling with the model's defaults for what it leaves unset, its token limit
  // kept within the context after `prompt_tokens`.
  cli::SamplingOptions sampling_for(const ApiRequest& request, std::size_t prompt_tokens) const;

 private:
  cli::ModelDirectory model_;
  std::string name_;
  std::optional<text::ChatFormat> chat_format_;
  std::string no_chat_reason_;
  cli::SamplingOptions defaults_;
  EngineLaunch engine_launch_;
  std::uint64_t context_;
};

}  // namespace quorvel::serve
