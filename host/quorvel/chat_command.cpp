// quorvel chat: an interactive conversation. Every turn sends only what the engine's cache does not
// hold yet; /reset, /stats and /exit steer it, Ctrl-C stops a reply, Ctrl-D ends the conversation.
#include <iostream>
#include <optional>

#include "host/quorvel/command_error.h"
#include "host/quorvel/commands.h"
#include "host/quorvel/line_reader.h"
#include "host/quorvel/session.h"

namespace quorvel::cli {
namespace {

constexpr const char* kHelp = "/reset starts again from the system prompt, /stats shows the figures, /exit ends "
                              "(so does Ctrl-D); Ctrl-C stops a reply; a line ending in \\ continues.";

class Chat {
 public:
  Chat(const GenerationOptions& options) : options_(options), session_(options, true) {}

  int loop() {
    LineReader reader;
    if (reader.interactive()) std::cerr << kHelp << std::endl;
    while (const std::optional<std::string> line = reader.read()) {
      if (*line == "/exit" || *line == "/quit") break;
      if (line->empty()) continue;
      if (*line == "/reset") {
        session_.conversation().reset();
        std::cerr << "(the conversation starts again)" << std::endl;
      } else if (*line == "/stats") {
        print_stats();
      } else if ((*line)[0] == '/' && line->find(' ') == std::string::npos) {
        std::cerr << "Unknown command " << *line << ". " << kHelp << std::endl;
      } else {
        turn(*line);
      }
    }
    return 0;
  }

 private:
  // A reply may take what the token limit allows, or a quarter of the context when there is none.
  std::uint64_t reply_room() const {
    const std::uint64_t limit = session_.sampling().max_tokens;
    return limit != 0 ? limit + 1 : session_.context() / 4;
  }

  void turn(const std::string& message) {
    TurnRequest turn;
    try {
      turn = session_.conversation().add_user(message, reply_room());
    } catch (const CommandError& error) {
      std::cerr << error.what() << std::endl;
      return;
    }
    if (turn.dropped_turns > 0) {
      std::cerr << "(the conversation outgrew the context of " << session_.context() << " positions: dropped the "
                << turn.dropped_turns << " oldest turn(s); reading " << turn.tokens.size()
                << " tokens again from position " << turn.kv_position << ")" << std::endl;
    }
    const Request request = session_.request(turn);
    const InterruptGuard interrupt;
    const Reply reply = stream_reply(session_.engine(), request, session_.model().tokenizer(),
                                     {options_.stop_strings, Engine::Rest::drop, printing_sink(stdout, interrupt)});
    std::cout << std::endl;
    if (reply.end == ReplyEnd::interrupted) std::cerr << "(interrupted)" << std::endl;
    session_.conversation().add_reply(reply.answer.ids, reply.answer.position, reply.answer.complete,
                                      reply.accepted_bytes);
    last_ = figures_of(request, reply.answer);
  }

  void print_stats() const {
    std::cerr << "context: " << session_.conversation().size() << " of " << session_.context()
              << " positions used, " << session_.conversation().turns() << " turn(s)" << std::endl;
    if (last_) std::cerr << "last reply: " << describe(*last_, session_.engine().load_seconds()) << std::endl;
  }

  const GenerationOptions& options_;
  Session session_;
  std::optional<ReplyFigures> last_;
};

}  // namespace

int chat_command(const GenerationOptions& options) {
  Chat chat(options);
  return chat.loop();
}

}  // namespace quorvel::cli
