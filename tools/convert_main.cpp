// quorvel-convert: see tools/convert/convert_command.h.
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "host/this_process.h"
#include "tools/convert/convert_command.h"

int main(int argc, char** argv) {
  const std::vector<std::string> arguments = quorvel::host::program_arguments(argc, argv);
  const std::vector<std::string_view> args(arguments.begin() + 1, arguments.end());
  return quorvel::convert::run_convert(args, std::cerr, std::cerr);
}
