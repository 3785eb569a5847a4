// Unicode normalization form C, through utf8proc.
#pragma once

#include <string>
#include <string_view>

namespace quorvel::text {

// `text` (valid UTF-8) in NFC.
std::string to_nfc(std::string_view text);

}  // namespace quorvel::text
