// quorvel-convert: see tools/convert/convert_command.h.
#include <iostream>
#include <string_view>
#include <vector>

#include "tools/convert/convert_command.h"

int main(int argc, char** argv) {
  const std::vector<std::string_view> args(argv + 1, argv + argc);
  return quorvel::convert::run_convert(args, std::cerr, std::cerr);
}
