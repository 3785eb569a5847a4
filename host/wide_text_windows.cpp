#include <windows.h>

#include <stdexcept>

#include "host/wide_text.h"

namespace quorvel::host {

std::wstring wide_text(std::string_view utf8) {
  if (utf8.empty()) return {};
  const int size = static_cast<int>(utf8.size());
  const int length = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), size, nullptr, 0);
  if (length == 0) throw std::runtime_error("not UTF-8: " + std::string(utf8));
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), size, wide.data(), length);
  return wide;
}

std::string utf8_text(std::wstring_view wide) {
  if (wide.empty()) return {};
  const int size = static_cast<int>(wide.size());
  const int length = WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, wide.data(), size, nullptr, 0, nullptr, nullptr);
  if (length == 0) throw std::runtime_error("text that is not UTF-16");
  std::string utf8(static_cast<std::size_t>(length), '\0');
  WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, wide.data(), size, utf8.data(), length, nullptr, nullptr);
  return utf8;
}

}  // namespace quorvel::host
