// A path from UTF-8 text, the encoding of every string in our code. On
// Windows a path made from a plain std::string takes each byte for a
// character of its own, so that "modèle" would name another directory; from
// char8_t it is decoded as UTF-8. (The other way, path::string() gives UTF-8
// on both platforms.)
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace quorvel::tools {

inline std::filesystem::path utf8_path(std::string_view text) {
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

}  // namespace quorvel::tools
