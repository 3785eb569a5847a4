// quorvel-make-model: see tools/lib/tool_commands.h.
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "host/this_process.h"
#include "tools/lib/tool_commands.h"

int main(int argc, char** argv) {
  const std::vector<std::string> arguments = quorvel::host::program_arguments(argc, argv);
  const std::vector<std::string_view> args(arguments.begin() + 1, arguments.end());
  return quorvel::tools::run_make_model(args, std::cerr);
}
