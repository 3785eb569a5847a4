#include "host/quorvel/serve/request_log.h"

#include <cstdio>
#include <iostream>
#include <mutex>

namespace quorvel::serve {
namespace {

double seconds(cli::Clock::duration d) { return std::chrono::duration<double>(d).count(); }

}  // namespace

CompletionFigures figures_of(const Generation& generation, int slot, cli::Clock::time_point arrived) {
  const cli::Answer& answer = generation.reply.answer;
  CompletionFigures figures;
  figures.slot = slot;
  figures.prompt_tokens = generation.prompt_tokens();
  figures.cached_tokens = generation.request.kv_position;
  figures.completion_tokens = generation.completion_tokens();
  if (!answer.ids.empty()) {
    figures.first_token_seconds = seconds(answer.first_token - arrived);
    const double generating = seconds(answer.last_token - answer.first_token);
    if (generating > 0) figures.tokens_per_second = double(answer.ids.size() - 1) / generating;
  }
  return figures;
}

std::string log_line(const std::string& method, const std::string& path, int status,
                     const std::optional<CompletionFigures>& figures, double seconds) {
  constexpr const char* kDot = " \xC2\xB7 ";
  std::string line = method + " " + path + " " + std::to_string(status);
  char text[160];
  if (figures) {
    std::snprintf(text, sizeof text, "%sslot %d%sprompt %zu tokens (%zu cached)%scompletion %zu tokens", kDot,
                  figures->slot, kDot, figures->prompt_tokens, figures->cached_tokens, kDot, figures->completion_tokens);
    line += text;
    std::snprintf(text, sizeof text, "%sfirst token %.0f ms%s%.1f tokens/s", kDot, figures->first_token_seconds * 1000,
                  kDot, figures->tokens_per_second);
    line += text;
  }
  std::snprintf(text, sizeof text, "%s%.3f s", kDot, seconds);
  return line + text;
}

LogSink standard_error_log() {
  return [](const std::string& line) {
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    std::cerr << line << std::endl;
  };
}

}  // namespace quorvel::serve
