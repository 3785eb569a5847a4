#include "engine/process_entry.h"

#if defined(_WIN32)
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
// windows.h before the headers that use its types.
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <cstdio>
#include <memory>
#include <string_view>
#include <system_error>
#else
#include <algorithm>
#endif

namespace quorvel {

#if defined(_WIN32)
namespace {

// UTF-8 text of a UTF-16 string; an unpaired surrogate becomes U+FFFD.
std::string utf8(std::wstring_view text) {
  if (text.empty()) return {};
  const int length = static_cast<int>(text.size());
  const int bytes = WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
  std::string result(static_cast<std::size_t>(bytes), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), length, result.data(), bytes, nullptr, nullptr);
  return result;
}

}  // namespace

CommandLine read_command_line(int, char**) {
  int count = 0;
  const std::unique_ptr<wchar_t*, decltype(&LocalFree)> arguments(CommandLineToArgvW(GetCommandLineW(), &count),
                                                                   &LocalFree);
  if (!arguments) throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "CommandLineToArgvW");
  CommandLine line;
  line.program = utf8(arguments.get()[0]);
  line.arguments.assign(arguments.get() + 1, arguments.get() + count);
  return line;
}

void use_binary_standard_streams() {
  for (std::FILE* stream : {stdin, stdout, stderr}) _setmode(_fileno(stream), _O_BINARY);
}

#else

CommandLine read_command_line(int argc, char** argv) {
  // A process may be started with no arguments at all, not even its name.
  const int first_argument = std::min(argc, 1);
  CommandLine line;
  line.program = argc > 0 ? argv[0] : "";
  line.arguments.assign(argv + first_argument, argv + argc);
  return line;
}

void use_binary_standard_streams() {}

#endif

}  // namespace quorvel
