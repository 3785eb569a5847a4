#include "host/quorvel/serve/slot.h"

#include <algorithm>

#include "host/quorvel/serve/api_error.h"

namespace quorvel::serve {

std::size_t Generation::completion_tokens() const {
  const std::vector<text::TokenId>& ids = reply.answer.ids;
  const bool ended = !ids.empty() && reply.answer.complete;
  return ended ? ids.size() - 1 : ids.size();
}

Slot::Slot(int index, const EngineLaunch& launch) : index_(index), launch_(launch) { start_engine(); }

void Slot::start_engine() { engine_ = std::make_unique<cli::Engine>(launch_.binary, launch_.model_dir, launch_.config); }

std::size_t Slot::shared_prefix(std::span<const text::TokenId> prompt) const {
  const auto [in_cache, in_prompt] = std::mismatch(cached_.begin(), cached_.end(), prompt.begin(), prompt.end());
  return static_cast<std::size_t>(in_prompt - prompt.begin());
}

Generation Slot::generate(const std::vector<text::TokenId>& prompt, const cli::SamplingOptions& sampling,
                          const text::Tokenizer& tokenizer, const cli::ReplyOptions& options) {
  // At least the last prompt token is sent again: its row gives the first reply token.
  const std::size_t reused = std::min(shared_prefix(prompt), prompt.size() - 1);
  const host::ProcessId engine_before = engine_pid();
  Generation generation;
  generation.request = {reused, {prompt.begin() + static_cast<std::ptrdiff_t>(reused), prompt.end()}, sampling};
  try {
    if (!engine_) start_engine();
    generation.reply = cli::stream_reply(*engine_, generation.request, tokenizer, options);
  } catch (const std::exception& error) {
    // The engine ended, printed something else than numbers, or could not be started.
    engine_.reset();
    cached_.clear();
    std::string problem = error.what();
    if (problem.starts_with("Error: ")) problem.erase(0, std::string_view("Error: ").size());
    throw ApiError(500, "slot " + std::to_string(index_) + ": " + problem + "; a new engine starts with the next request",
                   "engine_stopped");
  }
  // A dead engine is replaced here, and one whose abandoned answer was longer to read than a
  // restart is replaced inside ask().
  generation.engine_started = engine_pid() != engine_before;
  const cli::Answer& answer = generation.reply.answer;
  cached_.clear();
  if (answer.complete) {
    // The cache holds the prompt and the printed ids up to the position the engine reports.
    cached_ = prompt;
    cached_.insert(cached_.end(), answer.ids.begin(), answer.ids.end());
    cached_.resize(std::min<std::size_t>(cached_.size(), answer.position));
  }
  return generation;
}

}  // namespace quorvel::serve
