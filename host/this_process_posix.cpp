#include <system_error>

#include "host/this_process.h"

namespace quorvel::host {

std::filesystem::path this_program() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error);
}

std::vector<std::string> program_arguments(int argc, char** argv) { return {argv, argv + argc}; }

std::string executable_name(const std::string& name) { return name; }

}  // namespace quorvel::host
