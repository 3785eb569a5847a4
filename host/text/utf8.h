// UTF-8 sequences as the standard defines them: no overlong forms, no surrogates, nothing above U+10FFFF.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quorvel::text {

enum class Utf8Kind { complete, incomplete, invalid };

// The sequence starting at `offset`: complete (length bytes), incomplete (the text ends after `length`
// bytes that a continuation could still complete) or invalid (`length` bytes, the maximal ill-formed
// part, to be replaced by one U+FFFD).
struct Utf8Sequence {
  Utf8Kind kind;
  std::size_t length;
};

Utf8Sequence next_utf8_sequence(std::string_view bytes, std::size_t offset);

// The offset of the first byte that is not part of a complete, valid character, if any (a sequence cut
// short by a bad continuation or by the end of the text is bad from its first byte).
std::optional<std::size_t> first_invalid_utf8_byte(std::string_view bytes);

// The bytes with every ill-formed or incomplete sequence replaced by U+FFFD.
std::string with_replacements(std::string_view bytes);

}  // namespace quorvel::text
