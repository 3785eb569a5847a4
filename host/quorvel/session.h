// Everything a generating command sets up before its first request: the model directory, the chat
// format, the sampling settings completed from the model's own, the engine started with the format's
// end tokens, and the conversation.
#pragma once

#include <memory>

#include "host/quorvel/commands.h"
#include "host/quorvel/conversation.h"
#include "host/quorvel/engine.h"
#include "host/quorvel/model_directory.h"
#include "host/quorvel/reply.h"

namespace quorvel::cli {

class Session {
 public:
  Session(const GenerationOptions& options, bool chat);

  const ModelDirectory& model() const { return model_; }
  Engine& engine() { return *engine_; }
  const Engine& engine() const { return *engine_; }
  Conversation& conversation() { return *conversation_; }
  const Conversation& conversation() const { return *conversation_; }
  const SamplingOptions& sampling() const { return sampling_; }
  std::uint64_t context() const { return model_.config().max_position_embeddings; }

  // The request for a turn of the conversation.
  Request request(const TurnRequest& turn) const { return {turn.kv_position, turn.tokens, sampling_}; }

 private:
  ModelDirectory model_;
  text::ChatFormat format_;
  SamplingOptions sampling_;
  std::unique_ptr<Engine> engine_;
  std::unique_ptr<Conversation> conversation_;
};

// quorvel-inference beside this program, or the one named; throws CommandError when it is missing.
std::filesystem::path engine_binary(const std::filesystem::path& named);

}  // namespace quorvel::cli
