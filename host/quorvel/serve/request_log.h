// One line on standard error per request: method, path, status, and for a completion the slot, the
// prompt tokens (and how many of them the cache already held), the completion tokens, the time to
// the first token and the generation speed.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "host/quorvel/serve/slot.h"

namespace quorvel::serve {

struct CompletionFigures {
  int slot = -1;
  std::size_t prompt_tokens = 0, cached_tokens = 0, completion_tokens = 0;
  double first_token_seconds = 0;  // from the request's arrival: waiting, reading and the first token
  double tokens_per_second = 0;    // after the first token
};

CompletionFigures figures_of(const Generation& generation, int slot, cli::Clock::time_point arrived);

// "POST /v1/chat/completions 200 · slot 1 · prompt 35 tokens (30 cached) · completion 12 tokens ·
// first token 45 ms · 80.1 tokens/s · 0.213 s"
std::string log_line(const std::string& method, const std::string& path, int status,
                     const std::optional<CompletionFigures>& figures, double seconds);

// Where the server's lines go; called from any thread.
using LogSink = std::function<void(const std::string& line)>;

// Whole lines on standard error, one at a time.
LogSink standard_error_log();

}  // namespace quorvel::serve
