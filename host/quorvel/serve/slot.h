// One engine process and what its cache holds: a slot serves one request at a time. A request sends
// only the part of its prompt that the cache does not already hold, at the kv_position where the two
// part ways, so a conversation that comes back turn after turn is never read twice.
#pragma once

#include <filesystem>
#include <memory>
#include <span>
#include <vector>

#include "host/quorvel/engine.h"
#include "host/quorvel/reply.h"

namespace quorvel::serve {

// How every slot's engine is started.
struct EngineLaunch {
  std::filesystem::path binary;
  std::filesystem::path model_dir;
  InitConfig config;
};

// One generation on a slot: the request as sent (kv_position = cached prompt tokens) and the reply.
struct Generation {
  cli::Request request;
  cli::Reply reply;
  bool engine_started = false;  // a new engine took the place of one that died or was ended
  std::size_t prompt_tokens() const { return request.kv_position + request.tokens.size(); }
  std::size_t completion_tokens() const;  // generated ids, end ids not counted
};

class Slot {
 public:
  // Starts the engine; throws CommandError when it cannot.
  Slot(int index, const EngineLaunch& launch);

  int index() const { return index_; }
  // The engine's process id, or -1 while it has none (it died and the next request starts one).
  host::ProcessId engine_pid() const { return engine_ ? engine_->pid() : -1; }
  double load_seconds() const { return engine_ ? engine_->load_seconds() : 0; }

  // How many leading ids of `prompt` the cache already holds.
  std::size_t shared_prefix(std::span<const text::TokenId> prompt) const;

  // Generates a reply to `prompt` (at least one id). When the engine dies or cannot be started, the
  // cache is forgotten, the next request starts a new engine, and this throws ApiError 500.
  Generation generate(const std::vector<text::TokenId>& prompt, const cli::SamplingOptions& sampling,
                      const text::Tokenizer& tokenizer, const cli::ReplyOptions& options);

 private:
  void start_engine();

  int index_;
  const EngineLaunch& launch_;
  std::unique_ptr<cli::Engine> engine_;
  std::vector<text::TokenId> cached_;  // what the engine's cache holds, from position 0
};

}  // namespace quorvel::serve
