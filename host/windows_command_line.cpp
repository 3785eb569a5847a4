#include "host/windows_command_line.h"

namespace quorvel::host {
namespace {

bool needs_quotes(const std::string& argument) {
  return argument.empty() || argument.find_first_of(" \t\n\v\"") != std::string::npos;
}

void append_quoted(const std::string& argument, std::string& line) {
  line += '"';
  std::size_t backslashes = 0;
  for (const char c : argument) {
    if (c == '\\') {
      ++backslashes;
      continue;
    }
    // Backslashes before a double quote are doubled, and the quote gets one of its own.
    line.append(c == '"' ? 2 * backslashes + 1 : backslashes, '\\');
    line += c;
    backslashes = 0;
  }
  // Before the closing quote, too, they are doubled.
  line.append(2 * backslashes, '\\');
  line += '"';
}

}  // namespace

std::string windows_command_line(const std::vector<std::string>& argv) {
  std::string line;
  for (const std::string& argument : argv) {
    if (!line.empty()) line += ' ';
    if (needs_quotes(argument)) {
      append_quoted(argument, line);
    } else {
      line += argument;
    }
  }
  return line;
}

}  // namespace quorvel::host
