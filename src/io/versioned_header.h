// The header shape shared by the RoPE cache and the LoRA adapter: a magic
// word, a version that must match exactly, and a reserved word.
#pragma once

#include <cstdint>
#include <istream>
#include <string_view>

namespace quorvel {

// The fixed texts of one file's header check.
struct HeaderMessages {
  std::string_view invalid;         // short header or wrong magic
  std::string_view version_prefix;  // printed before the file's version
  std::string_view advice;          // printed after the expected version
};

// Reads the 12 header bytes and tests the stream once. On failure writes
// `invalid`, or version_prefix + version + ", engine expects version " +
// expected + advice, to standard error and returns false.
bool check_versioned_header(std::istream& in, std::uint32_t magic, std::uint32_t expected_version,
                            const HeaderMessages& messages);

}  // namespace quorvel
