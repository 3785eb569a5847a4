#include <windows.h>
// after windows.h
#include <shellapi.h>

#include <cstdlib>
#include <stdexcept>

#include "host/this_process.h"
#include "host/wide_text.h"

namespace quorvel::host {

std::filesystem::path this_program() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (length == 0) return {};
    if (length < path.size()) return path.substr(0, length);
    path.resize(path.size() * 2);
  }
}

std::vector<std::string> program_arguments(int /*argc*/, char** /*argv*/) {
  int count = 0;
  LPWSTR* wide = CommandLineToArgvW(GetCommandLineW(), &count);
  if (wide == nullptr) throw std::runtime_error("cannot read the command line");
  std::vector<std::string> arguments;
  for (int i = 0; i < count; ++i) arguments.push_back(utf8_text(wide[i]));
  LocalFree(wide);
  return arguments;
}

// Through the C runtime, which updates both its own copy (getenv) and the
// process's block, which children inherit.
void set_environment_variable(const std::string& name, const std::string& value) {
  if (_wputenv_s(wide_text(name).c_str(), wide_text(value).c_str()) != 0) throw std::runtime_error("cannot set " + name);
}

std::string executable_name(const std::string& name) { return name + ".exe"; }

}  // namespace quorvel::host
