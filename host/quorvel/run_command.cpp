// quorvel run: one completion of a prompt, streamed, with its figures on standard error (or one JSON
// object with the text, the ids, the counts and the timings).
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>

#include "host/quorvel/commands.h"
#include "host/quorvel/session.h"

namespace quorvel::cli {
namespace {

nlohmann::json json_report(const Reply& reply, const ReplyFigures& figures, double load_seconds) {
  return {
      {"text", reply.text},
      {"tokens", reply.answer.ids},
      {"prompt_tokens", figures.prompt_tokens},
      {"generated_tokens", figures.generated},
      {"finish_reason", finish_reason(reply.end)},
      {"timings",
       {{"load_seconds", load_seconds},
        {"prompt_seconds", figures.prompt_seconds},
        {"prompt_tokens_per_second", figures.prompt_rate()},
        {"generation_seconds", figures.generation_seconds},
        {"generation_tokens_per_second", figures.generation_rate()}}},
  };
}

}  // namespace

int run_command(const RunOptions& options) {
  Session session(options.generation, options.chat || !options.generation.chat_format.empty());
  const TurnRequest turn = session.conversation().add_user(options.prompt, 1);
  const Request request = session.request(turn);
  const InterruptGuard interrupt;
  const ReplyOptions reply_options{options.generation.stop_strings, Engine::Rest::end_engine,
                                   options.json ? TextSink() : printing_sink(stdout, interrupt)};
  const Reply reply = stream_reply(session.engine(), request, session.model().tokenizer(), reply_options);
  const ReplyFigures figures = figures_of(request, reply.answer);
  if (options.json) {
    std::cout << json_report(reply, figures, session.engine().load_seconds()).dump(-1, ' ', false,
                                                                                 nlohmann::json::error_handler_t::replace)
              << std::endl;
    return 0;
  }
  if (isatty(STDOUT_FILENO)) std::fputs("\n", stdout);
  std::fflush(stdout);
  std::cerr << describe(figures, session.engine().load_seconds()) << std::endl;
  return 0;
}

}  // namespace quorvel::cli
