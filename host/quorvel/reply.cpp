#include "host/quorvel/reply.h"

#include <cstdio>

#include "host/text/stream_decoder.h"

namespace quorvel::cli {
namespace {

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

ReplyEnd how_it_ended(const Engine& engine, const Request& request, const Answer& answer) {
  const std::uint64_t limit = request.sampling.max_tokens;
  if (limit != 0 && answer.ids.size() > limit) return ReplyEnd::length;
  if (answer.position >= engine.config().max_position_embeddings) return ReplyEnd::length;
  return ReplyEnd::end_token;
}

}  // namespace

const char* finish_reason(ReplyEnd end) {
  constexpr const char* kReasons[] = {"stop", "length", "stop", "interrupted"};
  return kReasons[static_cast<int>(end)];
}

TextSink printing_sink(std::FILE* out, const InterruptGuard& interrupt) {
  return [out, &interrupt](std::string_view text) {
    if (!text.empty()) {
      std::fwrite(text.data(), 1, text.size(), out);
      std::fflush(out);
    }
    return !interrupt.interrupted();
  };
}

Reply stream_reply(Engine& engine, const Request& request, const text::Tokenizer& tokenizer,
                   const ReplyOptions& options) {
  text::StreamDecoder decoder(tokenizer, options.stop_strings);
  Reply reply;
  bool interrupted = false;
  const auto hand_on = [&](const std::string& text) {
    reply.text += text;
    return !options.on_text || options.on_text(text);
  };
  const auto on_token = [&](text::TokenId id) {
    if (engine.is_end(id)) return true;
    interrupted = !hand_on(decoder.push(id));
    return !decoder.stopped() && !interrupted;
  };
  reply.answer = engine.ask(request, on_token, options.rest);
  if (!decoder.stopped()) hand_on(decoder.finish());
  reply.accepted_bytes = decoder.accepted_bytes();
  reply.end = decoder.stopped() ? ReplyEnd::stop_string
              : interrupted     ? ReplyEnd::interrupted
                                : how_it_ended(engine, request, reply.answer);
  return reply;
}

double ReplyFigures::prompt_rate() const { return prompt_seconds > 0 ? double(prompt_tokens) / prompt_seconds : 0; }

double ReplyFigures::generation_rate() const {
  return generation_seconds > 0 && generated > 1 ? double(generated - 1) / generation_seconds : 0;
}

ReplyFigures figures_of(const Request& request, const Answer& answer) {
  ReplyFigures figures;
  figures.prompt_tokens = request.tokens.size();
  figures.reused = request.kv_position;
  figures.generated = answer.ids.size();
  if (!answer.ids.empty()) {
    figures.prompt_seconds = seconds(answer.first_token - answer.sent);
    figures.generation_seconds = seconds(answer.last_token - answer.first_token);
  }
  return figures;
}

std::string describe(const ReplyFigures& figures, double load_seconds) {
  char line[256];
  std::snprintf(line, sizeof line, "prompt %zu tokens", figures.prompt_tokens);
  std::string text = line;
  if (figures.reused > 0) text += " (" + std::to_string(figures.reused) + " reused)";
  std::snprintf(line, sizeof line, ", %.1f tokens/s \xC2\xB7 generated %zu tokens, %.1f tokens/s \xC2\xB7 load %.2f s",
                figures.prompt_rate(), figures.generated, figures.generation_rate(), load_seconds);
  return text + line;
}

}  // namespace quorvel::cli
