// The chat's input: line editing and history through libedit when standard input is a terminal,
// plain lines otherwise (so that a conversation can be piped in). A line that ends in a backslash
// continues on the next one.
#pragma once

#include <optional>
#include <string>

namespace quorvel::cli {

class LineReader {
 public:
  LineReader();

  // The next message, or nullopt at the end of input (Ctrl-D).
  std::optional<std::string> read();

  bool interactive() const { return interactive_; }

 private:
  std::optional<std::string> read_line(const char* prompt);

  bool interactive_;
};

}  // namespace quorvel::cli
