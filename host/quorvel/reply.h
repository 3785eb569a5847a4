// One reply of the engine, handed on as it streams: only whole characters, never a stop string or what
// follows it; whoever receives the text can end the reply early. Also its figures: prompt and
// generation speeds.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host/quorvel/engine.h"
#include "host/quorvel/interrupt.h"
#include "host/text/tokenizer.h"

namespace quorvel::cli {

enum class ReplyEnd { end_token, length, stop_string, interrupted };

// "stop", "length", "stop" (a stop string) or "interrupted", as --json reports it.
const char* finish_reason(ReplyEnd end);

struct Reply {
  Answer answer;
  std::string text;                // the reply's text, as printed
  std::size_t accepted_bytes = 0;  // the bytes of the tokens' text that the reply keeps
  ReplyEnd end = ReplyEnd::end_token;
};

// Receives each generated token's text (empty while a character or a possible stop string is held);
// returning false ends the reply as interrupted.
using TextSink = std::function<bool(std::string_view)>;

struct ReplyOptions {
  std::vector<std::string> stop_strings;
  Engine::Rest rest = Engine::Rest::drop;  // what becomes of the engine's answer after a stop
  TextSink on_text;                        // empty: the text is only collected
};

// A sink that prints to `out` and ends the reply when Ctrl-C was pressed since `interrupt` began.
TextSink printing_sink(std::FILE* out, const InterruptGuard& interrupt);

Reply stream_reply(Engine& engine, const Request& request, const text::Tokenizer& tokenizer,
                   const ReplyOptions& options);

// The speeds of one answer: the prompt tokens sent (the cache held `reused` more) and how quickly
// they were read, the tokens generated and how quickly.
struct ReplyFigures {
  std::size_t prompt_tokens = 0, reused = 0, generated = 0;
  double prompt_seconds = 0, generation_seconds = 0;
  double prompt_rate() const;      // tokens/s
  double generation_rate() const;  // tokens/s after the first token
};

ReplyFigures figures_of(const Request& request, const Answer& answer);

// "prompt 12 tokens (30 reused), 345.6 tokens/s · generated 64 tokens, 22.1 tokens/s · load 0.41 s"
std::string describe(const ReplyFigures& figures, double load_seconds);

}  // namespace quorvel::cli
