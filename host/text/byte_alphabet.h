// The byte-level alphabet of tokenizer.json vocabularies: every byte is written as one printable code
// point. Printable Latin-1 bytes stand for themselves; the other 68 bytes take U+0100, U+0101, ... in
// increasing byte order (the space is U+0120, the newline U+010A).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quorvel::text {

// The bytes a string of symbols stands for; nullopt when it holds anything outside the alphabet or is
// not valid UTF-8.
std::optional<std::string> bytes_of_symbols(std::string_view symbols);

}  // namespace quorvel::text
