// quorvel-make-rope: see tools/lib/tool_commands.h.
#include <iostream>
#include <string_view>
#include <vector>

#include "tools/lib/tool_commands.h"

int main(int argc, char** argv) {
  const std::vector<std::string_view> args(argv + 1, argv + argc);
  return quorvel::tools::run_make_rope(args, std::cerr);
}
