// What the engine takes from the operating system when it starts: its
// command line and its standard streams, the same on every platform.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace quorvel {

struct CommandLine {
  std::string program;                            // the program path as started, for messages
  std::vector<std::filesystem::path> arguments;  // everything after it
};

// The command line from main's argc and argv. On Windows argv is in the ANSI
// code page, which cannot spell every file name: there the wide-character
// command line is read instead (argc and argv are not used), the arguments
// become paths without any conversion and the program path UTF-8 text.
CommandLine read_command_line(int argc, char** argv);

// Standard input, output and error pass bytes unchanged. On Windows they are
// switched out of text mode, in which a line feed would be written as a
// carriage return and line feed, a carriage return before a line feed would
// be dropped on reading, and a Ctrl-Z byte would end the input.
void use_binary_standard_streams();

}  // namespace quorvel
