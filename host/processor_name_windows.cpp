#include <windows.h>

#include "host/processor_name.h"
#include "host/wide_text.h"

namespace quorvel::host {

std::string processor_name() {
  wchar_t name[256];
  DWORD bytes = sizeof name;
  if (RegGetValueW(HKEY_LOCAL_MACHINE, L"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0", L"ProcessorNameString",
                   RRF_RT_REG_SZ, nullptr, name, &bytes) != ERROR_SUCCESS) {
    return "unknown";
  }
  // The value may carry padding spaces, like the "model name" lines.
  const std::wstring text(name);
  const auto first = text.find_first_not_of(L' ');
  if (first == std::wstring::npos) return "unknown";
  return utf8_text(text.substr(first, text.find_last_not_of(L' ') - first + 1));
}

}  // namespace quorvel::host
