// UTF-8, the text of our code, to and from UTF-16, the text of Windows' own
// interfaces (wide_text_windows.cpp; Windows builds only).
#pragma once

#include <string>
#include <string_view>

namespace quorvel::host {

// Throws std::runtime_error on text that is not valid UTF-8 / UTF-16.
std::wstring wide_text(std::string_view utf8);
std::string utf8_text(std::wstring_view wide);

}  // namespace quorvel::host
