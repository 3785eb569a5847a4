#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include "host/this_process.h"

namespace quorvel::host {

std::filesystem::path this_program() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error);
}

std::vector<std::string> program_arguments(int argc, char** argv) { return {argv, argv + argc}; }

void set_environment_variable(const std::string& name, const std::string& value) {
  if (setenv(name.c_str(), value.c_str(), 1) != 0) throw std::runtime_error("cannot set " + name);
}

std::string executable_name(const std::string& name) { return name; }

}  // namespace quorvel::host
