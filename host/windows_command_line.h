// The command line a Windows program receives as one string and splits into
// its arguments itself (the C runtime's rules, as CommandLineToArgvW applies
// them): built here from UTF-8 arguments so that each one arrives intact.
// Plain code, built on every platform, so that its rules are tested on all.
#pragma once

#include <string>
#include <vector>

namespace quorvel::host {

// Joins `argv` with spaces, each argument quoted when it is empty or holds a
// space, tab, line feed, vertical tab or double quote: inside the quotes a
// double quote is escaped with a backslash, and so are the backslashes right
// before a double quote or the closing quote (2n backslashes stand for n only
// there). The characters are copied unchanged otherwise, UTF-8 included.
std::string windows_command_line(const std::vector<std::string>& argv);

}  // namespace quorvel::host
