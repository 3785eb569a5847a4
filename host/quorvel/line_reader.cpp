#include "host/quorvel/line_reader.h"

#include <editline/readline.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>

namespace quorvel::cli {

LineReader::LineReader() : interactive_(isatty(STDIN_FILENO) && isatty(STDOUT_FILENO)) {}

std::optional<std::string> LineReader::read_line(const char* prompt) {
  if (!interactive_) {
    std::string line;
    if (!std::getline(std::cin, line)) return std::nullopt;
    return line;
  }
  const std::unique_ptr<char, decltype(&std::free)> line(readline(prompt), &std::free);
  if (!line) return std::nullopt;
  return std::string(line.get());
}

std::optional<std::string> LineReader::read() {
  std::optional<std::string> message = read_line("> ");
  while (message && !message->empty() && message->back() == '\\') {
    message->back() = '\n';
    const std::optional<std::string> more = read_line(". ");
    if (!more) break;
    *message += *more;
  }
  if (interactive_ && message && !message->empty()) add_history(message->c_str());
  return message;
}

}  // namespace quorvel::cli
